#include "lint.h"

#include <algorithm>
#include <exception>
#include <map>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "plugin/plugin.h"
#include "plugin/scheduler.h"
#include "worker/worker.h"

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

// Returns the plugin files listed, whether they loaded or not.
std::vector<std::string> LoadFiles(const LintOptions& options, LintReport& report) {
  std::vector<std::string> files;
  std::vector<Plugin::PassedOverEntry> passedOver;
  try {
    files = Plugin::ListPluginFiles(options.paths, &passedOver);
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
  for (const Plugin::PassedOverEntry& entry : passedOver) {
    using Type = Plugin::PassedOverEntry::Type;
    std::string reason = entry.type == Type::SymbolicLink  ? "symbolic link, which bootstrand passes over"
                         : entry.type == Type::SpecialFile ? "not a regular file, which bootstrand passes over"
                                                           : "file type not reported, which bootstrand passes over";
    report.skippedFiles.push_back({entry.path, reason, Plugin::SkippingMessage(entry.path, std::runtime_error(reason))});
  }
  std::stable_sort(report.skippedFiles.begin(), report.skippedFiles.end(),
                   [](const SkippedFile& a, const SkippedFile& b) { return a.path < b.path; });
  return files;
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
    bool preempted = std::any_of(providers.begin(), providers.end(), [](const Plugin* each) { return each->preemptive; });
    if (providers.size() > 1 && !preempted) {
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

// Once recorded, a run-once key goes to --disable, which also turns off every plugin
// whose name or tag equals it: a key must name its own plugin and nothing else.
void FindRunOnceKeyCollisions(const std::vector<const Plugin*>& loaded, std::vector<Finding>& errors) {
  for (const Plugin* plugin : loaded) {
    if (!plugin->runOnce) continue;
    std::string key = plugin->name + plugin->pluginVersion;
    std::vector<std::string> others;
    for (const Plugin* other : loaded) {
      bool sameKey = other->runOnce && other->name + other->pluginVersion == key;
      if (other != plugin && !sameKey && (other->name == key || other->Provides(key))) others.push_back(other->name);
    }
    if (!others.empty()) {
      errors.push_back({.kind = FindingKind::RunOnceKeyCollision, .plugin = plugin->name, .tag = key, .plugins = others});
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

// The workers as the waves picture them: every plugin succeeds and runs as long as
// any other, and the scheduler's own work takes no time. So the plugins passed over
// come back at once and alone, and the running ones all together once none is
// queued, which closes a wave. The scheduler itself decides the rest.
class WavePool : public WorkerPool {
 public:
  WavePool(std::uint32_t workers, const Positions& positions, LintReport& report)
      : workers_(workers), positions_(positions), report_(report) {}

  bool HasRoom() const override { return workers_ == 0 || running_.size() < workers_; }

  HandOverResult HandOver(Plugin* plugin, ActivateFlags flags) override {
    if (Worker::PassesOver(*plugin, flags)) {
      queued_.push_back(plugin);
      passedOver_.push_back(plugin);
      return HandOverResult::PassedOver;
    }
    if (!HasRoom()) return HandOverResult::Refused;
    running_.push_back(plugin);
    run_.push_back(plugin);
    return HandOverResult::Running;
  }

  std::vector<PluginResult> Collect() override {
    NotePreempted();
    std::size_t wave = report_.waves.size() + 1;
    std::vector<Plugin*> finished;
    if (!queued_.empty()) {
      finished = std::exchange(queued_, {});
    } else {
      finished = std::exchange(running_, {});
      CloseWave();
    }
    // The scheduler finishes these next; the listed plugins they leave behind show
    // who was preempted, at the next collection or at the end.
    lastFinished_ = finished;
    lastWave_ = wave;
    listedBefore_.assign(Plugin::plugins.begin(), Plugin::plugins.end());
    std::vector<PluginResult> results;
    for (Plugin* plugin : finished) results.emplace_back(plugin, 0);
    return results;
  }

  // After the scheduler's run: the last wave and the last preemptions.
  void End() {
    NotePreempted();
    if (!run_.empty() || !passedOver_.empty()) CloseWave();
  }

 private:
  void CloseWave() {
    report_.waves.push_back({Names(run_, positions_), Names(passedOver_, positions_)});
    run_.clear();
    passedOver_.clear();
  }

  // Plugins that were listed at the last collection and are gone without having
  // finished were preempted by one of the plugins finished then: the first of them,
  // in the order they were finished, that holds the plugin back.
  void NotePreempted() {
    std::unordered_set<const Plugin*> finished(lastFinished_.begin(), lastFinished_.end());
    std::vector<std::pair<const Plugin*, const Plugin*>> preempted;
    for (const Plugin* plugin : listedBefore_) {
      if (finished.count(plugin) != 0 || Plugin::plugins.Contains(plugin)) continue;
      for (const Plugin* by : lastFinished_) {
        if (!by->skip && by->Preempts(*plugin)) {
          preempted.emplace_back(plugin, by);
          break;
        }
      }
    }
    std::sort(preempted.begin(), preempted.end(),
              [this](const auto& a, const auto& b) { return positions_.at(a.first) < positions_.at(b.first); });
    for (const auto& [plugin, by] : preempted) report_.preempted.push_back({plugin->name, by->name, lastWave_});
    listedBefore_.clear();
    lastFinished_.clear();
  }

  const std::uint32_t workers_;
  const Positions& positions_;
  LintReport& report_;
  std::vector<Plugin*> queued_;
  std::vector<Plugin*> running_;
  // The wave being built.
  std::vector<const Plugin*> run_;
  std::vector<const Plugin*> passedOver_;
  std::vector<const Plugin*> listedBefore_;
  std::vector<Plugin*> lastFinished_;
  std::size_t lastWave_ = 0;
};

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
        if (plugin->preemptive && !IsKindTag(tag)) preemptiveProviders_[tag].push_back(plugin);
      }
    }
    // The scheduler's own waits, turned round: who each stuck plugin waits on. A
    // plugin waiting on itself and preemptive providers holding each other back are
    // reported on their own; the other waits can form cycles through other plugins.
    waits_.resize(stuck_.size());
    for (std::size_t holder = 0; holder < stuck_.size(); ++holder) {
      Plugin::plugins.WaitersOf(*stuck_[holder], [&](const PluginList::Wait& wait) {
        if (wait.waiter == stuck_[holder] || (wait.heldBack && wait.waiter->preemptive)) return;
        waits_[index_.at(wait.waiter)].push_back({holder, wait.tag, wait.heldBack});
      });
    }
    // Sorted, so that of two equally short cycles the same one is reported.
    for (std::vector<Wait>& waits : waits_) {
      std::sort(waits.begin(), waits.end(), [](const Wait& a, const Wait& b) {
        return std::tie(a.heldBack, a.tag, a.target) < std::tie(b.heldBack, b.tag, b.target);
      });
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

  const std::vector<Wait>& WaitsOf(std::size_t from) const { return waits_[from]; }

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
  std::unordered_map<std::string, std::vector<const Plugin*>> preemptiveProviders_;
  std::vector<std::vector<Wait>> waits_;  // by waiting plugin
  std::vector<std::vector<std::size_t>> components_;
};

}  // namespace

LintReport Lint(const LintOptions& options) {
  LintReport report;
  report.workers = options.workers;
  Plugin::DisablePlugins(options.disable);
  std::vector<std::string> files = LoadFiles(options, report);

  std::vector<const Plugin*> loaded(Plugin::plugins.begin(), Plugin::plugins.end());
  if (!options.predict) report.trust = CheckTrust(options.paths, files, loaded);
  Positions positions;
  for (const Plugin* plugin : loaded) positions.emplace(plugin, positions.size());
  report.pluginCount = loaded.size();

  FindUnprovidedTags(loaded, positions, report.warnings);
  FindSharedTags(positions, report.warnings);
  FindRunOnceWithoutVersion(loaded, report.warnings);
  FindRunOnceKeyCollisions(loaded, report.errors);
  FindDisabled(loaded, options.disable, report.warnings);

  if (options.predict) {
    report.prediction = Predict(*options.predict, options.workers);
  } else {
    WavePool pool(options.workers, positions, report);
    ActivateFlags flags = 0;
    Scheduler(pool, flags).Run();
    pool.End();
  }
  if (!Plugin::plugins.empty()) Deadlock(positions).Report(report.stops);
  return report;
}

}  // namespace bootstrand::lint
