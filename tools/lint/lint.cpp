#include "lint.h"

#include <algorithm>
#include <exception>
#include <map>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "plugin/plugin.h"

namespace bootstrand::lint {

namespace {

// Load order of every registered plugin, for listing findings the way the
// activator walks its list.
using Positions = std::unordered_map<const Plugin*, std::size_t>;

bool IsKindTag(const std::string& tag) { return Plugin::kindTags.count(tag) != 0; }

std::vector<std::string> Sorted(const TagSet& tags) {
  std::vector<std::string> sorted(tags.begin(), tags.end());
  std::sort(sorted.begin(), sorted.end());
  return sorted;
}

std::vector<std::string> Names(std::vector<const Plugin*> plugins, const Positions& positions) {
  std::sort(plugins.begin(), plugins.end(),
            [&](const Plugin* a, const Plugin* b) { return positions.at(a) < positions.at(b); });
  std::vector<std::string> names;
  for (const Plugin* plugin : plugins) names.push_back(plugin->name);
  return names;
}

void LoadFiles(const LintOptions& options, LintReport& report) {
  std::vector<std::string> files;
  try {
    files = Plugin::ListPluginFiles(options.paths);
  } catch (const std::runtime_error& error) {
    throw UsageError(error.what());
  }
  if (options.paths.empty()) Plugin::LoadBuiltins();
  for (const std::string& path : files) {
    try {
      Plugin::LoadPlugin(path);
    } catch (const std::exception& error) {
      report.skippedFiles.push_back({path, error.what(), Plugin::SkippingMessage(path, error)});
    }
  }
}

void FindUnprovidedTags(const std::vector<const Plugin*>& loaded, const Positions& positions,
                        std::vector<Finding>& warnings) {
  std::map<std::string, std::vector<const Plugin*>> requirers;
  for (const Plugin* plugin : loaded) {
    for (const std::string& tag : plugin->requires_) {
      // Requiring a kind tag means "after every plugin of that kind", none included.
      if (!IsKindTag(tag) && Plugin::plugins.ProviderCount(tag) == 0) requirers[tag].push_back(plugin);
    }
  }
  for (const auto& [tag, plugins] : requirers) {
    warnings.push_back({.kind = FindingKind::UnprovidedTag, .tag = tag, .plugins = Names(plugins, positions)});
  }
}

void FindSharedTags(const Positions& positions, std::vector<Finding>& warnings) {
  std::map<std::string, std::vector<const Plugin*>> shared;
  for (const auto& [tag, providers] : Plugin::providers) {
    if (providers.size() > 1 && Plugin::plugins.PreemptiveProviderCount(tag) == 0) {
      shared[tag].assign(providers.begin(), providers.end());
    }
  }
  for (const auto& [tag, plugins] : shared) {
    warnings.push_back({.kind = FindingKind::SharedTag, .tag = tag, .plugins = Names(plugins, positions)});
  }
}

// The run-once key is the name followed by the version: without a version, every
// release of the plugin records and is disabled under the same key.
void FindRunOnceWithoutVersion(const std::vector<const Plugin*>& loaded, std::vector<Finding>& warnings) {
  for (const Plugin* plugin : loaded) {
    if (plugin->runOnce && plugin->pluginVersion.empty()) {
      warnings.push_back({.kind = FindingKind::RunOnceWithoutVersion, .plugin = plugin->name});
    }
  }
}

// The loaders already applied the list (Plugin::skip); this says which entries did it.
void FindDisabled(const std::vector<const Plugin*>& loaded, const std::vector<std::string>& entries,
                  std::vector<Finding>& warnings) {
  std::unordered_set<std::string> matched;
  for (const Plugin* plugin : loaded) {
    std::vector<DisableMatch> by;
    if (Plugin::disabled.count(plugin->name) != 0) by.push_back({plugin->name, "name"});
    for (const std::string& tag : Sorted(plugin->provides)) {
      if (Plugin::disabled.count(tag) != 0) by.push_back({tag, "tag"});
    }
    std::string key = plugin->name + plugin->pluginVersion;
    if (plugin->runOnce && key != plugin->name && Plugin::disabled.count(key) != 0) by.push_back({key, "run-once key"});
    for (const DisableMatch& match : by) matched.insert(match.entry);
    if (!by.empty()) {
      warnings.push_back({.kind = FindingKind::Disabled, .plugin = plugin->name, .disabledBy = by});
    }
  }
  std::unordered_set<std::string> reported;
  for (const std::string& entry : entries) {
    if (matched.count(entry) == 0 && reported.insert(entry).second) {
      warnings.push_back({.kind = FindingKind::UnmatchedDisable, .tag = entry});
    }
  }
}

// What Finish does for a preemptive plugin that succeeded: the other providers of its
// tags leave the list unrun. A disabled one preempts nobody.
void Preempt(const Plugin& plugin, std::size_t wave, const Positions& positions, LintReport& report) {
  if (!plugin.preemptive || plugin.skip) return;
  std::vector<const Plugin*> rivals;
  for (const std::string& tag : plugin.provides) {
    auto entries = Plugin::providers.find(tag);
    if (entries == Plugin::providers.end()) continue;
    for (Plugin* rival : entries->second) {
      if (rival == &plugin || !Plugin::plugins.Contains(rival)) continue;
      rivals.push_back(rival);
      Plugin::plugins.Remove(rival);
    }
  }
  for (const std::string& name : Names(rivals, positions)) report.preempted.push_back({name, plugin.name, wave});
}

// Runs the scheduler's passes on the plugin list, with its own readiness tracking,
// taking every plugin to succeed and to run as long as any other, and the passes and
// the plugins passed over to take no time. So the worker layer's results come back
// all at once, and only after every plugin passed over has been settled: until then
// the queued results come first and a pass follows at once, in which plugins passed
// over and ready plugins for free workers are dispatched alongside those running.
// Leaves the plugins that could never be dispatched in the list.
void SimulateActivation(std::uint32_t workers, const Positions& positions, LintReport& report) {
  PluginList& list = Plugin::plugins;
  list.TrackReadiness();
  std::vector<Plugin*> running;
  std::vector<const Plugin*> run;
  std::vector<const Plugin*> passedOver;
  auto closeWave = [&] {
    report.waves.push_back({Names(run, positions), Names(passedOver, positions)});
    run.clear();
    passedOver.clear();
  };
  while (!list.empty()) {
    std::vector<Plugin*> settled;
    for (const auto& [position, plugin] : list.ReadyToPassOver()) settled.push_back(plugin);
    std::vector<Plugin*> started;
    for (const auto& [position, plugin] : list.ReadyToRun()) {
      if (workers != 0 && running.size() + started.size() >= workers) break;
      started.push_back(plugin);
    }
    if (settled.empty() && started.empty() && running.empty()) break;
    for (Plugin* plugin : settled) list.Dispatched(plugin);
    for (Plugin* plugin : started) list.Dispatched(plugin);
    passedOver.insert(passedOver.end(), settled.begin(), settled.end());
    run.insert(run.end(), started.begin(), started.end());
    running.insert(running.end(), started.begin(), started.end());

    std::vector<Plugin*> finished = settled.empty() ? std::exchange(running, {}) : settled;
    for (Plugin* plugin : finished) {
      Preempt(*plugin, report.waves.size() + 1, positions, report);
      list.Remove(plugin);
    }
    if (settled.empty()) closeWave();
  }
  if (!run.empty() || !passedOver.empty()) closeWave();
}

// Why the plugins left in the list can never start. Each waits for a listed plugin:
// a provider of a tag it requires, or a preemptive provider that holds it back. The
// waits form cycles, a plugin waiting for itself, or two preemptive providers holding
// each other back; every other plugin left waits, directly or not, for one of those.
class Deadlock {
 public:
  explicit Deadlock(const Positions& positions) : positions_(positions) {
    for (Plugin* plugin : Plugin::plugins) {
      index_[plugin] = stuck_.size();
      stuck_.push_back(plugin);
    }
    for (const Plugin* plugin : stuck_) {
      for (const std::string& tag : plugin->provides) {
        listedProviders_[tag].push_back(plugin);
        if (plugin->preemptive && !IsKindTag(tag)) preemptiveProviders_[tag].push_back(plugin);
      }
    }
  }

