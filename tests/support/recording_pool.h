// A worker pool without processes, for driving the scheduler in tests: it runs at
// most `limit` plugins at once, passes over the plugins the worker layer would, and
// completes the running plugins one per collection, oldest first, with the status a
// test gave for their name (0 otherwise). It keeps a transcript of what happened:
// each hand-over as the plugin's name (with "~" when passed over), each collection
// as "/".
#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "plugin/plugin.h"
#include "plugin/worker_pool.h"
#include "worker/worker.h"

namespace bootstrand::testing {

class RecordingPool : public WorkerPool {
 public:
  explicit RecordingPool(std::size_t limit = 1000) : limit_(limit) {}

  bool HasRoom() const override { return running_.size() < limit_; }

  HandOverResult HandOver(Plugin* plugin, ActivateFlags handedFlags) override {
    bool passedOver = Worker::PassesOver(*plugin, handedFlags);
    if (!passedOver && !HasRoom()) return HandOverResult::Refused;
    transcript += plugin->name + (passedOver ? "~ " : " ");
    flags[plugin->name] = handedFlags;
    if (passedOver) queued_.emplace_back(plugin, 0);
    if (!passedOver) running_.push_back(plugin);
    return passedOver ? HandOverResult::PassedOver : HandOverResult::Running;
  }

  std::vector<PluginResult> Collect() override {
    transcript += "/ ";
    std::vector<PluginResult> results = std::exchange(queued_, {});
    if (results.empty() && !running_.empty()) {
      Plugin* done = running_.front();
      running_.pop_front();
      results.emplace_back(done, status.count(done->name) != 0 ? status.at(done->name) : 0);
    }
    return results;
  }

  std::map<std::string, int> status;           // a plugin's result by name
  std::string transcript;                      // "a b~ / c /": hand-overs and collections
  std::map<std::string, ActivateFlags> flags;  // the flags each plugin was handed over with

 private:
  std::size_t limit_;
  std::deque<Plugin*> running_;
  std::vector<PluginResult> queued_;
};

}  // namespace bootstrand::testing
