// The scheduler's view of the workers: whether a plugin that needs a worker could
// be handed over now, the hand-over itself, and the results that have come back. The
// forked worker processes are one implementation (Worker); the linter and the tests
// drive the scheduler with pools of their own, without processes.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "plugin/activate_flags.h"

namespace bootstrand {

class Plugin;

// A finished plugin and its status: 0 when it succeeded or was passed over.
using PluginResult = std::pair<Plugin*, std::int32_t>;

class WorkerPool {
 public:
  enum class HandOverResult {
    Refused,     // no worker can take the plugin now; it stays ready
    Running,     // a worker runs it
    PassedOver,  // it needs no worker (disabled, skipped or without operations); its result is queued
  };

  virtual ~WorkerPool() = default;

  // False when every worker is busy and no other may be started, so that only
  // plugins that are passed over can be handed over.
  virtual bool HasRoom() const = 0;
  virtual HandOverResult HandOver(Plugin* plugin, ActivateFlags flags) = 0;
  // The results available now, queued ones first; waits for one when none is queued
  // and some plugin is running.
  virtual std::vector<PluginResult> Collect() = 0;
};

}  // namespace bootstrand
