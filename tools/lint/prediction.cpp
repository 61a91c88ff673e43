#include "prediction.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

#include "analyze/boot_input.h"
#include "analyze/dependency_graph.h"
#include "lint.h"
#include "platform/file_text.h"
#include "plugin/plugin.h"
#include "plugin/scheduler.h"

namespace bootstrand::lint {

namespace {

using analyze::FormatDuration;

// How many skipped lines of the log are named before the rest are only counted.
constexpr std::size_t kProblemsShown = 20;
// The ends of a longer critical chain are named, the middle counted.
constexpr std::size_t kChainEnds = 10;

analyze::BootInput ReadBoot(const std::string& path, analyze::Problems& problems) {
  std::optional<std::string> text;
  errno = 0;
  try {
    text = ReadWholeFile(path);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("cannot read " + path + ": " + error.what());
  }
  if (!text) {
    // Only a folder leaves errno alone.
    throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno != 0 ? errno : EISDIR));
  }
  return analyze::ReadBootInput(*text, path, problems);
}

std::string Row(Microseconds start, Microseconds end) {
  char row[64];
  std::snprintf(row, sizeof row, "  %11s  %11s  ", FormatDuration(start).c_str(), FormatDuration(end).c_str());
  return row;
}

std::string Joined(const std::vector<std::string>& names, const std::string& separator) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : separator) + name;
  return text;
}

std::string ChainText(const std::vector<std::string>& chain) {
  if (chain.size() <= 2 * kChainEnds) return Joined(chain, " -> ");
  return Joined({chain.begin(), chain.begin() + kChainEnds}, " -> ") + " -> (" +
         std::to_string(chain.size() - 2 * kChainEnds) + " more) -> " +
         Joined({chain.end() - kChainEnds, chain.end()}, " -> ");
}

}  // namespace

Prediction Predict(const PredictOptions& options, std::uint32_t workers) {
  Prediction prediction;
  prediction.timingLog = options.timingLog;
  prediction.defaultTime = options.defaultTime;
  analyze::BootInput input = ReadBoot(options.timingLog, prediction.problems);
  const analyze::TimingLog& log = input.timing;
  prediction.fromRecord = input.record.has_value();
  prediction.lastActivation = analyze::ActivationTime(log);
  prediction.clockSteps = analyze::ClockStepsOf(input);
  // Plugins that share a name (one file name in both plugin directories) share its lines.
  std::unordered_map<std::string, Microseconds> logged;
  for (const analyze::TimedPlugin& line : log.plugins) logged[line.name] += line.end - line.start;
  std::unordered_set<std::string> unknown;
  for (const analyze::TimedPlugin& line : log.endsBeforeStart) {
    if (!logged.contains(line.name)) unknown.insert(line.name);
  }

  const std::vector<Plugin*> listed(Plugin::plugins.begin(), Plugin::plugins.end());
  std::unordered_set<std::string> names;
  for (const Plugin* plugin : listed) names.insert(plugin->name);
  for (const auto& [name, time] : options.setTimes) {
    if (names.count(name) == 0) throw UsageError("--set-time names no plugin: " + name);
    auto found = logged.find(name);
    prediction.setTimes.push_back({name, time, found == logged.end() ? std::nullopt : std::optional(found->second)});
  }

  // Taken before the run, which empties the list the waits are read from.
  analyze::DependencyGraph graph;
  graph.ReadWaits();
  std::unordered_set<std::string> defaulted, unknownRun;
  SimulatedPool pool(workers, [&](const Plugin& plugin) {
    if (auto set = options.setTimes.find(plugin.name); set != options.setTimes.end()) return set->second;
    if (auto found = logged.find(plugin.name); found != logged.end()) return found->second;
    (unknown.contains(plugin.name) ? unknownRun : defaulted).insert(plugin.name);
    return options.defaultTime;
  });
  ActivateFlags flags = 0;
  Scheduler(pool, flags).Run();

  // In the order of collection, as the activator writes its timing lines, so that the
  // chain is worked out as the analyzer works it out from a real boot's log.
  std::vector<analyze::TimedPlugin> timed;
  std::unordered_set<const Plugin*> ran;
  for (const SimulatedPool::Run& run : pool.Finished()) {
    timed.push_back({run.plugin->name, run.start, run.end, 0});
    ran.insert(run.plugin);
    prediction.activation = std::max(prediction.activation, run.end);
  }
  for (std::size_t index : analyze::CriticalChain(timed, graph)) {
    prediction.criticalChain.push_back(timed[index].name);
    prediction.chainRunning += timed[index].end - timed[index].start;
  }
  std::vector<SimulatedPool::Run> byStart = pool.Finished();
  std::sort(byStart.begin(), byStart.end(), [](const SimulatedPool::Run& a, const SimulatedPool::Run& b) {
    return std::tie(a.start, a.handOver) < std::tie(b.start, b.handOver);
  });
  for (const SimulatedPool::Run& run : byStart) {
    prediction.plugins.push_back({run.plugin->name, run.start, run.end, run.passedOver});
  }
  for (const Plugin* plugin : listed) {
    if (defaulted.erase(plugin->name) != 0) prediction.defaulted.push_back(plugin->name);
    if (unknownRun.erase(plugin->name) != 0) prediction.timeUnknown.push_back(plugin->name);
    if (ran.count(plugin) == 0 && !Plugin::plugins.Contains(plugin)) prediction.preempted.push_back(plugin->name);
  }
  return prediction;
}

