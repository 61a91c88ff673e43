#include "plugin/plugin_list.h"

#include "plugin/plugin.h"

namespace bootstrand {

void PluginList::Append(Plugin* plugin) {
  if (Contains(plugin)) return;
  entries_[plugin] = Entry{plugins_.insert(plugins_.end(), plugin), nextOrder_++};
  Count(plugin, +1);
  for (const std::string& tag : plugin->requires_) requirers_[tag].push_back(plugin);
  for (const std::string& tag : plugin->provides) {
    if (Plugin::kindTags.count(tag) == 0) tagProviders_[tag].push_back(plugin);
  }
  // A new provider can hold back plugins already found ready.
  if (tracking_) TrackReadiness();
}

void PluginList::Remove(Plugin* plugin) {
  auto found = entries_.find(plugin);
  if (found == entries_.end()) return;
  std::uint64_t order = found->second.order;
  plugins_.erase(found->second.position);
  entries_.erase(found);
  Count(plugin, -1);
  if (!tracking_) return;
  readyToRun_.erase(order);
  readyToPassOver_.erase(order);
  active_.erase(order);
  // Only plugins waiting for a tag that nobody listed provides any more, or held
  // back by this preemptive provider, can have become ready.
  for (const std::string& tag : plugin->provides) {
    if (ProviderCount(tag) == 0) {
      auto waiting = requirers_.find(tag);
      if (waiting != requirers_.end()) {
        for (Plugin* candidate : waiting->second) Recheck(candidate);
      }
    }
    if (plugin->preemptive && Plugin::kindTags.count(tag) == 0 && PreemptiveProviderCount(tag) <= 1) {
      for (Plugin* candidate : tagProviders_[tag]) Recheck(candidate);
    }
  }
}

void PluginList::Clear() {
  plugins_.clear();
  entries_.clear();
  providerCounts_.clear();
  preemptiveProviderCounts_.clear();
  requirers_.clear();
  tagProviders_.clear();
  readyToRun_.clear();
  readyToPassOver_.clear();
  active_.clear();
  tracking_ = false;
}

bool PluginList::Contains(const Plugin* plugin) const { return entries_.count(plugin) != 0; }

int PluginList::ProviderCount(const std::string& tag) const {
  auto found = providerCounts_.find(tag);
  return found == providerCounts_.end() ? 0 : found->second;
}

int PluginList::PreemptiveProviderCount(const std::string& tag) const {
  auto found = preemptiveProviderCounts_.find(tag);
  return found == preemptiveProviderCounts_.end() ? 0 : found->second;
}

void PluginList::TrackReadiness() {
  tracking_ = true;
  readyToRun_.clear();
  readyToPassOver_.clear();
  active_.clear();
  for (Plugin* plugin : plugins_) {
    if (plugin->active) active_.emplace(entries_.at(plugin).order, plugin);
    Recheck(plugin);
  }
}

void PluginList::Dispatched(Plugin* plugin) {
  auto found = entries_.find(plugin);
  if (found == entries_.end()) return;
  found->second.dispatched = true;
  std::uint64_t order = found->second.order;
  readyToRun_.erase(order);
  readyToPassOver_.erase(order);
  if (plugin->active) active_.emplace(order, plugin);
}

void PluginList::Count(const Plugin* plugin, int delta) {
  for (const std::string& tag : plugin->provides) {
    providerCounts_[tag] += delta;
    if (plugin->preemptive && Plugin::kindTags.count(tag) == 0) preemptiveProviderCounts_[tag] += delta;
  }
}

void PluginList::Recheck(Plugin* plugin) {
  auto found = entries_.find(plugin);
  if (found == entries_.end() || found->second.dispatched || plugin->Pending()) return;
  std::uint64_t order = found->second.order;
  if (plugin->skip || plugin->noOperations) {
    readyToPassOver_.emplace(order, plugin);
  } else {
    readyToRun_.emplace(order, plugin);
  }
}

}  // namespace bootstrand
