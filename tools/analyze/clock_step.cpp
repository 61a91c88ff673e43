#include "analyze/clock_step.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace bootstrand::analyze {

namespace {

constexpr Microseconds kHour = 3600LL * 1000000;
// A gap in which no plugin ran counts as a step when it is this many times longer than
// the longest timing line: the activator hands the next plugin over at once.
constexpr Microseconds kGapFactor = 10;

struct Moment {
  Microseconds time = 0;
  std::string label;
};

// "2 h 0 min", "12 min 5 s", "1.5 s": rounded to the unit below the largest.
std::string Magnitude(Microseconds amount) {
  long long value = std::llabs(amount);
  char text[64];
  if (value >= kHour) {
    long long minutes = (value + 30000000) / 60000000;
    std::snprintf(text, sizeof text, "%lld h %lld min", minutes / 60, minutes % 60);
  } else if (value >= 60000000) {
    long long seconds = (value + 500000) / 1000000;
    std::snprintf(text, sizeof text, "%lld min %lld s", seconds / 60, seconds % 60);
  } else {
    std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(value) / 1e6);
  }
  return text;
}

std::string Signed(Microseconds amount) { return (amount < 0 ? "-" : "+") + Magnitude(amount); }

std::string NameList(const std::vector<std::string>& names) {
  std::string text;
  for (std::size_t i = 0; i < names.size(); ++i) {
    text += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + names[i];
  }
  return text;
}

std::string Where(const ClockStep& step) {
  if (step.during.size() == 1) return "during " + step.during.front();
  if (!step.during.empty()) return "while " + NameList(step.during) + " ran";
  return "between " + step.after + " and " + step.before;
}

// Lines that end before they start belong to one step when their spans, reversed,
// overlap: every plugin that ran across a step back ends before it started.
void StepsOfLinesThatEndBeforeTheyStart(const TimingLog& log, std::vector<ClockStep>& steps) {
  std::vector<const TimedPlugin*> lines;
  for (const TimedPlugin& line : log.endsBeforeStart) lines.push_back(&line);
  std::sort(lines.begin(), lines.end(), [](const TimedPlugin* a, const TimedPlugin* b) { return a->end < b->end; });
  std::vector<ClockStep> found;
  Microseconds reach = 0;  // the latest start of the lines in the last step
  for (const TimedPlugin* line : lines) {
    if (found.empty() || line->end > reach) found.push_back({ClockStep::Evidence::EndsBeforeStart, 0, {}, {}, {}});
    ClockStep& step = found.back();
    step.amount = std::min(step.amount, line->end - line->start);
    step.during.push_back(line->name);
    reach = step.during.size() == 1 ? line->start : std::max(reach, line->start);
  }
  for (ClockStep& step : found) {
    std::sort(step.during.begin(), step.during.end());
    steps.push_back(std::move(step));
  }
}

// The activator writes each timing line when its plugin ends, so the ends, in the
// order of the lines, only go forward; the summary's start comes before them all and
// its end after them.
void StepsWhereEndsGoBack(const TimingLog& log, std::vector<ClockStep>& steps) {
  struct End {
    std::size_t line;
    Moment moment;
    bool endsBeforeStart;
  };
  std::vector<End> ends;
  if (log.activationStart) ends.push_back({0, {*log.activationStart, "activation start"}, false});
  for (const auto* lines : {&log.plugins, &log.endsBeforeStart}) {
    for (const TimedPlugin& line : *lines) {
      ends.push_back({line.line, {line.end, "the end of " + line.name}, lines == &log.endsBeforeStart});
    }
  }
  std::stable_sort(ends.begin(), ends.end(), [](const End& a, const End& b) { return a.line < b.line; });
  if (log.activationEnd) ends.push_back({0, {*log.activationEnd, "activation end"}, false});
  // A line that ends before it starts holds its own step, named already.
  for (std::size_t i = 1; i < ends.size(); ++i) {
    const End& earlier = ends[i - 1];
    const End& later = ends[i];
    if (earlier.endsBeforeStart || later.endsBeforeStart) continue;
    if (later.moment.time < earlier.moment.time - kClockStepTolerance) {
      steps.push_back({ClockStep::Evidence::EndsGoBack, later.moment.time - earlier.moment.time, {},
                       earlier.moment.label, later.moment.label});
    }
  }
}

