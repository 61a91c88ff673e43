// The tags that plugins require and provide, read with the activator's own loaders
// (JSON and native plugin files alike, and the built-in "end-autoconf"), and the
// critical chain of a boot through them. Loading activates nothing and leaves the
// run-once marker alone.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "analyze/problem.h"
#include "analyze/timing_log.h"

namespace bootstrand::analyze {

class DependencyGraph {
 public:
  // Loads the built-in plugin and the plugin files that `paths` name (host paths:
  // files or directories; none: the two plugin directories) into the process-wide
  // plugin registries, and takes from the scheduler who waits on whom. Throws
  // std::runtime_error for a path that names nothing; a file the activator would
  // skip is reported in `problems` and left out.
  void Load(const std::vector<std::string>& paths, Problems& problems);
  // Takes who waits on whom from the plugins listed now, loaded by someone else; the
  // list must not have been activated yet, since activation empties it.
  void ReadWaits();

  // True when some file declares a plugin called `name`.
  bool Knows(const std::string& name) const { return waitsOn_.count(name) != 0; }
  // The names of the plugins that the plugin called `name` waits on, or nullptr.
  // Plugins that share a name (the same file name in both plugin directories) are one
  // here, waiting on what either waits on.
  const std::set<std::string>* WaitsOn(const std::string& name) const;

 private:
  std::unordered_map<std::string, std::set<std::string>> waitsOn_;
};

// The chain that ends last: the plugin that finished last, the plugin it waited for,
// the one that one waited for, and so on; returned as indices into `plugins`,
// earliest first. Of the plugins it waits on (as the scheduler has it: the providers
// of the tags it requires, the preemptive providers of the tags it provides), the one
// that ended last before it started held it up.
std::vector<std::size_t> CriticalChain(const std::vector<TimedPlugin>& plugins, const DependencyGraph& graph);

}  // namespace bootstrand::analyze