  void Report(std::vector<Finding>& stops) {
    std::vector<bool> explained(stuck_.size(), false);
    FindCycles(stops, explained);
    for (const Plugin* plugin : stuck_) {
      std::vector<std::string> own;
      for (const std::string& tag : Sorted(plugin->requires_)) {
        if (plugin->Provides(tag)) own.push_back(tag);
      }
      if (own.empty()) continue;
      stops.push_back({.kind = FindingKind::SelfRequirement, .plugin = plugin->name, .tags = own});
      explained[index_.at(plugin)] = true;
    }
    for (const auto& [tag, holders] : std::map(preemptiveProviders_.begin(), preemptiveProviders_.end())) {
      if (holders.size() < 2) continue;
      stops.push_back({.kind = FindingKind::PreemptiveConflict, .tag = tag, .plugins = Names(holders, positions_)});
      for (const Plugin* holder : holders) explained[index_.at(holder)] = true;
    }
    std::vector<const Plugin*> blocked;
    for (std::size_t each = 0; each < stuck_.size(); ++each) {
      if (!explained[each]) blocked.push_back(stuck_[each]);
    }
    if (!blocked.empty()) stops.push_back({.kind = FindingKind::Blocked, .plugins = Names(blocked, positions_)});
  }

 private:
  struct Wait {
    std::size_t target;
    std::string tag;
    bool heldBack;
  };

