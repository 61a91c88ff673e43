// A step of the wall clock during a boot (a time-sync plugin setting the clock, an
// operator's date command), found by the analyzer and the linter so that their reports
// name it in one line instead of passing an hours-long or negative span off as a
// plugin's time. From a boot record a step is measured: between two moments of the run
// the wall clock moved further than the monotonic clock. From a timing log alone it is
// inferred from what a wall clock left alone never shows.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "analyze/timing_log.h"
#include "platform/boot_record_reader.h"

namespace bootstrand::analyze {

struct ClockStep {
  enum class Evidence {
    Measured,         // a boot record's two clocks: the amount is exact
    LongLine,         // a timing line of an hour or more: about the amount
    Gap,              // a gap in which no plugin ran, far longer than anything else: about the amount
    EndsBeforeStart,  // timing lines that end before they start: at least the amount
    EndsGoBack,       // a timing line that ends before the one written before it: at least the amount
  };
  Evidence evidence = Evidence::Measured;
  Microseconds amount = 0;  // how far the wall clock moved beyond the monotonic clock
  std::vector<std::string> during;  // the plugins that ran across it, by name
  // When no plugin ran across it, the moments on either side ("activation start",
  // "the end of 40-time", "the start of 60-ssh", "activation end").
  std::string after;
  std::string before;
};

// A difference between the clocks up to this much is drift, or the time between two
// readings, and not a step.
constexpr Microseconds kClockStepTolerance = 1000000;

// Every step between two consecutive moments of the record (its start, each plugin's
// start and end, its end), in the order they happened.
std::vector<ClockStep> MeasureClockSteps(const BootRecordContents& record);

// The steps a timing log betrays: lines that end before they start, lines that end
// before the line written before them, and forward steps (a line of an hour or more, a
// gap with no plugin running ten times longer than the longest line). When the log
// shows a step back, its wall-clock times are out of order and gaps between them mean
// nothing, so forward steps are not looked for.
std::vector<ClockStep> InferClockSteps(const TimingLog& log);

// The step named in one line, to follow "Clock step: ": how far, during which plugins
// or between which moments, and what it means for the times shown.
std::string ClockStepText(const ClockStep& step);

// Each step as {"amount_us", "measured", "during", "between" (null, or the moments on
// either side), "text"}.
nlohmann::json ClockStepsJson(const std::vector<ClockStep>& steps);

}  // namespace bootstrand::analyze
