#include "plugin/recorded_run.h"

#include <algorithm>
#include <cstddef>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/activation_stamps.h"
#include "platform/boot_record.h"
#include "platform/stop_signals.h"
#include "plugin/plugin.h"
#include "worker/worker.h"

namespace bootstrand {

namespace {

// Filled before the workers are forked, so every worker holds the same numbering.
struct Numbering {
  std::unordered_map<const Plugin*, std::size_t> index;
  std::unordered_set<const Plugin*> passedOver;
};

Numbering& TheNumbering() {
  static Numbering numbering;
  return numbering;
}

std::optional<std::size_t> IndexOf(const Plugin& plugin) {
  const Numbering& numbering = TheNumbering();
  auto found = numbering.index.find(&plugin);
  if (found == numbering.index.end()) return std::nullopt;
  return found->second;
}

std::vector<std::string> Sorted(const TagSet& tags) {
  std::vector<std::string> list(tags.begin(), tags.end());
  std::sort(list.begin(), list.end());
  return list;
}

std::string KindOf(const Plugin& plugin) {
  if (plugin.Provides("json plugins")) return "json";
  if (plugin.Provides("native plugins")) return "native";
  if (plugin.Provides("builtin plugins")) return "builtin";
  return "unknown";
}

}  // namespace

void RecordedRun::Begin(ActivateFlags flags) {
  Numbering& numbering = TheNumbering();
  numbering = {};
  std::vector<RecordedPlugin> plugins;
  for (Plugin* plugin : Plugin::plugins) {
    RecordedPlugin entry;
    entry.index = plugins.size();
    entry.name = plugin->name;
    entry.kind = KindOf(*plugin);
    entry.provides = Sorted(plugin->provides);
    entry.requires_ = Sorted(plugin->requires_);
    if (plugin->runOnce) entry.runOnceKey = plugin->name + plugin->pluginVersion;
    entry.preemptive = plugin->preemptive;
    entry.disabled = plugin->skip;
    numbering.index.emplace(plugin, entry.index);
    plugins.push_back(std::move(entry));
  }
  RecordedRunSettings settings;
  settings.dryRun = (flags & ActivateFlag::DryRun) != 0;
  settings.disabled = Sorted(Plugin::disabled);
  if (Worker::WorkerLimit() != 0xFFFFFFFF) settings.workerLimit = Worker::WorkerLimit();
  settings.preemptivePluginsDisabled = (flags & ActivateFlag::PreemptivePluginsDisabled) != 0;
  settings.interactive = (flags & ActivateFlag::Interactive) != 0;
  ActivationStamps::Make(plugins.size());
  BootRecord::Open(settings, plugins, ReadClocks());
}

ClockReading RecordedRun::Started(const Plugin& plugin) {
  ClockReading now = ReadClocks();
  if (std::optional<std::size_t> index = IndexOf(plugin)) ActivationStamps::Started(*index, now);
  return now;
}

ClockReading RecordedRun::Ended(const Plugin& plugin) {
  ClockReading now = ReadClocks();
  if (std::optional<std::size_t> index = IndexOf(plugin)) ActivationStamps::Ended(*index, now);
  return now;
}

void RecordedRun::PassedOver(const Plugin& plugin) {
  if (!IndexOf(plugin)) return;
  TheNumbering().passedOver.insert(&plugin);
  Started(plugin);
  Ended(plugin);
}

void RecordedRun::Finished(const Plugin& plugin, const std::string& outcome, int status) {
  std::optional<std::size_t> index = IndexOf(plugin);
  if (!index || !BootRecord::IsOpen()) return;
  RecordedOutcome line;
  line.index = *index;
  line.name = plugin.name;
  line.outcome = outcome;
  line.status = status;
  line.passedOver = TheNumbering().passedOver.count(&plugin) != 0;
  line.start = ActivationStamps::StartOf(*index);
  // A worker that died never stamped the end: the scheduler's reading stands in.
  line.end = ActivationStamps::EndOf(*index);
  if (line.start && !line.end) line.end = ReadClocks();
  BootRecord::Outcome(line, plugin.runOnce && outcome == "activated" && !line.passedOver);
}

void RecordedRun::Preempted(const Plugin& plugin, const Plugin& by) {
  std::optional<std::size_t> index = IndexOf(plugin);
  if (!index) return;
  RecordedOutcome line;
  line.index = *index;
  line.name = plugin.name;
  line.outcome = "skipped";
  line.preemptedBy = by.name;
  BootRecord::Outcome(line, false);
}

void RecordedRun::Completed() { BootRecord::End("completed", 0, nullptr, ReadClocks()); }

void RecordedRun::Interrupted(int signal, int status) {
  BootRecord::End("interrupted", status, StopSignalName(signal), ReadClocks());
}

void RecordedRun::UnmetDependencies(int status) { BootRecord::End("unmet dependencies", status, nullptr, ReadClocks()); }

}  // namespace bootstrand
