#include "analyze/dependency_graph.h"

#include <algorithm>
#include <exception>

#include "plugin/plugin.h"

namespace bootstrand::analyze {

void DependencyGraph::Load(const std::vector<std::string>& paths, Problems& problems) {
  std::vector<std::string> files = Plugin::ListPluginFiles(paths);
  Plugin::LoadBuiltins();
  for (const std::string& file : files) {
    try {
      Plugin::LoadPlugin(file);
    } catch (const std::exception& error) {
      problems.push_back({file, 0, std::string("not loaded, left out of the chain: ") + error.what()});
    }
  }
  ReadWaits();
}

void DependencyGraph::ReadWaits() {
  for (const Plugin* holder : Plugin::plugins) {
    waitsOn_[holder->name];
    Plugin::plugins.WaitersOf(*holder, [&](const PluginList::Wait& wait) {
      if (wait.waiter != holder) waitsOn_[wait.waiter->name].insert(holder->name);
    });
  }
}

const std::set<std::string>* DependencyGraph::WaitsOn(const std::string& name) const {
  auto found = waitsOn_.find(name);
  return found == waitsOn_.end() ? nullptr : &found->second;
}

std::vector<std::size_t> CriticalChain(const std::vector<TimedPlugin>& plugins, const DependencyGraph& graph) {
  if (plugins.empty()) return {};
  std::unordered_map<std::string, std::vector<std::size_t>> timed;  // by name
  for (std::size_t i = 0; i < plugins.size(); ++i) timed[plugins[i].name].push_back(i);

  std::size_t last = 0;
  for (std::size_t i = 1; i < plugins.size(); ++i) {
    if (plugins[i].end >= plugins[last].end) last = i;
  }
  std::vector<std::size_t> chain = {last};
  std::vector<bool> inChain(plugins.size(), false);
  inChain[last] = true;
  for (;;) {
    const TimedPlugin& waiting = plugins[chain.back()];
    const std::set<std::string>* waitsOn = graph.WaitsOn(waiting.name);
    if (waitsOn == nullptr) break;
    std::optional<std::size_t> heldBy;
    for (const std::string& name : *waitsOn) {
      auto candidates = timed.find(name);
      if (candidates == timed.end()) continue;
      for (std::size_t candidate : candidates->second) {
        const TimedPlugin& other = plugins[candidate];
        if (inChain[candidate] || other.end > waiting.start) continue;
        if (!heldBy || other.end >= plugins[*heldBy].end) heldBy = candidate;
      }
    }
    if (!heldBy) break;
    chain.push_back(*heldBy);
    inChain[*heldBy] = true;
  }
  std::reverse(chain.begin(), chain.end());
  return chain;
}

}  // namespace bootstrand::analyze
