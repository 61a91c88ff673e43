// The ordered list of registered plugins that have not yet finished, in load order.
// It keeps, per tag, how many listed plugins provide the tag and how many listed
// preemptive plugins provide it, so that dependency questions cost O(tags) instead
// of a walk over the list. Once readiness tracking is on, it also keeps, in list
// order, the listed plugins that are not pending (split into those that need a
// worker and those the worker layer passes over) and those that are active, so that
// a scheduler pass costs what it dispatches rather than the length of the list.
// Plugins are borrowed; the list never frees them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace bootstrand {

class Plugin;

class PluginList {
 public:
  using const_iterator = std::list<Plugin*>::const_iterator;
  // Listed plugins keyed by their position in the list.
  using Ordered = std::map<std::uint64_t, Plugin*>;

  // Appends a fully constructed plugin; its tags, preemptive mark and skip state must
  // not change while it is listed.
  void Append(Plugin* plugin);
  // Removes a listed plugin; does nothing for a plugin that is not listed.
  void Remove(Plugin* plugin);
  void Clear();

  bool Contains(const Plugin* plugin) const;
  // Listed plugins that provide `tag`, kind tags included.
  int ProviderCount(const std::string& tag) const;
  // Listed preemptive plugins that provide `tag` (never counted for kind tags).
  int PreemptiveProviderCount(const std::string& tag) const;

  // Starts (or restarts) readiness tracking from the current state of the list.
  void TrackReadiness();
  // Ready plugins that need a worker, and ready plugins that are passed over
  // (disabled, or with no operations), in list order.
  const Ordered& ReadyToRun() const { return readyToRun_; }
  const Ordered& ReadyToPassOver() const { return readyToPassOver_; }
  // Active plugins in list order.
  const Ordered& Active() const { return active_; }
  // The worker layer accepted `plugin`: it leaves the ready sets, and joins the
  // active ones when it was handed to a worker.
  void Dispatched(Plugin* plugin);

  const_iterator begin() const { return plugins_.begin(); }
  const_iterator end() const { return plugins_.end(); }
  bool empty() const { return plugins_.empty(); }
  std::size_t size() const { return plugins_.size(); }

 private:
  struct Entry {
    std::list<Plugin*>::iterator position;
    std::uint64_t order;
    bool dispatched = false;  // accepted by the worker layer; never ready again
  };

  void Count(const Plugin* plugin, int delta);
  void Recheck(Plugin* plugin);

  std::list<Plugin*> plugins_;
  std::unordered_map<const Plugin*, Entry> entries_;
  std::uint64_t nextOrder_ = 0;
  std::unordered_map<std::string, int> providerCounts_;
  std::unordered_map<std::string, int> preemptiveProviderCounts_;

  bool tracking_ = false;
  // Every plugin ever appended that requires, or provides (kind tags left out), a tag.
  std::unordered_map<std::string, std::vector<Plugin*>> requirers_;
  std::unordered_map<std::string, std::vector<Plugin*>> tagProviders_;
  Ordered readyToRun_;
  Ordered readyToPassOver_;
  Ordered active_;
};

}  // namespace bootstrand