  // Waits that can form a cycle through other plugins: a plugin waiting for itself
  // and preemptive providers holding each other back are reported on their own.
  const std::vector<Wait>& WaitsOf(std::size_t from) {
    auto cached = waits_.find(from);
    if (cached != waits_.end()) return cached->second;
    std::vector<Wait>& waits = waits_[from];
    const Plugin* plugin = stuck_[from];
    // Sorted tags, so that of two equally short cycles the same one is reported.
    for (const std::string& tag : Sorted(plugin->requires_)) {
      auto providers = listedProviders_.find(tag);
      if (providers == listedProviders_.end()) continue;
      for (const Plugin* provider : providers->second) {
        if (provider != plugin) waits.push_back({index_.at(provider), tag, false});
      }
    }
    if (!plugin->preemptive) {
      for (const std::string& tag : Sorted(plugin->provides)) {
        auto holders = preemptiveProviders_.find(tag);
        if (holders == preemptiveProviders_.end()) continue;
        for (const Plugin* holder : holders->second) waits.push_back({index_.at(holder), tag, true});
      }
    }
    return waits;
  }

  // Strongly connected components of the waits (Tarjan's algorithm, iterative so
  // that a long chain cannot exhaust the stack); each with two or more plugins holds
  // a cycle.
  void FindCycles(std::vector<Finding>& stops, std::vector<bool>& explained) {
    const std::size_t unvisited = stuck_.size();
    std::vector<std::size_t> number(stuck_.size(), unvisited);
    std::vector<std::size_t> lowest(stuck_.size(), 0);
    std::vector<bool> onStack(stuck_.size(), false);
    std::vector<std::size_t> stack;
    std::size_t counter = 0;
    std::vector<std::pair<std::size_t, std::size_t>> walk;  // plugin, next wait to follow
    for (std::size_t root = 0; root < stuck_.size(); ++root) {
      if (number[root] != unvisited) continue;
      walk.push_back({root, 0});
      number[root] = lowest[root] = counter++;
      stack.push_back(root);
      onStack[root] = true;
      while (!walk.empty()) {
        auto& [node, next] = walk.back();
        const std::vector<Wait>& waits = WaitsOf(node);
        if (next < waits.size()) {
          std::size_t target = waits[next++].target;
          if (number[target] == unvisited) {
            number[target] = lowest[target] = counter++;
            stack.push_back(target);
            onStack[target] = true;
            walk.push_back({target, 0});
          } else if (onStack[target]) {
            lowest[node] = std::min(lowest[node], number[target]);
          }
          continue;
        }
        std::size_t finished = node;
        walk.pop_back();
        if (!walk.empty()) lowest[walk.back().first] = std::min(lowest[walk.back().first], lowest[finished]);
        if (lowest[finished] != number[finished]) continue;
        std::vector<std::size_t> component;
        std::size_t member;
        do {
          member = stack.back();
          stack.pop_back();
          onStack[member] = false;
          component.push_back(member);
        } while (member != finished);
        if (component.size() > 1) components_.push_back(std::move(component));
      }
    }
    // Load order of each component's first plugin, so the report is stable.
    for (std::vector<std::size_t>& component : components_) std::sort(component.begin(), component.end());
    std::sort(components_.begin(), components_.end());
    for (const std::vector<std::size_t>& component : components_) {
      std::vector<const Plugin*> members;
      for (std::size_t each : component) {
        members.push_back(stuck_[each]);
        explained[each] = true;
      }
      stops.push_back(
          {.kind = FindingKind::Cycle, .plugins = Names(members, positions_), .cycle = ShortestCycle(component)});
    }
  }

