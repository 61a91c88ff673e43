#include "analyze/timing_log.h"

#include <sys/time.h>

#include <cstdio>
#include <sstream>

#include "log/profile.h"

namespace bootstrand::analyze {

namespace {

constexpr std::string_view kStartLine = "Ondrik Initialization Time: ";
constexpr std::string_view kSummaryLine = "=== Bootstrand configuration info ===";
constexpr std::string_view kSummaryStart = " Start: ";
constexpr std::string_view kSummaryEnd = " End: ";
constexpr std::string_view kPluginSeparator = "] sysboot: ";

// Reads `minimum` to `maximum` digits from the front of `text` and removes them.
// Eighteen digits always fit the result.
std::optional<std::int64_t> TakeNumber(std::string_view& text, std::size_t minimum, std::size_t maximum) {
  std::size_t count = 0;
  while (count < text.size() && text[count] >= '0' && text[count] <= '9') ++count;
  if (count < minimum || count > maximum) return std::nullopt;
  std::int64_t value = 0;
  for (std::size_t i = 0; i < count; ++i) value = value * 10 + (text[i] - '0');
  text.remove_prefix(count);
  return value;
}

bool TakeChar(std::string_view& text, char expected) {
  if (text.empty() || text.front() != expected) return false;
  text.remove_prefix(1);
  return true;
}

// Days since 1970-01-01 of a date in the proleptic Gregorian calendar.
std::int64_t DaysFromCivil(std::int64_t year, std::int64_t month, std::int64_t day) {
  year -= month <= 2 ? 1 : 0;
  std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  std::int64_t yearOfEra = year - era * 400;
  std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

std::optional<Microseconds> ParseSummaryTime(const std::string& line, std::string_view prefix) {
  if (!std::string_view(line).starts_with(prefix)) return std::nullopt;
  return ParseTimestamp(std::string_view(line).substr(prefix.size()));
}

}  // namespace

std::optional<Microseconds> ParseTimestamp(std::string_view text) {
  auto year = TakeNumber(text, 4, 5);  // keeps microseconds since the epoch in range
  if (!year || !TakeChar(text, '-')) return std::nullopt;
  auto month = TakeNumber(text, 2, 2);
  if (!month || !TakeChar(text, '-')) return std::nullopt;
  auto day = TakeNumber(text, 2, 2);
  if (!day || !TakeChar(text, ' ')) return std::nullopt;
  auto hour = TakeNumber(text, 2, 2);
  if (!hour || !TakeChar(text, ':')) return std::nullopt;
  auto minute = TakeNumber(text, 2, 2);
  if (!minute || !TakeChar(text, ':')) return std::nullopt;
  auto second = TakeNumber(text, 2, 2);
  if (!second || !TakeChar(text, '.')) return std::nullopt;
  auto micro = TakeNumber(text, 6, 6);
  if (!micro || !text.empty()) return std::nullopt;
  if (*month < 1 || *month > 12 || *day < 1 || *day > 31 || *hour > 23 || *minute > 59 || *second > 60) {
    return std::nullopt;
  }
  std::int64_t seconds = DaysFromCivil(*year, *month, *day) * 86400 + *hour * 3600 + *minute * 60 + *second;
  return seconds * 1000000 + *micro;
}

std::string FormatTimestamp(Microseconds time) {
  timeval value {};
  value.tv_sec = static_cast<time_t>(time / 1000000);
  value.tv_usec = static_cast<suseconds_t>(time % 1000000);
  if (value.tv_usec < 0) {
    value.tv_usec += 1000000;
    value.tv_sec -= 1;
  }
  std::ostringstream text;
  WriteTimestamp(text, value);
  return text.str();
}

std::string FormatDuration(Microseconds duration) {
  char text[64];
  if (duration < 1000 && duration > -1000) {
    std::snprintf(text, sizeof text, "%lld us", static_cast<long long>(duration));
  } else if (duration < 1000000 && duration > -1000000) {
    std::snprintf(text, sizeof text, "%.1f ms", static_cast<double>(duration) / 1e3);
  } else {
    std::snprintf(text, sizeof text, "%.3f s", static_cast<double>(duration) / 1e6);
  }
  return text;
}

TimingLog ReadTimingLog(std::istream& input, const std::string& file, Problems& problems) {
  TimingLog log;
  bool inSummary = false;
  std::size_t startLine = 0;
  ForEachCompleteLine(input, file, problems, [&](std::size_t number, const std::string& line) {
    std::string_view text(line);
    auto skip = [&](const std::string& why) { problems.push_back({file, number, why + ", skipped"}); };

    if (text.starts_with(kStartLine)) {
      std::string_view digits = text.substr(kStartLine.size());
      auto uptime = TakeNumber(digits, 1, 18);
      if (!uptime || !digits.empty()) return skip("malformed start line");
      // The activator truncates the file at every boot, so a second start line means
      // logs were joined: keep the latest boot only.
      if (startLine != 0 || !log.plugins.empty()) {
        problems.push_back({file, number, "a later boot starts here; the lines before it are left out"});
        log = TimingLog();
        inSummary = false;
      }
      startLine = number;
      log.kernelTime = *uptime;
      return;
    }
    if (text == kSummaryLine) {
      inSummary = true;
      return;
    }
    if (inSummary && text.starts_with(kSummaryStart)) {
      log.activationStart = ParseSummaryTime(line, kSummaryStart);
      if (!log.activationStart) skip("malformed summary start time");
      return;
    }
    if (inSummary && text.starts_with(kSummaryEnd)) {
      log.activationEnd = ParseSummaryTime(line, kSummaryEnd);
      if (!log.activationEnd) skip("malformed summary end time");
      return;
    }
    // "[<start> - <end>] sysboot: <name>"; the name is the rest of the line.
    std::size_t dash = text.find(" - ");
    std::size_t close = dash == std::string_view::npos ? dash : text.find(kPluginSeparator, dash);
    if (!text.starts_with('[') || close == std::string_view::npos) return skip("unrecognised line");
    auto start = ParseTimestamp(text.substr(1, dash - 1));
    auto end = ParseTimestamp(text.substr(dash + 3, close - dash - 3));
    if (!start || !end) return skip("malformed plugin time");
    TimedPlugin plugin{std::string(text.substr(close + kPluginSeparator.size())), *start, *end, number};
    (*end < *start ? log.endsBeforeStart : log.plugins).push_back(std::move(plugin));
  });
  return log;
}

std::optional<Microseconds> ActivationTime(const TimingLog& log) {
  if (!log.activationStart || !log.activationEnd || *log.activationEnd < *log.activationStart) return std::nullopt;
  return *log.activationEnd - *log.activationStart;
}

}  // namespace bootstrand::analyze
