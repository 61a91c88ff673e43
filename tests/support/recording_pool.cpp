#include "support/recording_pool.h"

#include "plugin/plugin.h"
#include "worker/worker.h"

namespace bootstrand::testing {

WorkerPool::HandOverResult RecordingPool::HandOver(Plugin* plugin, ActivateFlags handedFlags) {
  bool passedOver = Worker::PassesOver(*plugin, handedFlags);
  if (!passedOver && !HasRoom()) return HandOverResult::Refused;
  transcript += plugin->name + (passedOver ? "~ " : " ");
  flags[plugin->name] = handedFlags;
  if (passedOver) {
    queued_.emplace_back(plugin, 0);
    return HandOverResult::PassedOver;
  }
  running_.push_back(plugin);
  return HandOverResult::Running;
}

std::vector<PluginResult> RecordingPool::Collect() {
  transcript += "/ ";
  std::vector<PluginResult> results = std::move(queued_);
  queued_.clear();
  if (results.empty() && !running_.empty()) {
    Plugin* done = running_.front();
    running_.pop_front();
    results.emplace_back(done, status.count(done->name) != 0 ? status.at(done->name) : 0);
  }
  return results;
}

}  // namespace bootstrand::testing
