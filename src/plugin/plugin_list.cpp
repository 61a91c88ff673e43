#include "plugin/plugin_list.h"

#include "plugin/plugin.h"

namespace bootstrand {

void PluginList::Append(Plugin* plugin) {
  if (Contains(plugin)) return;
  positions_[plugin] = plugins_.insert(plugins_.end(), plugin);
  Count(plugin, +1);
}

void PluginList::Remove(Plugin* plugin) {
  auto found = positions_.find(plugin);
  if (found == positions_.end()) return;
  plugins_.erase(found->second);
  positions_.erase(found);
  Count(plugin, -1);
}

void PluginList::Clear() {
  plugins_.clear();
  positions_.clear();
  providerCounts_.clear();
  preemptiveProviderCounts_.clear();
}

bool PluginList::Contains(const Plugin* plugin) const { return positions_.count(plugin) != 0; }

int PluginList::ProviderCount(const std::string& tag) const {
  auto found = providerCounts_.find(tag);
  return found == providerCounts_.end() ? 0 : found->second;
}

int PluginList::PreemptiveProviderCount(const std::string& tag) const {
  auto found = preemptiveProviderCounts_.find(tag);
  return found == preemptiveProviderCounts_.end() ? 0 : found->second;
}

void PluginList::Count(const Plugin* plugin, int delta) {
  for (const std::string& tag : plugin->provides) {
    providerCounts_[tag] += delta;
    if (plugin->preemptive && Plugin::kindTags.count(tag) == 0) preemptiveProviderCounts_[tag] += delta;
  }
}

}  // namespace bootstrand
