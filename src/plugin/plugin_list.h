// The ordered list of registered plugins that have not yet finished, in load order.
// It keeps, per tag, how many listed plugins provide the tag and how many listed
// preemptive plugins provide it, so that dependency questions cost O(tags) instead
// of a walk over the list. Plugins are borrowed; the list never frees them.
#pragma once

#include <cstddef>
#include <list>
#include <string>
#include <unordered_map>

namespace bootstrand {

class Plugin;

class PluginList {
 public:
  using const_iterator = std::list<Plugin*>::const_iterator;

  // Appends a fully constructed plugin; its tags and preemptive mark must not change
  // while it is listed.
  void Append(Plugin* plugin);
  // Removes a listed plugin; does nothing for a plugin that is not listed.
  void Remove(Plugin* plugin);
  void Clear();

  bool Contains(const Plugin* plugin) const;
  // Listed plugins that provide `tag`, kind tags included.
  int ProviderCount(const std::string& tag) const;
  // Listed preemptive plugins that provide `tag` (never counted for kind tags).
  int PreemptiveProviderCount(const std::string& tag) const;

  const_iterator begin() const { return plugins_.begin(); }
  const_iterator end() const { return plugins_.end(); }
  bool empty() const { return plugins_.empty(); }
  std::size_t size() const { return plugins_.size(); }
  Plugin* front() const { return plugins_.front(); }

 private:
  void Count(const Plugin* plugin, int delta);

  std::list<Plugin*> plugins_;
  std::unordered_map<const Plugin*, std::list<Plugin*>::iterator> positions_;
  std::unordered_map<std::string, int> providerCounts_;
  std::unordered_map<std::string, int> preemptiveProviderCounts_;
};

}  // namespace bootstrand
