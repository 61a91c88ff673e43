// The figures an operator asks for after a slow boot, worked out once from the boot
// record (or the timing log and the channel outcomes) and, when given, the plugin
// files, then printed as text or JSON. Plugins are referred to by their index in
// `timing.plugins`.
#pragma once

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "analyze/boot_input.h"
#include "analyze/clock_step.h"
#include "analyze/dependency_graph.h"
#include "analyze/plugin_outcomes.h"
#include "analyze/timing_log.h"

namespace bootstrand::analyze {

struct Analysis {
  TimingLog timing;
  std::vector<Outcome> outcomes;  // one per timed plugin
  Microseconds origin = 0;  // activation start: the summary's, else the first plugin's start
  Microseconds finish = 0;  // activation end: the summary's, else the last plugin's end
  std::vector<std::size_t> byStart;  // ordered by start time, then by line
  std::vector<std::size_t> blame;  // longest first, then by start
  std::optional<std::vector<std::size_t>> chain;  // absent without plugin files
  std::vector<std::string> chainNotes;  // why the chain is missing or may stop early
  std::vector<std::pair<std::string, Outcome>> untimed;  // outcomes of plugins without a timing line
  bool fromRecord = false;  // times on the monotonic clock, outcomes from the record
  std::optional<std::string> bootId;  // the record's
  std::optional<Microseconds> activation;  // the end of activation minus its start, when both are known
  std::string activationUnknown;  // why `activation` is not known
  bool completed = false;  // activation ran to its end: the log's summary, the record's "completed"
  std::optional<std::string> endedAs;  // the outcome of the record's end line
  std::vector<ClockStep> clockSteps;
};

// The outcomes are those of a record, or for a timing log `outcomes` (the channel
// sinks'). `graph` is null when no plugin files were given.
Analysis Analyze(BootInput input, const PluginOutcomes& outcomes, const DependencyGraph* graph);

// The text report; `top` limits the list of slowest plugins (0: all of them).
void PrintReport(std::ostream& output, const Analysis& analysis, std::size_t top);

// The same figures as one JSON object; times are microseconds.
nlohmann::json ReportJson(const Analysis& analysis, std::size_t top);

}  // namespace bootstrand::analyze
