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
  for (const Plugin* plugin : Plugin::plugins) {
    PluginDeclaration& known = plugins_[plugin->name];
    known.provides.insert(plugin->provides.begin(), plugin->provides.end());
    known.requires_.insert(plugin->requires_.begin(), plugin->requires_.end());
    known.preemptive = known.preemptive || plugin->preemptive;
  }
}

const PluginDeclaration* DependencyGraph::Find(const std::string& name) const {
  auto found = plugins_.find(name);
  return found == plugins_.end() ? nullptr : &found->second;
}

std::vector<std::size_t> CriticalChain(const std::vector<TimedPlugin>& plugins, const DependencyGraph& graph) {
  if (plugins.empty()) return {};
  // Which timed plugins provide each tag, and which of them preemptively.
  std::unordered_map<std::string, std::vector<std::size_t>> providers;
  std::unordered_map<std::string, std::vector<std::size_t>> preemptiveProviders;
  for (std::size_t i = 0; i < plugins.size(); ++i) {
    const PluginDeclaration* declaration = graph.Find(plugins[i].name);
    if (declaration == nullptr) continue;
    for (const std::string& tag : declaration->provides) {
      providers[tag].push_back(i);
      if (declaration->preemptive && Plugin::kindTags.count(tag) == 0) preemptiveProviders[tag].push_back(i);
    }
  }

  std::size_t last = 0;
  for (std::size_t i = 1; i < plugins.size(); ++i) {
    if (plugins[i].end >= plugins[last].end) last = i;
  }
  std::vector<std::size_t> chain = {last};
  std::vector<bool> inChain(plugins.size(), false);
  inChain[last] = true;
  for (;;) {
    const TimedPlugin& waiting = plugins[chain.back()];
    const PluginDeclaration* declaration = graph.Find(waiting.name);
    if (declaration == nullptr) break;
    std::optional<std::size_t> heldBy;
    auto consider = [&](const std::vector<std::size_t>& candidates) {
      for (std::size_t candidate : candidates) {
        const TimedPlugin& other = plugins[candidate];
        if (inChain[candidate] || other.end > waiting.start) continue;
        if (!heldBy || other.end >= plugins[*heldBy].end) heldBy = candidate;
      }
    };
    for (const std::string& tag : declaration->requires_) {
      if (auto found = providers.find(tag); found != providers.end()) consider(found->second);
    }
    for (const std::string& tag : declaration->provides) {
      if (auto found = preemptiveProviders.find(tag); found != preemptiveProviders.end()) consider(found->second);
    }
    if (!heldBy) break;
    chain.push_back(*heldBy);
    inChain[*heldBy] = true;
  }
  std::reverse(chain.begin(), chain.end());
  return chain;
}

}  // namespace bootstrand::analyze