void StepsForward(const TimingLog& log, std::vector<ClockStep>& steps) {
  std::vector<Moment> moments;
  Microseconds longest = 0;
  if (log.activationStart) moments.push_back({*log.activationStart, "activation start"});
  for (const TimedPlugin& line : log.plugins) {
    moments.push_back({line.start, "the start of " + line.name});
    moments.push_back({line.end, "the end of " + line.name});
    longest = std::max(longest, line.end - line.start);
  }
  if (log.activationEnd) moments.push_back({*log.activationEnd, "activation end"});
  std::stable_sort(moments.begin(), moments.end(), [](const Moment& a, const Moment& b) { return a.time < b.time; });
  for (std::size_t i = 1; i < moments.size(); ++i) {
    const Moment& earlier = moments[i - 1];
    const Moment& later = moments[i];
    Microseconds gap = later.time - earlier.time;
    if (gap <= kClockStepTolerance) continue;
    std::vector<std::string> across;
    for (const TimedPlugin& line : log.plugins) {
      if (line.start <= earlier.time && line.end >= later.time) across.push_back(line.name);
    }
    std::sort(across.begin(), across.end());
    if (!across.empty() && gap >= kHour) {
      steps.push_back({ClockStep::Evidence::LongLine, gap, std::move(across), {}, {}});
    } else if (across.empty() && gap >= kGapFactor * longest) {
      steps.push_back({ClockStep::Evidence::Gap, gap, {}, earlier.label, later.label});
    }
  }
}

}  // namespace

std::vector<ClockStep> MeasureClockSteps(const BootRecordContents& record) {
  struct Reading {
    ClockReading clocks;
    std::string label;
  };
  std::vector<Reading> readings;
  if (record.start) readings.push_back({record.start->at, "activation start"});
  for (const RecordedOutcome& outcome : record.outcomes) {
    if (outcome.start) readings.push_back({*outcome.start, "the start of " + outcome.name});
    if (outcome.end) readings.push_back({*outcome.end, "the end of " + outcome.name});
  }
  if (record.end) readings.push_back({record.end->at, "activation end"});
  std::stable_sort(readings.begin(), readings.end(), [](const Reading& a, const Reading& b) {
    return a.clocks.boottimeMicroseconds < b.clocks.boottimeMicroseconds;
  });

  std::vector<ClockStep> steps;
  for (std::size_t i = 1; i < readings.size(); ++i) {
    const ClockReading& earlier = readings[i - 1].clocks;
    const ClockReading& later = readings[i].clocks;
    Microseconds amount = (later.wallMicroseconds - earlier.wallMicroseconds) -
                          (later.boottimeMicroseconds - earlier.boottimeMicroseconds);
    if (std::llabs(amount) <= kClockStepTolerance) continue;
    ClockStep& step = steps.emplace_back();
    step.amount = amount;
    for (const RecordedOutcome& outcome : record.outcomes) {
      if (outcome.start && outcome.end && outcome.start->boottimeMicroseconds <= earlier.boottimeMicroseconds &&
          outcome.end->boottimeMicroseconds >= later.boottimeMicroseconds) {
        step.during.push_back(outcome.name);
      }
    }
    std::sort(step.during.begin(), step.during.end());
    if (step.during.empty()) {
      step.after = readings[i - 1].label;
      step.before = readings[i].label;
    }
  }
  return steps;
}

std::vector<ClockStep> InferClockSteps(const TimingLog& log) {
  std::vector<ClockStep> steps;
  StepsOfLinesThatEndBeforeTheyStart(log, steps);
  StepsWhereEndsGoBack(log, steps);
  if (steps.empty()) StepsForward(log, steps);
  return steps;
}

std::string ClockStepText(const ClockStep& step) {
  const std::string wallOnly = "; the timing log has only wall-clock times, so ";
  switch (step.evidence) {
    case ClockStep::Evidence::Measured:
      return "the wall clock moved " + Signed(step.amount) + " " + Where(step) +
             "; times above are measured on the monotonic clock";
    case ClockStep::Evidence::LongLine:
      return "the wall clock probably moved about " + Signed(step.amount) + " " + Where(step) +
             (step.during.size() == 1 ? ", whose timing line is that long" : ", whose timing lines are that long") +
             wallOnly + "times above include the step";
    case ClockStep::Evidence::Gap:
      return "the wall clock probably moved about " + Signed(step.amount) + " " + Where(step) +
             ", when no plugin ran" + wallOnly + "times above include the step";
    case ClockStep::Evidence::EndsBeforeStart:
      return "the wall clock was set back " + Magnitude(step.amount) + " or more " + Where(step) +
             (step.during.size() == 1 ? ", whose timing line ends before it starts" + wallOnly + "its time is unknown"
                                      : ", whose timing lines end before they start" + wallOnly +
                                            "their times are unknown");
    case ClockStep::Evidence::EndsGoBack:
      return "the wall clock was set back " + Magnitude(step.amount) + " or more " + Where(step) + wallOnly +
             "times above that span it are short by as much";
  }
  return "";
}

nlohmann::json ClockStepsJson(const std::vector<ClockStep>& steps) {
  nlohmann::json list = nlohmann::json::array();
  for (const ClockStep& step : steps) {
    list.push_back({{"amount_us", step.amount},
                    {"measured", step.evidence == ClockStep::Evidence::Measured},
                    {"during", step.during},
                    {"between", step.during.empty() ? nlohmann::json::array({step.after, step.before})
                                                    : nlohmann::json(nullptr)},
                    {"text", ClockStepText(step)}});
  }
  return list;
}

}  // namespace bootstrand::analyze
