// The ordered list of registered plugins that have not yet finished, in load order,
// and the one place that knows where each of them stands in a run. A listed plugin
// waits while it waits on some other listed plugin (WaitersOf says who waits on
// whom), is ready when it waits on none, and is then handed over, to run in a worker
// or to be passed over; it leaves the list when it has finished or was preempted.
// Each plugin keeps a count of its waits, so that removing a plugin readies exactly
// those whose last wait it was. Plugins are borrowed; the list never frees them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
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

  enum class State {
    Waiting,     // waits on another listed plugin
    Ready,       // waits on none: may be handed over
    Running,     // handed to a worker
    PassedOver,  // accepted by the worker layer without a worker; its result is queued
  };

  // Why `waiter` cannot start while `holder` is listed: it requires a tag that
  // holder provides, or holder is a preemptive provider of a tag it provides too.
  struct Wait {
    Plugin* waiter;
    const std::string& tag;
    bool heldBack;  // holder is a preemptive provider that holds the waiter back
  };

  // Calls visit(Wait) once for every wait on `holder` by a listed plugin: each
  // plugin that requires a tag holder provides (holder itself too, when it requires
  // a tag of its own, so that it never becomes ready), and, when holder is
  // preemptive, each other provider of one of its tags; kind tags never preempt. This
  // is the only definition of when a plugin may start.
  void WaitersOf(const Plugin& holder, const std::function<void(const Wait&)>& visit) const;

  // Appends a fully constructed plugin; its tags, preemptive mark and skip state must
  // not change while it is listed.
  void Append(Plugin* plugin);
  // Removes a listed plugin; does nothing for a plugin that is not listed.
  void Remove(Plugin* plugin);
  void Clear();

  bool Contains(const Plugin* plugin) const;
  // Listed plugins that provide `tag`, kind tags included.
  int ProviderCount(const std::string& tag) const;

  // Where a listed plugin stands; Waiting for one that is not listed.
  State StateOf(const Plugin* plugin);
  // The worker layer accepted a ready plugin: it runs in a worker, or was passed over.
  void HandedOver(Plugin* plugin, bool running);

  // Ready plugins that need a worker, and ready plugins that the worker layer passes
  // over (disabled, or with no operations), in list order.
  const Ordered& ReadyToRun();
  const Ordered& ReadyToPassOver();
  // Plugins running in a worker, in list order.
  const Ordered& Running() const { return running_; }

  const_iterator begin() const { return plugins_.begin(); }
  const_iterator end() const { return plugins_.end(); }
  bool empty() const { return plugins_.empty(); }
  std::size_t size() const { return plugins_.size(); }

 private:
  struct Entry {
    std::list<Plugin*>::iterator position;
    std::uint64_t order;
    int waits = 0;  // waits on listed plugins, as WaitersOf counts them
    State state = State::Waiting;
  };

  void SetState(Plugin* plugin, Entry& entry, State state);
  // Counts every wait afresh from WaitersOf; done once, when readiness is first
  // asked for after plugins were appended (in a boot: when activation starts).
  void CountWaits();

  std::list<Plugin*> plugins_;
  std::unordered_map<const Plugin*, Entry> entries_;
  std::uint64_t nextOrder_ = 0;
  // Per tag: every plugin ever appended that requires it or provides it (WaitersOf
  // keeps those still listed), and how many listed plugins provide it.
  struct TagUse {
    std::vector<Plugin*> requirers;
    std::vector<Plugin*> providers;
    int listedProviders = 0;
  };
  std::unordered_map<std::string, TagUse> tags_;

  // The wait counts and the ordered sets below follow the list once counted.
  bool counted_ = false;
  Ordered readyToRun_;
  Ordered readyToPassOver_;
  Ordered running_;
};

}  // namespace bootstrand
