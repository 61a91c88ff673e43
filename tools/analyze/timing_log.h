// The boot timing log "/var/log/sysboot.log" read back: the kernel start-up time, one
// entry per plugin line and the closing summary. Reading never throws on content;
// lines that do not fit are reported as problems and skipped. Its times are wall-clock
// times, which a host may step during a boot (see clock_step.h).
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "analyze/problem.h"

namespace bootstrand::analyze {

using Microseconds = std::int64_t;

struct TimedPlugin {
  std::string name;
  Microseconds start = 0;  // since the epoch, UTC
  Microseconds end = 0;
  std::size_t line = 0;  // in the timing log; 0 when taken from a boot record
};

struct TimingLog {
  std::optional<Microseconds> kernelTime;  // host uptime when activation began
  std::optional<Microseconds> activationStart;  // from the summary, absent when the run did not end normally
  std::optional<Microseconds> activationEnd;
  std::vector<TimedPlugin> plugins;  // in the order the lines were written
  // Lines that end before they start: the wall clock was set back while the plugin
  // ran, so its time is unknown. Kept apart, never used as a duration.
  std::vector<TimedPlugin> endsBeforeStart;
};

TimingLog ReadTimingLog(std::istream& input, const std::string& file, Problems& problems);

// The summary's end minus its start; none without a summary, or when it ends before
// it starts (the wall clock was set back during the boot).
std::optional<Microseconds> ActivationTime(const TimingLog& log);

// Parses "YYYY-MM-DD HH:MM:SS.uuuuuu" (UTC) into microseconds since the epoch.
std::optional<Microseconds> ParseTimestamp(std::string_view text);

// The same format back, as the activator writes it.
std::string FormatTimestamp(Microseconds time);

// "850 us", "12.3 ms", "4.021 s".
std::string FormatDuration(Microseconds duration);

}  // namespace bootstrand::analyze
