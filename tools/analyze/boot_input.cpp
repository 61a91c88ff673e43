#include "analyze/boot_input.h"

#include <unistd.h>

#include <sstream>
#include <stdexcept>

#include "platform/boot_record.h"
#include "platform/host_path.h"

namespace bootstrand::analyze {

namespace {

// The record's reader says "FILE:LINE: what"; the analyzer keeps the parts apart.
Problem RecordProblem(const std::string& text, const std::string& path) {
  std::string_view rest(text);
  if (rest.starts_with(path + ":")) rest.remove_prefix(path.size() + 1);
  std::size_t digits = 0;
  std::size_t line = 0;
  while (digits < rest.size() && rest[digits] >= '0' && rest[digits] <= '9') line = line * 10 + (rest[digits++] - '0');
  if (digits == 0 || !rest.substr(digits).starts_with(": ")) return {path, 0, text};
  return {path, line, std::string(rest.substr(digits + 2))};
}

}  // namespace

BootInput ReadBootInput(const std::string& text, const std::string& path, Problems& problems) {
  BootInput input;
  input.path = path;
  std::istringstream stream(text);
  Problems lines;
  if (LooksLikeBootRecord(stream)) {
    BootRecordContents record = ReadBootRecord(stream, path);
    for (const std::string& problem : record.problems) lines.push_back(RecordProblem(problem, path));
    if (!record.start && record.outcomes.empty() && !record.end) {
      throw std::runtime_error(path + " holds no timing record");
    }
    input.timing = TimingOfRecord(record);
    input.record = std::move(record);
  } else {
    input.timing = ReadTimingLog(stream, path, lines);
    const TimingLog& log = input.timing;
    // A log without a single record is not a boot (an empty file, or the wrong one);
    // its lines are not listed one by one.
    if (!log.kernelTime && !log.activationStart && !log.activationEnd && log.plugins.empty() &&
        log.endsBeforeStart.empty()) {
      throw std::runtime_error(path + " holds no timing record");
    }
  }
  problems.insert(problems.end(), lines.begin(), lines.end());
  return input;
}

TimingLog TimingOfRecord(const BootRecordContents& record) {
  // Without a start line, the earliest moment the record holds stands in for it.
  std::optional<ClockReading> anchor;
  if (record.start) {
    anchor = record.start->at;
  } else {
    for (const RecordedOutcome& outcome : record.outcomes) {
      if (outcome.start && (!anchor || outcome.start->boottimeMicroseconds < anchor->boottimeMicroseconds)) {
        anchor = outcome.start;
      }
    }
    if (!anchor && record.end) anchor = record.end->at;
  }
  TimingLog timing;
  if (!anchor) return timing;
  auto moment = [&](const ClockReading& reading) {
    return anchor->wallMicroseconds + (reading.boottimeMicroseconds - anchor->boottimeMicroseconds);
  };
  if (record.start) {
    timing.kernelTime = record.start->at.boottimeMicroseconds;
    timing.activationStart = moment(record.start->at);
    if (record.end) timing.activationEnd = moment(record.end->at);
  }
  for (const RecordedOutcome& outcome : record.outcomes) {
    if (outcome.start && outcome.end) {
      timing.plugins.push_back({outcome.name, moment(*outcome.start), moment(*outcome.end), 0});
    }
  }
  return timing;
}

std::vector<ClockStep> ClockStepsOf(const BootInput& input) {
  return input.record ? MeasureClockSteps(*input.record) : InferClockSteps(input.timing);
}

std::string HostBootInputPath() {
  std::string record = HostPath(BootRecord::kPath);
  return access(record.c_str(), F_OK) == 0 ? record : HostPath("/var/log/sysboot.log");
}

}  // namespace bootstrand::analyze
