// The worker pool: forked worker processes that run plugin activations for the
// scheduler. Each Worker is one process seen from one side of its two pipes, which
// carry fixed 16-byte records. Workers are spawned lazily up to workerLimit, reused
// for many plugins, and found dead only when their response pipe says so. Passive:
// the scheduler hands plugins over with ActivatePlugin and collects results with
// PluginResults once per pass.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <utility>
#include <vector>

#include "plugin/activate_flags.h"
#include "plugin/worker_pool.h"

namespace bootstrand {

class Plugin;

// Scheduler to worker: the plugin's address (valid in the worker, which is a fork of
// the scheduler made after loading) and a copy of the flags.
struct WorkerRequest {
  Plugin* plugin;
  ActivateFlags flags;
  std::uint32_t reserved;
};

// Worker to scheduler: the plugin's address from the request and 0 (success) or 1.
struct WorkerResponse {
  Plugin* plugin;
  std::int32_t status;
  std::uint32_t reserved;
};

static_assert(sizeof(WorkerRequest) == 16 && offsetof(WorkerRequest, flags) == 8);
static_assert(sizeof(WorkerResponse) == 16 && offsetof(WorkerResponse, status) == 8);


// A worker found gone; carries the plugin it held (or none) and the status to report.
class WorkerException : public std::exception {
 public:
  WorkerException(Plugin* plugin, std::int32_t status) : plugin(plugin), status(status) {}
  Plugin* plugin;
  std::int32_t status;
};

class Worker {
 public:
  // Creates the pipes and forks the worker process; in the scheduler the new worker
  // is appended to the pool. Throws Exception on a pipe or fork failure.
  explicit Worker(bool dryRun);
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  static void LimitWorkers(int n);
  // True when the plugin was passed over or given to a worker.
  static bool ActivatePlugin(Plugin* plugin, ActivateFlags flags);
  // The same hand-over, saying which of the two happened.
  static WorkerPool::HandOverResult HandOver(Plugin* plugin, ActivateFlags flags);
  // True when a hand-over with `flags` does not run the plugin but reports it
  // skipped: disabled, skipped at the prompt, or without operations.
  static bool PassesOver(const Plugin& plugin, ActivateFlags flags);
  static std::vector<PluginResult> PluginResults();
  static bool Spawn(bool dryRun);
  // The pool as the scheduler sees it.
  static WorkerPool& Forked();

  bool Assign(Plugin* plugin, ActivateFlags flags);
  PluginResult Result();

  // Closes every request pipe, reaps the workers and forgets queued results, the
  // limit and the timing profile, so that tests can start again from scratch.
  static void ResetPool();
  // The boot was asked to stop by `signal`: ends every worker and the commands they
  // run, writes "Bootstrand activation interrupted by SIGTERM." (or SIGINT, SIGQUIT) on the
  // alert channel and exits with kInterruptedStatus.
  [[noreturn]] static void Interrupt(int signal);
  static constexpr int kInterruptedStatus = 4;
  static std::size_t PoolSize();
  // True when every worker is busy and no other may be spawned: a plugin that is not
  // passed over cannot be handed over now.
  static bool Saturated();
  static std::uint32_t WorkerLimit();

  int requestFd = -1;
  int responseFd = -1;
  pid_t pid = -1;
  Plugin* plugin = nullptr;

 private:
  [[noreturn]] void RunWorkerLoop(bool dryRun);
};

}  // namespace bootstrand
