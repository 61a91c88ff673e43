// The tags that plugins require and provide, read from their JSON plugin files
// without loading them (so nothing on the host is touched), and the critical chain
// of a boot through them. The built-in "end-autoconf" plugin is always known.
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
  DependencyGraph();

  // Reads one JSON plugin file, or every ".json" file of a directory. Throws
  // std::runtime_error when the path cannot be read; a file that the activator would
  // not load either is reported in `problems` and left out.
  void Read(const std::string& path, Problems& problems);

  // The declaration of the plugin called `name`, or nullptr. Plugins that share a
  // name (the same file name in both plugin directories) share one declaration
  // holding the tags of both.
  const PluginDeclaration* Find(const std::string& name) const;

  // Native plugin files seen in directories; their tags live in the shared object.
  std::size_t NativeFilesSkipped() const { return nativeFilesSkipped_; }

 private:
  void ReadFile(const std::string& path, Problems& problems);

  std::unordered_map<std::string, PluginDeclaration> plugins_;
  std::size_t nativeFilesSkipped_ = 0;
};

// The chain that ends last: the plugin that finished last, the plugin it waited for,
// the one that one waited for, and so on; returned as indices into `plugins`,
// earliest first. A plugin waits for every provider of a tag it requires and for
// every preemptive provider of a tag it provides; of those, the one that ended last
// before it started held it up.
std::vector<std::size_t> CriticalChain(const std::vector<TimedPlugin>& plugins, const DependencyGraph& graph);

}  // namespace bootstrand::analyze
