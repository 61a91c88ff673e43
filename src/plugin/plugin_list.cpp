#include "plugin/plugin_list.h"

#include "plugin/plugin.h"
#include "worker/worker.h"

namespace bootstrand {

void PluginList::WaitersOf(const Plugin& holder, const std::function<void(const Wait&)>& visit) const {
  for (const std::string& tag : holder.provides) {
    auto use = tags_.find(tag);
    if (use == tags_.end()) continue;
    for (Plugin* waiter : use->second.requirers) {
      if (Contains(waiter)) visit(Wait{waiter, tag, false});
    }
    if (!holder.preemptive || Plugin::kindTags.count(tag) != 0) continue;
    for (Plugin* waiter : use->second.providers) {
      if (waiter != &holder && Contains(waiter)) visit(Wait{waiter, tag, true});
    }
  }
}

void PluginList::Append(Plugin* plugin) {
  if (Contains(plugin)) return;
  entries_[plugin] = Entry{plugins_.insert(plugins_.end(), plugin), nextOrder_++};
  for (const std::string& tag : plugin->requires_) tags_[tag].requirers.push_back(plugin);
  for (const std::string& tag : plugin->provides) {
    TagUse& use = tags_[tag];
    use.providers.push_back(plugin);
    ++use.listedProviders;
  }
  // The new plugin's own waits are counted with all the others when readiness is
  // next asked for: plugins are appended while loading, before any is.
  counted_ = false;
}

void PluginList::Remove(Plugin* plugin) {
  auto found = entries_.find(plugin);
  if (found == entries_.end()) return;
  SetState(plugin, found->second, State::Waiting);  // leaves the ordered sets
  plugins_.erase(found->second.position);
  entries_.erase(found);
  for (const std::string& tag : plugin->provides) --tags_[tag].listedProviders;
  if (!counted_) return;
  WaitersOf(*plugin, [this](const Wait& wait) {
    Entry& entry = entries_.at(wait.waiter);
    if (--entry.waits == 0 && entry.state == State::Waiting) SetState(wait.waiter, entry, State::Ready);
  });
}

void PluginList::Clear() { *this = PluginList(); }

bool PluginList::Contains(const Plugin* plugin) const { return entries_.count(plugin) != 0; }

int PluginList::ProviderCount(const std::string& tag) const {
  auto found = tags_.find(tag);
  return found == tags_.end() ? 0 : found->second.listedProviders;
}

PluginList::State PluginList::StateOf(const Plugin* plugin) {
  CountWaits();
  auto found = entries_.find(plugin);
  return found == entries_.end() ? State::Waiting : found->second.state;
}

void PluginList::HandedOver(Plugin* plugin, bool running) {
  auto found = entries_.find(plugin);
  if (found != entries_.end()) SetState(plugin, found->second, running ? State::Running : State::PassedOver);
}

const PluginList::Ordered& PluginList::ReadyToRun() {
  CountWaits();
  return readyToRun_;
}

const PluginList::Ordered& PluginList::ReadyToPassOver() {
  CountWaits();
  return readyToPassOver_;
}

void PluginList::SetState(Plugin* plugin, Entry& entry, State state) {
  if (entry.state == State::Ready) {
    readyToRun_.erase(entry.order);
    readyToPassOver_.erase(entry.order);
  } else if (entry.state == State::Running) {
    running_.erase(entry.order);
  }
  entry.state = state;
  if (state == State::Ready) {
    (Worker::PassesOver(*plugin, 0) ? readyToPassOver_ : readyToRun_).emplace(entry.order, plugin);
  } else if (state == State::Running) {
    running_.emplace(entry.order, plugin);
  }
}

void PluginList::CountWaits() {
  if (counted_) return;
  counted_ = true;
  for (auto& [plugin, entry] : entries_) entry.waits = 0;
  for (Plugin* holder : plugins_) {
    WaitersOf(*holder, [this](const Wait& wait) { ++entries_.at(wait.waiter).waits; });
  }
  // Handed-over plugins stay where they are: they are not waiting any more.
  for (Plugin* plugin : plugins_) {
    Entry& entry = entries_.at(plugin);
    if (entry.state != State::Waiting && entry.state != State::Ready) continue;
    SetState(plugin, entry, entry.waits == 0 ? State::Ready : State::Waiting);
  }
}

}  // namespace bootstrand
