// A worker pool in virtual time, for predicting a boot: the real scheduler hands
// plugins to it and collects them as it would from forked workers, but a plugin
// "runs" for the time its caller gives, nothing runs for real, and the clock moves
// only when the scheduler waits for a result. Predict() drives it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "analyze/timing_log.h"
#include "plugin/worker_pool.h"

namespace bootstrand::lint {

using analyze::Microseconds;

class SimulatedPool final : public WorkerPool {
 public:
  // How long a plugin that needs a worker runs.
  using Durations = std::function<Microseconds(const Plugin&)>;

  // A plugin from its hand-over to its end, in virtual time from the first hand-over.
  struct Run {
    Plugin* plugin = nullptr;
    Microseconds start = 0;
    Microseconds end = 0;
    bool passedOver = false;
    std::uint64_t handOver = 0;  // its place among the hand-overs
  };

  // At most `workers` plugins that need a worker at once; 0: no limit.
  SimulatedPool(std::uint32_t workers, Durations durations)
      : workers_(workers), durations_(std::move(durations)) {}

  bool HasRoom() const override { return workers_ == 0 || running_.size() < workers_; }
  // A plugin the worker layer passes over ends as it is handed over; the others start
  // now and end after their duration. Every plugin succeeds.
  HandOverResult HandOver(Plugin* plugin, ActivateFlags flags) override;
  // The plugins passed over since the last collection, and those running that have
  // ended by now. When there are none, the clock moves on to the earliest end among
  // the running plugins and every plugin ending at that instant is returned: by end,
  // then in hand-over order. With nothing handed over, nothing, and the clock stays.
  std::vector<PluginResult> Collect() override;

  Microseconds Now() const { return now_; }
  // Every plugin collected so far, in the order Collect returned them.
  const std::vector<Run>& Finished() const { return finished_; }

 private:
  const std::uint32_t workers_;
  Durations durations_;
  Microseconds now_ = 0;
  std::uint64_t handOvers_ = 0;
  std::vector<Run> passedOver_;
  std::map<std::pair<Microseconds, std::uint64_t>, Run> running_;  // by end, then hand-over
  std::vector<Run> finished_;
};

}  // namespace bootstrand::lint
