#include "simulated_pool.h"

#include "worker/worker.h"

namespace bootstrand::lint {

WorkerPool::HandOverResult SimulatedPool::HandOver(Plugin* plugin, ActivateFlags flags) {
  if (Worker::PassesOver(*plugin, flags)) {
    passedOver_.push_back({plugin, now_, now_, true, handOvers_++});
    return HandOverResult::PassedOver;
  }
  if (!HasRoom()) return HandOverResult::Refused;
  Run run{plugin, now_, now_ + durations_(*plugin), false, handOvers_++};
  running_.emplace(std::make_pair(run.end, run.handOver), run);
  return HandOverResult::Running;
}

std::vector<PluginResult> SimulatedPool::Collect() {
  std::vector<Run> ended = std::exchange(passedOver_, {});
  // The forked pool waits only when nothing is there to report; it would wait for
  // good with nothing running, where the scheduler never asks.
  if (ended.empty() && !running_.empty()) now_ = running_.begin()->first.first;
  while (!running_.empty() && running_.begin()->first.first <= now_) {
    ended.push_back(running_.begin()->second);
    running_.erase(running_.begin());
  }
  std::vector<PluginResult> results;
  for (const Run& run : ended) {
    results.emplace_back(run.plugin, 0);
    finished_.push_back(run);
  }
  return results;
}

}  // namespace bootstrand::lint