void WritePredictionText(const Prediction& prediction, std::ostream& stream) {
  stream << "        start          end  plugin\n";
  for (const PredictedPlugin& plugin : prediction.plugins) {
    stream << Row(plugin.start, plugin.end) << plugin.name << (plugin.passedOver ? " (passed over)" : "") << '\n';
  }
  if (!prediction.criticalChain.empty()) {
    stream << "  critical chain: " << ChainText(prediction.criticalChain) << '\n';
    // In virtual time a plugin starts the moment the last plugin it waits on ends,
    // unless every worker is busy.
    if (prediction.chainRunning == prediction.activation) {
      stream << "    its plugins run back to back, for all of the " << FormatDuration(prediction.activation) << '\n';
    } else {
      stream << "    its plugins run for " << FormatDuration(prediction.chainRunning) << " of the "
             << FormatDuration(prediction.activation) << " to its end and wait for a free worker the rest\n";
    }
  }
  for (const SetTime& set : prediction.setTimes) {
    stream << "  --set-time: " << set.plugin << " runs " << FormatDuration(set.time) << " ("
           << (set.logged ? FormatDuration(*set.logged) + " in the timing log" : "not in the timing log") << ")\n";
  }
  if (!prediction.defaulted.empty()) {
    stream << "  not in the timing log, so taken to run " << FormatDuration(prediction.defaultTime)
           << " (--default-time): " << Joined(prediction.defaulted, ", ") << '\n';
  }
  if (!prediction.timeUnknown.empty()) {
    stream << "  their timing lines end before they start, so taken to run "
           << FormatDuration(prediction.defaultTime) << " (--default-time): " << Joined(prediction.timeUnknown, ", ")
           << '\n';
  }
  if (!prediction.preempted.empty()) {
    stream << "  preempted: " << Joined(prediction.preempted, ", ") << '\n';
  }
  for (const analyze::ClockStep& step : prediction.clockSteps) {
    stream << "  clock step at the boot the times come from: " << analyze::ClockStepText(step) << '\n';
  }
}

void WritePredictionProblems(const Prediction& prediction, std::ostream& stream) {
  const analyze::Problems& problems = prediction.problems;
  for (std::size_t i = 0; i < problems.size() && i < kProblemsShown; ++i) {
    stream << "bootstrand-lint: " << analyze::Describe(problems[i]) << '\n';
  }
  if (problems.size() > kProblemsShown) {
    stream << "bootstrand-lint: ... and " << problems.size() - kProblemsShown << " more problems\n";
  }
}

nlohmann::json PredictionJson(const Prediction& prediction) {
  nlohmann::json plugins = nlohmann::json::array();
  for (const PredictedPlugin& plugin : prediction.plugins) {
    plugins.push_back(
        {{"name", plugin.name}, {"start_us", plugin.start}, {"end_us", plugin.end}, {"passed_over", plugin.passedOver}});
  }
  nlohmann::json setTimes = nlohmann::json::array();
  for (const SetTime& set : prediction.setTimes) {
    setTimes.push_back({{"plugin", set.plugin},
                        {"time_us", set.time},
                        {"logged_us", set.logged ? nlohmann::json(*set.logged) : nlohmann::json(nullptr)}});
  }
  nlohmann::json problems = nlohmann::json::array();
  for (const analyze::Problem& problem : prediction.problems) problems.push_back(analyze::Describe(problem));
  return {
      {prediction.fromRecord ? "boot_record" : "timing_log", prediction.timingLog},
      {"last_boot_activation_us",
       prediction.lastActivation ? nlohmann::json(*prediction.lastActivation) : nlohmann::json(nullptr)},
      {"default_time_us", prediction.defaultTime},
      {"defaulted", prediction.defaulted},
      {"time_unknown", prediction.timeUnknown},
      {"clock_steps", analyze::ClockStepsJson(prediction.clockSteps)},
      {"set_time", setTimes},
      {"problems", problems},
      {"predicted",
       {{"activation_us", prediction.activation},
        {"critical_chain", prediction.criticalChain},
        {"critical_chain_running_us", prediction.chainRunning},
        {"plugins", plugins},
        {"preempted", prediction.preempted}}},
  };
}

}  // namespace bootstrand::lint
