// How long a boot with other settings would take, worked out from the boot record or
// the timing log of the last one: the real scheduler runs the loaded plugins against a
// SimulatedPool in which each plugin takes as long as it took then, or as long as the
// operator says. Lint() drives it for --predict; the report writers print it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "analyze/clock_step.h"
#include "analyze/problem.h"
#include "simulated_pool.h"

namespace bootstrand::lint {

struct PredictOptions {
  std::string timingLog;  // a timing log or a boot record, read as given (not under BOOTSTRAND_ROOT)
  std::map<std::string, Microseconds> setTimes;  // by plugin name
  Microseconds defaultTime = 0;  // for a plugin without a line in the timing log
};

// Times from the first hand-over, where the activation starts.
struct PredictedPlugin {
  std::string name;
  Microseconds start = 0;
  Microseconds end = 0;
  bool passedOver = false;
};

// A --set-time, and the plugin's time in the timing log when it has one.
struct SetTime {
  std::string plugin;
  Microseconds time = 0;
  std::optional<Microseconds> logged;
};

struct Prediction {
  std::string timingLog;
  bool fromRecord = false;  // the file is a boot record: times on the monotonic clock
  std::optional<Microseconds> lastActivation;  // from the start to the end of activation, when both are known
  analyze::Problems problems;  // lines of the log that were skipped
  Microseconds defaultTime = 0;
  std::vector<SetTime> setTimes;  // by name
  Microseconds activation = 0;  // the end of the plugin that ends last
  std::vector<PredictedPlugin> plugins;  // by start, then in hand-over order
  std::vector<std::string> criticalChain;  // first to last
  Microseconds chainRunning = 0;  // the chain's plugins' own time, without the waits between them
  std::vector<std::string> defaulted;  // run without a line in the log, so for defaultTime
  // Run with only a line that ends before it starts (the wall clock was set back), so
  // for defaultTime too.
  std::vector<std::string> timeUnknown;
  std::vector<analyze::ClockStep> clockSteps;  // at the boot the times come from
  std::vector<std::string> preempted;  // dropped unrun when a preemptive provider succeeded
};

// Reads the timing log or boot record and runs the scheduler over the listed plugins,
// emptying the list as a boot does; what is left can never start. Throws UsageError
// for a --set-time that names no listed plugin, std::runtime_error for a file that
// cannot be read or holds no timing record.
Prediction Predict(const PredictOptions& options, std::uint32_t workers);

// The plugins' table, the critical chain and what the times were taken from.
void WritePredictionText(const Prediction& prediction, std::ostream& stream);
// "file:line: problem" lines, with at most a screenful of them.
void WritePredictionProblems(const Prediction& prediction, std::ostream& stream);
// Members of the linter's JSON report: "predicted" and what the times were taken from.
nlohmann::json PredictionJson(const Prediction& prediction);

}  // namespace bootstrand::lint
