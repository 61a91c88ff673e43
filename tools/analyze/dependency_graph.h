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

struct PluginDeclaration {
  std::set<std::string> requires_;
  std::set<std::string> provides;
  bool preemptive = false;
};

class DependencyGraph {
 public:
  // Loads the built-in plugin and the plugin files that `paths` name (host paths:
  // files or directories; none: the two plugin directories) into the process-wide
  // plugin registries, and takes every registered plugin's tags. Throws
  // std::runtime_error for a path that names nothing; a file the activator would
  // skip is reported in `problems` and left out.
  void Load(const std::vector<std::string>& paths, Problems& problems);

  // The declaration of the plugin called `name`, or nullptr. Plugins that share a
  // name (the same file name in both plugin directories) share one declaration
  // holding the tags of both.
  const PluginDeclaration* Find(const std::string& name) const;

 private:
  std::unordered_map<std::string, PluginDeclaration> plugins_;
};

// The chain that ends last: the plugin that finished last, the plugin it waited for,
// the one that one waited for, and so on; returned as indices into `plugins`,
// earliest first. A plugin waits for every provider of a tag it requires and for
// every preemptive provider of a tag it provides; of those, the one that ended last
// before it started held it up.
std::vector<std::size_t> CriticalChain(const std::vector<TimedPlugin>& plugins, const DependencyGraph& graph);

}  // namespace bootstrand::analyze