  // The shortest closed walk from the component's first plugin back to it (breadth
  // first, inside the component).
  std::vector<CycleStep> ShortestCycle(const std::vector<std::size_t>& component) {
    std::unordered_set<std::size_t> members(component.begin(), component.end());
    const std::size_t start = component.front();
    // Each plugin reached: the plugin it was reached from and the wait followed. The
    // waits stay where they are once computed.
    std::unordered_map<std::size_t, std::pair<std::size_t, const Wait*>> reachedBy;
    std::vector<std::size_t> frontier = {start};
    std::size_t last = start;
    const Wait* closing = nullptr;
    for (std::size_t at = 0; at < frontier.size() && closing == nullptr; ++at) {
      for (const Wait& wait : WaitsOf(frontier[at])) {
        if (members.count(wait.target) == 0) continue;
        if (wait.target == start) {
          last = frontier[at];
          closing = &wait;
          break;
        }
        if (reachedBy.emplace(wait.target, std::make_pair(frontier[at], &wait)).second) frontier.push_back(wait.target);
      }
    }
    std::vector<CycleStep> steps;
    for (const Wait* wait = closing; wait != nullptr;) {
      steps.push_back({stuck_[last]->name, stuck_[wait->target]->name, wait->tag, wait->heldBack});
      auto previous = reachedBy.find(last);
      if (previous == reachedBy.end()) break;
      std::tie(last, wait) = previous->second;
    }
    std::reverse(steps.begin(), steps.end());
    return steps;
  }

  const Positions& positions_;
  std::vector<const Plugin*> stuck_;  // in load order
  std::unordered_map<const Plugin*, std::size_t> index_;
  std::unordered_map<std::string, std::vector<const Plugin*>> listedProviders_;  // kind tags included
  std::unordered_map<std::string, std::vector<const Plugin*>> preemptiveProviders_;
  std::unordered_map<std::size_t, std::vector<Wait>> waits_;
  std::vector<std::vector<std::size_t>> components_;
};

}  // namespace

LintReport Lint(const LintOptions& options) {
  LintReport report;
  report.workers = options.workers;
  Plugin::DisablePlugins(options.disable);
  LoadFiles(options, report);

  std::vector<const Plugin*> loaded(Plugin::plugins.begin(), Plugin::plugins.end());
  Positions positions;
  for (const Plugin* plugin : loaded) positions.emplace(plugin, positions.size());
  report.pluginCount = loaded.size();

  FindUnprovidedTags(loaded, positions, report.warnings);
  FindSharedTags(positions, report.warnings);
  FindRunOnceWithoutVersion(loaded, report.warnings);
  FindDisabled(loaded, options.disable, report.warnings);

  SimulateActivation(options.workers, positions, report);
  if (!Plugin::plugins.empty()) Deadlock(positions).Report(report.stops);
  return report;
}

}  // namespace bootstrand::lint
