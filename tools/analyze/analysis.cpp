#include "analyze/analysis.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <numeric>
#include <unordered_map>

namespace bootstrand::analyze {

namespace {

constexpr std::size_t kUntimedListed = 10;

Microseconds Duration(const TimedPlugin& plugin) { return plugin.end - plugin.start; }

std::string OutcomeCounts(const Analysis& analysis) {
  std::map<Outcome, std::size_t> counts;
  for (Outcome outcome : analysis.outcomes) ++counts[outcome];
  std::string text;
  for (const auto& [outcome, count] : counts) {
    text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + std::string(OutcomeName(outcome));
  }
  return text;
}

nlohmann::json PluginJson(const Analysis& analysis, std::size_t index) {
  const TimedPlugin& plugin = analysis.timing.plugins[index];
  return {{"name", plugin.name},
          {"start_us", plugin.start - analysis.origin},
          {"duration_us", Duration(plugin)},
          {"outcome", std::string(OutcomeName(analysis.outcomes[index]))}};
}

// The time the chain's plugins spent running, without the gaps between them.
Microseconds ChainBusy(const Analysis& analysis) {
  Microseconds busy = 0;
  for (std::size_t index : *analysis.chain) busy += Duration(analysis.timing.plugins[index]);
  return busy;
}

template <typename T>
nlohmann::json OrNull(const std::optional<T>& value) {
  return value ? nlohmann::json(*value) : nlohmann::json(nullptr);
}

Outcome OutcomeOf(const RecordedOutcome& recorded) {
  // Passed over without running (disabled, no operations, skipped at the prompt): it
  // was skipped, whatever the scheduler called it after.
  if (recorded.passedOver) return Outcome::Skipped;
  static const std::pair<const char*, Outcome> kWords[] = {
      {"activated", Outcome::Activated},
      {"activation failed", Outcome::Failed},
      {"skipped", Outcome::Skipped},
      {"opportunistic skipped", Outcome::OpportunisticSkipped},
      {"opportunistic activation failed", Outcome::OpportunisticFailed}};
  for (const auto& [words, outcome] : kWords) {
    if (recorded.outcome == words) return outcome;
  }
  return Outcome::Unknown;
}

// The record's own outcomes, in the order TimingOfRecord takes its plugins. The
// untimed are those preempted, then those that never got an outcome (the run stopped
// first).
void TakeRecordedOutcomes(const BootRecordContents& record, Analysis& analysis) {
  std::vector<bool> reported(record.plugins.size(), false);
  for (const RecordedOutcome& outcome : record.outcomes) {
    if (outcome.index < reported.size()) reported[outcome.index] = true;
    if (outcome.start && outcome.end) {
      analysis.outcomes.push_back(OutcomeOf(outcome));
    } else {
      analysis.untimed.emplace_back(outcome.name, OutcomeOf(outcome));
    }
  }
  for (const RecordedPlugin& plugin : record.plugins) {
    if (plugin.index < reported.size() && !reported[plugin.index]) {
      analysis.untimed.emplace_back(plugin.name, Outcome::Unknown);
    }
  }
}

void TakeSinkOutcomes(const PluginOutcomes& outcomes, Analysis& analysis) {
  const std::vector<TimedPlugin>& plugins = analysis.timing.plugins;
  std::unordered_map<std::string, std::size_t> count;
  for (const TimedPlugin& plugin : plugins) ++count[plugin.name];
  std::unordered_map<std::string, std::size_t> seen;
  for (const TimedPlugin& plugin : plugins) {
    analysis.outcomes.push_back(outcomes.Of(plugin.name, seen[plugin.name]++, count[plugin.name]));
  }
  for (const auto& [name, outcome] : outcomes.Latest()) {
    if (!count.contains(name)) analysis.untimed.emplace_back(name, outcome);
  }
}

}  // namespace

Analysis Analyze(BootInput input, const PluginOutcomes& outcomes, const DependencyGraph* graph) {
  Analysis analysis;
  analysis.clockSteps = ClockStepsOf(input);
  analysis.timing = std::move(input.timing);
  const std::vector<TimedPlugin>& plugins = analysis.timing.plugins;
  if (input.record) {
    const BootRecordContents& record = *input.record;
    analysis.fromRecord = true;
    if (record.start) analysis.bootId = record.start->bootId;
    if (record.end) analysis.endedAs = record.end->outcome;
    analysis.completed = record.end && record.end->outcome == "completed";
    analysis.activationUnknown = record.start ? "no end line in the boot record (the run did not end: a power cut "
                                                "or a kill)"
                                              : "no start line in the boot record";
    TakeRecordedOutcomes(record, analysis);
  } else {
    const TimingLog& timing = analysis.timing;
    analysis.completed = timing.activationStart && timing.activationEnd;
    analysis.activationUnknown =
        analysis.completed ? "the summary in the timing log ends before it starts (the wall clock was set back)"
                           : "no summary in the timing log (the run did not end normally)";
    TakeSinkOutcomes(outcomes, analysis);
  }
  analysis.activation = ActivationTime(analysis.timing);

  analysis.byStart.resize(plugins.size());
  std::iota(analysis.byStart.begin(), analysis.byStart.end(), 0);
  std::stable_sort(analysis.byStart.begin(), analysis.byStart.end(),
                   [&](std::size_t a, std::size_t b) { return plugins[a].start < plugins[b].start; });
  analysis.blame = analysis.byStart;
  std::stable_sort(analysis.blame.begin(), analysis.blame.end(),
                   [&](std::size_t a, std::size_t b) { return Duration(plugins[a]) > Duration(plugins[b]); });

  Microseconds firstStart = plugins.empty() ? 0 : plugins[analysis.byStart.front()].start;
  Microseconds lastEnd = firstStart;
  for (const TimedPlugin& plugin : plugins) lastEnd = std::max(lastEnd, plugin.end);
  analysis.origin = analysis.timing.activationStart.value_or(firstStart);
  analysis.finish = analysis.timing.activationEnd.value_or(lastEnd);
  // A summary that a step of the wall clock turned around frames nothing.
  if (analysis.finish < analysis.origin) {
    analysis.origin = firstStart;
    analysis.finish = lastEnd;
  }

  if (graph == nullptr) {
    analysis.chainNotes.push_back("not worked out: no plugin files given (--plugins)");
    return analysis;
  }
  analysis.chain = CriticalChain(plugins, *graph);
  if (!analysis.chain->empty() && !graph->Knows(plugins[analysis.chain->front()].name)) {
    analysis.chainNotes.push_back("stops at " + plugins[analysis.chain->front()].name +
                                  ": no plugin file declares its tags");
  }
  return analysis;
}

void PrintReport(std::ostream& output, const Analysis& analysis, std::size_t top) {
  const TimingLog& timing = analysis.timing;
  const std::vector<TimedPlugin>& plugins = timing.plugins;
  output << "Plugins timed: " << plugins.size();
  if (!plugins.empty()) output << " (" << OutcomeCounts(analysis) << ")";
  output << '\n';

  // The timing log has the kernel's uptime in whole seconds, the record exactly.
  std::string kernelTime = "unknown (no start line)";
  if (timing.kernelTime) {
    kernelTime = analysis.fromRecord ? FormatDuration(*timing.kernelTime)
                                     : std::to_string(*timing.kernelTime / 1000000) + " s";
  }
  output << "Kernel start to activation start: " << kernelTime << '\n';
  if (analysis.activation) {
    output << "Activation: " << FormatDuration(*analysis.activation) << " (" << FormatTimestamp(*timing.activationStart)
           << " to " << FormatTimestamp(*timing.activationEnd) << " UTC)";
    if (analysis.endedAs && *analysis.endedAs != "completed") {
      output << "; the run did not complete: " << *analysis.endedAs;
    }
    output << '\n';
    if (timing.kernelTime) {
      output << "Kernel start to end of activation: " << FormatDuration(*timing.kernelTime + *analysis.activation)
             << '\n';
    }
  } else {
    output << "Activation: " << analysis.activationUnknown;
    // Across a step that only a timing log shows, their span means nothing.
    if (!plugins.empty() && (analysis.fromRecord || analysis.clockSteps.empty())) {
      output << "; the timed plugins span " << FormatDuration(analysis.finish - analysis.origin);
    }
    output << '\n';
  }

  if (!plugins.empty()) {
    std::size_t shown = top == 0 ? plugins.size() : std::min(top, plugins.size());
    output << "\nSlowest plugins:\n";
    char row[64];
    for (std::size_t i = 0; i < shown; ++i) {
      std::size_t index = analysis.blame[i];
      std::snprintf(row, sizeof row, "  %11s  ", FormatDuration(Duration(plugins[index])).c_str());
      output << row << plugins[index].name << " (" << OutcomeName(analysis.outcomes[index]) << ")\n";
    }
  }

  output << "\nCritical chain";
  if (analysis.chain && !analysis.chain->empty()) {
    output << " (each plugin waited for the one above it; times from activation start):\n";
    output << "        start         took  plugin\n";
    char row[64];
    for (std::size_t index : *analysis.chain) {
      const TimedPlugin& plugin = plugins[index];
      std::snprintf(row, sizeof row, "  %11s  %11s  ", FormatDuration(plugin.start - analysis.origin).c_str(),
                    FormatDuration(Duration(plugin)).c_str());
      output << row << plugin.name << " (" << OutcomeName(analysis.outcomes[index]) << ")\n";
    }
    output << "  The chain ran for " << FormatDuration(ChainBusy(analysis)) << " of the "
           << FormatDuration(plugins[analysis.chain->back()].end - analysis.origin)
           << " to its end;\n  the rest went to waiting for a free worker or for the scheduler's next pass.\n";
  } else {
    output << (analysis.chain ? ": no plugin was timed\n" : ":\n");
  }
  for (const std::string& note : analysis.chainNotes) output << "  " << note << '\n';

  if (!analysis.untimed.empty()) {
    output << (analysis.fromRecord ? "\nRecorded but not timed:" : "\nReported on the channels but not timed:");
    for (std::size_t i = 0; i < analysis.untimed.size() && i < kUntimedListed; ++i) {
      output << (i == 0 ? " " : ", ") << analysis.untimed[i].first << " (" << OutcomeName(analysis.untimed[i].second)
             << ")";
    }
    if (analysis.untimed.size() > kUntimedListed) {
      output << " and " << analysis.untimed.size() - kUntimedListed << " more";
    }
    output << '\n';
  }
  if (!analysis.clockSteps.empty()) output << '\n';
  for (const ClockStep& step : analysis.clockSteps) output << "Clock step: " << ClockStepText(step) << '\n';
}

nlohmann::json ReportJson(const Analysis& analysis, std::size_t top) {
  const TimingLog& timing = analysis.timing;
  nlohmann::json report;
  report["kernel_to_activation_us"] = OrNull(timing.kernelTime);
  report["activation_us"] = OrNull(analysis.activation);
  report["activation_start"] =
      timing.activationStart ? nlohmann::json(FormatTimestamp(*timing.activationStart)) : nlohmann::json(nullptr);
  report["activation_end"] =
      timing.activationEnd ? nlohmann::json(FormatTimestamp(*timing.activationEnd)) : nlohmann::json(nullptr);

  nlohmann::json& plugins = report["plugins"] = nlohmann::json::array();
  for (std::size_t index : analysis.byStart) plugins.push_back(PluginJson(analysis, index));
  nlohmann::json& blame = report["blame"] = nlohmann::json::array();
  std::size_t shown = top == 0 ? analysis.blame.size() : std::min(top, analysis.blame.size());
  for (std::size_t i = 0; i < shown; ++i) blame.push_back(PluginJson(analysis, analysis.blame[i]));
  report["critical_chain"] = nullptr;
  if (analysis.chain) {
    report["critical_chain"] = nlohmann::json::array();
    for (std::size_t index : *analysis.chain) report["critical_chain"].push_back(PluginJson(analysis, index));
    report["critical_chain_running_us"] = ChainBusy(analysis);
  }
  report["notes"] = analysis.chainNotes;
  report["boot_id"] = OrNull(analysis.bootId);
  report["clock_steps"] = ClockStepsJson(analysis.clockSteps);
  nlohmann::json& untimed = report["untimed"] = nlohmann::json::array();
  for (const auto& [name, outcome] : analysis.untimed) {
    untimed.push_back({{"name", name}, {"outcome", std::string(OutcomeName(outcome))}});
  }
  return report;
}

}  // namespace bootstrand::analyze
