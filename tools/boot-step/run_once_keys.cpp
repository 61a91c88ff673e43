#include "boot-step/run_once_keys.h"

#include <algorithm>
#include <unordered_set>

namespace bootstrand::boot_step {

namespace {

// The first plugin of `last` that `key` would turn off besides the plugins whose
// run-once key it is; null when there is none.
const RecordedPlugin* OtherPluginDisabledBy(const std::string& key, const BootRecordContents& last) {
  for (const RecordedPlugin& plugin : last.plugins) {
    if (plugin.runOnceKey == key) continue;
    bool hit = plugin.name == key || std::find(plugin.provides.begin(), plugin.provides.end(), key) != plugin.provides.end();
    if (hit) return &plugin;
  }
  return nullptr;
}

bool IsRunOnceKeyOf(const std::string& key, const BootRecordContents& last) {
  return std::any_of(last.plugins.begin(), last.plugins.end(),
                     [&](const RecordedPlugin& plugin) { return plugin.runOnceKey == key; });
}

}  // namespace

std::vector<std::string> ActivatedRunOnceKeys(const BootRecordContents& record) {
  std::vector<std::string> keys;
  if (!record.start || record.start->settings.dryRun) return keys;
  for (const RecordedOutcome& outcome : record.outcomes) {
    if (outcome.outcome != "activated" || outcome.passedOver || outcome.index >= record.plugins.size()) continue;
    const RecordedPlugin& plugin = record.plugins[outcome.index];
    if (!plugin.runOnceKey || plugin.name != outcome.name) continue;
    if (std::find(keys.begin(), keys.end(), *plugin.runOnceKey) == keys.end()) keys.push_back(*plugin.runOnceKey);
  }
  return keys;
}

std::vector<std::string> Merged(const std::vector<std::string>& known, const std::vector<std::string>& more,
                                bool& changed) {
  std::vector<std::string> merged = known;
  std::unordered_set<std::string> seen(known.begin(), known.end());
  for (const std::string& key : more) {
    if (seen.insert(key).second) {
      merged.push_back(key);
      changed = true;
    }
  }
  return merged;
}

DisableArguments DisableArgumentsFor(const std::vector<std::string>& keys, const BootRecordContents* last,
                                     std::size_t maxValue, std::size_t maxTotal) {
  DisableArguments arguments;
  std::vector<std::string> passed;
  std::size_t total = 0;
  for (const std::string& key : keys) {
    if (key.empty()) continue;
    if (key.find(',') != std::string::npos) {
      arguments.reports.push_back("run-once key '" + key + "' holds a comma and cannot be passed on; that plugin runs again");
      continue;
    }
    if (last != nullptr) {
      if (const RecordedPlugin* other = OtherPluginDisabledBy(key, *last)) {
        arguments.reports.push_back("run-once key '" + key + "' is also the name or a tag of plugin " + other->name +
                                    " and would disable it too; not passed on, so its own plugin runs again");
        continue;
      }
    }
    passed.push_back(key);
    total += key.size() + 1;
  }
  if (total > maxTotal && last != nullptr) {
    std::size_t before = passed.size();
    std::erase_if(passed, [&](const std::string& key) { return !IsRunOnceKeyOf(key, *last); });
    arguments.reports.push_back(std::to_string(keys.size()) + " run-once keys are too many for one command line: " +
                                std::to_string(before - passed.size()) +
                                " that no plugin of the last boot has are not passed on");
  }
  for (const std::string& key : passed) {
    if (arguments.values.empty() || arguments.values.back().size() + 1 + key.size() > maxValue) {
      arguments.values.push_back(key);
    } else {
      arguments.values.back() += "," + key;
    }
  }
  return arguments;
}

}  // namespace bootstrand::boot_step
