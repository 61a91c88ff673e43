#include "worker/worker.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "log/channels.h"
#include "log/profile.h"
#include "platform/clocks.h"
#include "platform/host_path.h"
#include "platform/kitbag/command_process.h"
#include "platform/signals.h"
#include "platform/stop_signals.h"
#include "platform/standard_streams.h"
#include "plugin/exception.h"
#include "plugin/plugin.h"
#include "plugin/recorded_run.h"

namespace bootstrand {

namespace {

// The pool and everything that goes with it, in one place.
struct Pool {
  std::vector<std::unique_ptr<Worker>> workers;
  std::vector<PluginResult> queuedResults;
  std::uint32_t workerLimit = 0xFFFFFFFF;
  std::unique_ptr<Profile> profile;
};

Pool& ThePool() {
  static Pool pool;
  return pool;
}

// A worker that is left with an uncaught exception ends with this status, so the
// scheduler reports its plugin as failed.
constexpr int kUncaughtExceptionStatus = 2;

}  // namespace

void Worker::LimitWorkers(int n) { ThePool().workerLimit = static_cast<std::uint32_t>(n); }

std::size_t Worker::PoolSize() { return ThePool().workers.size(); }

std::uint32_t Worker::WorkerLimit() { return ThePool().workerLimit; }

bool Worker::Saturated() {
  const Pool& pool = ThePool();
  if (pool.workers.size() < pool.workerLimit) return false;
  for (const std::unique_ptr<Worker>& worker : pool.workers) {
    if (worker->plugin == nullptr) return false;
  }
  return true;
}

bool Worker::ActivatePlugin(Plugin* plugin, ActivateFlags flags) {
  return HandOver(plugin, flags) != WorkerPool::HandOverResult::Refused;
}

bool Worker::PassesOver(const Plugin& plugin, ActivateFlags flags) {
  return (flags & ActivateFlag::Skip) || plugin.noOperations || plugin.skip;
}

WorkerPool::HandOverResult Worker::HandOver(Plugin* plugin, ActivateFlags flags) {
  Pool& pool = ThePool();
  if (!pool.profile) {
    pool.profile = std::make_unique<Profile>();
    // A write to a worker that died must fail with EPIPE instead of ending the
    // scheduler, so that the communication-failure path can report it.
    IgnoreSignal(SIGPIPE);
    // From the first hand-over on, a stop request ends the workers and their
    // commands before this process exits (Interrupt); workers inherit the handlers.
    CatchStopSignals();
  }
  if (PassesOver(*plugin, flags)) {
    KernelLog() << "Bootstrand plugin " << plugin->name << " skipped." << std::endl;
    Profile::RecordPlugin(plugin->name, WallClockNow());
    RecordedRun::PassedOver(*plugin);
    pool.queuedResults.emplace_back(plugin, 0);
    return WorkerPool::HandOverResult::PassedOver;
  }
  for (;;) {
    for (const std::unique_ptr<Worker>& worker : pool.workers) {
      if (worker->Assign(plugin, flags)) return WorkerPool::HandOverResult::Running;
    }
    if (!Spawn(flags & ActivateFlag::DryRun)) return WorkerPool::HandOverResult::Refused;
  }
}

namespace {

// The forked workers behind the scheduler's seam.
class ForkedPool : public WorkerPool {
 public:
  bool HasRoom() const override { return !Worker::Saturated(); }
  HandOverResult HandOver(Plugin* plugin, ActivateFlags flags) override { return Worker::HandOver(plugin, flags); }
  std::vector<PluginResult> Collect() override { return Worker::PluginResults(); }
};

}  // namespace

WorkerPool& Worker::Forked() {
  static ForkedPool pool;
  return pool;
}

bool Worker::Spawn(bool dryRun) {
  Pool& pool = ThePool();
  if (pool.workers.size() >= pool.workerLimit) return false;
  try {
    new Worker(dryRun);  // owned by the pool from its constructor on
  } catch (const Exception& error) {
    WriteLine(STDERR_FILENO, "Worker (" + std::to_string(pool.workers.size()) + ") " + error.what());
    return false;
  }
  return true;
}

Worker::Worker(bool dryRun) {
  int request[2];
  int response[2];
  if (pipe2(request, O_CLOEXEC) != 0) throw Exception("request pipe: %s", std::strerror(errno));
  if (pipe2(response, O_CLOEXEC) != 0) {
    int error = errno;
    close(request[0]);
    close(request[1]);
    throw Exception("response pipe: %s", std::strerror(error));
  }
  // Anything still buffered would otherwise be written by both processes.
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  pid = fork();
  if (pid < 0) {
    int error = errno;
    for (int fd : {request[0], request[1], response[0], response[1]}) close(fd);
    throw Exception("fork: %s", std::strerror(error));
  }
  if (pid > 0) {
    close(request[0]);
    close(response[1]);
    requestFd = request[1];
    responseFd = response[0];
    ThePool().workers.emplace_back(this);
    return;
  }

  // The worker process. Dropping the inherited workers closes the scheduler-side
  // ends of every earlier worker's pipes, so each pipe has exactly two holders and
  // each side sees end of file when the other goes.
  ThePool().workers.clear();
  ThePool().queuedResults.clear();
  DefaultSignal(SIGPIPE);
  if (!dryRun) {
    int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (null >= 0) RedirectOnto(null, STDIN_FILENO);
    std::string logPath = HostPath("/var/log/bootstrand-stdout.log");
    int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (log >= 0) RedirectOnto(log, STDOUT_FILENO);
    dup2(STDOUT_FILENO, STDERR_FILENO);
  }
  close(request[1]);
  close(response[0]);
  requestFd = request[0];
  responseFd = response[1];
  RunWorkerLoop(dryRun);
}

void Worker::RunWorkerLoop(bool dryRun) {
  for (;;) {
    // A stop request reaches an idle worker only here, where the signals are let in.
    pollfd idle {requestFd, POLLIN, 0};
    if (ppoll(&idle, 1, nullptr, WaitMask()) < 0 && errno != EINTR) std::exit(1);
    if (StopSignal() != 0) std::exit(0);
    WorkerRequest request {};
    ssize_t count = read(requestFd, &request, sizeof request);
    if (count < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      std::exit(1);
    }
    if (count == 0) std::exit(0);

    ClockReading start = RecordedRun::Started(*request.plugin);
    bool succeeded = false;
    // Nothing may unwind out of here: the stack below belongs to the scheduler
    // code that forked this process.
    try {
      succeeded = request.plugin->Activate(request.flags);
    } catch (const std::exception& error) {
      WriteLine(STDERR_FILENO, request.plugin->name + ": uncaught exception: " + error.what());
      std::exit(kUncaughtExceptionStatus);
    } catch (...) {
      WriteLine(STDERR_FILENO, request.plugin->name + ": uncaught exception");
      std::exit(kUncaughtExceptionStatus);
    }
    // Stopped mid-plugin: the scheduler reports the interruption, not this outcome.
    if (StopSignal() != 0) std::exit(0);
    ClockReading end = RecordedRun::Ended(*request.plugin);
    WorkerResponse response {request.plugin, succeeded ? 0 : 1, 0};
    if (!dryRun) {
      Profile::RecordPlugin(request.plugin->name, ToTimeval(start.wallMicroseconds), ToTimeval(end.wallMicroseconds));
    }
    std::cout.flush();
    std::fflush(nullptr);
    while (write(responseFd, &response, sizeof response) < 0) {
      if (errno != EINTR) std::exit(1);
    }
  }
}

Worker::~Worker() {
  if (requestFd >= 0) close(requestFd);
  if (responseFd >= 0) close(responseFd);
}

bool Worker::Assign(Plugin* plugin, ActivateFlags flags) {
  if (this->plugin != nullptr) return false;
  KernelLog() << "Activating Bootstrand plugin " << plugin->name << "." << std::endl;
  WorkerRequest request {plugin, flags, 0};
  ssize_t written;
  do {
    written = write(requestFd, &request, sizeof request);
  } while (written < 0 && errno == EINTR);
  if (written < 0) {
    KernelLog() << "Bootstrand worker communication failed " << std::strerror(errno) << std::endl;
    return false;
  }
  this->plugin = plugin;
  return true;
}

PluginResult Worker::Result() {
  WorkerResponse response {};
  ssize_t count;
  do {
    count = read(responseFd, &response, sizeof response);
  } while (count < 0 && errno == EINTR);
  if (count == static_cast<ssize_t>(sizeof response)) {
    plugin = nullptr;
    return {response.plugin, response.status};
  }

  int waitStatus = 0;
  pid_t waited;
  do {
    waited = waitpid(pid, &waitStatus, 0);
  } while (waited < 0 && errno == EINTR);
  // An idle worker has no plugin to name; its line names the process instead.
  std::string who = plugin != nullptr ? plugin->name : "idle worker " + std::to_string(pid);
  std::int32_t status = 1;
  if (waited >= 0) {
    // Dry-run workers share standard output: each line goes out in one write.
    if (WIFEXITED(waitStatus)) {
      status = WEXITSTATUS(waitStatus);
      if (status != 0) WriteLine(STDOUT_FILENO, who + ": exited with code " + std::to_string(status));
    } else if (WIFSIGNALED(waitStatus)) {
      status = WTERMSIG(waitStatus);
      WriteLine(STDOUT_FILENO, who + ": exited with signal " + std::to_string(status));
    } else {
      status = -1;
      WriteLine(STDOUT_FILENO, who + ": exited <unknown failure>");
    }
  }
  throw WorkerException(plugin, status);
}

std::vector<PluginResult> Worker::PluginResults() {
  Pool& pool = ThePool();
  std::vector<PluginResult> results = std::move(pool.queuedResults);
  pool.queuedResults.clear();

  std::vector<pollfd> entries;
  entries.reserve(pool.workers.size());
  for (const std::unique_ptr<Worker>& worker : pool.workers) entries.push_back({worker->responseFd, POLLIN, 0});
  int ready;
  const timespec now {0, 0};
  do {
    ready = ppoll(entries.data(), entries.size(), results.empty() ? nullptr : &now, WaitMask());
    if (StopSignal() != 0) Interrupt(StopSignal());
  } while (ready < 0 && errno == EINTR);
  if (ready < 0) return results;

  for (std::size_t i = 0; i < entries.size();) {
    if ((entries[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) {
      ++i;
      continue;
    }
    try {
      results.push_back(pool.workers[i]->Result());
      ++i;
    } catch (const WorkerException& gone) {
      if (gone.plugin != nullptr) results.emplace_back(gone.plugin, gone.status);
      // Move the last worker (and its poll entry) into this slot and look at the
      // slot again.
      pool.workers[i] = std::move(pool.workers.back());
      pool.workers.pop_back();
      entries[i] = entries.back();
      entries.pop_back();
    }
  }
  return results;
}

void Worker::Interrupt(int signal) {
  Pool& pool = ThePool();
  for (const std::unique_ptr<Worker>& worker : pool.workers) kill(worker->pid, SIGTERM);
  // Each worker ends its command's process group (SIGTERM, then SIGKILL after
  // kSecondsToKill) and exits; one that does not within that time and a little more
  // (stuck in a native plugin) is killed.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(Kitbag::AutoCli::kSecondsToKill + 2);
  std::vector<pid_t> running;
  for (const std::unique_ptr<Worker>& worker : pool.workers) running.push_back(worker->pid);
  while (!running.empty()) {
    std::erase_if(running, [](pid_t pid) { return waitpid(pid, nullptr, WNOHANG) != 0; });
    if (running.empty()) break;
    if (std::chrono::steady_clock::now() >= deadline) {
      for (pid_t pid : running) kill(pid, SIGKILL);
      for (pid_t pid : running) {
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
      }
      break;
    }
    usleep(20000);
  }
  pool.workers.clear();
  AlertLog() << "Bootstrand activation interrupted by " << StopSignalName(signal) << "." << std::endl;
  // Not a completed run: no timing summary. exit() rather than _exit(), so that every
  // stream is flushed.
  Profile::OmitSummary();
  RecordedRun::Interrupted(signal, kInterruptedStatus);
  std::exit(kInterruptedStatus);
}

void Worker::ResetPool() {
  Pool& pool = ThePool();
  std::vector<pid_t> pids;
  for (const std::unique_ptr<Worker>& worker : pool.workers) pids.push_back(worker->pid);
  pool.workers.clear();  // closing the request pipes ends every worker
  for (pid_t each : pids) {
    while (waitpid(each, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  pool.queuedResults.clear();
  pool.workerLimit = 0xFFFFFFFF;
  pool.profile.reset();
}

}  // namespace bootstrand
