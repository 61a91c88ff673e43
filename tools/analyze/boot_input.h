// One boot's account as the operator tools read it: the boot record when the host kept
// one, else the boot timing log. Either may be given wherever the other is, so a file
// is told apart by its content. A record's times become a TimingLog on the monotonic
// clock, so that everything that measures a timing log measures a record unchanged.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "analyze/clock_step.h"
#include "analyze/problem.h"
#include "analyze/timing_log.h"
#include "platform/boot_record_reader.h"

namespace bootstrand::analyze {

struct BootInput {
  std::string path;
  std::optional<BootRecordContents> record;  // set when the file is a boot record
  TimingLog timing;  // the timing log, or the record's times as one (TimingOfRecord)
};

// Reads `text`, the contents of `path`, as a boot record or a timing log; lines that
// do not fit go to `problems`. Throws std::runtime_error ("PATH holds no timing
// record") when nothing of a boot is in it.
BootInput ReadBootInput(const std::string& text, const std::string& path, Problems& problems);

// The record's times as a timing log: every moment is the wall-clock time activation
// started plus the monotonic time since then, so that a difference of two is a
// duration and each still reads as a wall-clock moment. The plugins are those that
// ran, in the record's order; the kernel time is the start's boot time, exact; the
// summary's end is the end line's, whatever its outcome.
TimingLog TimingOfRecord(const BootRecordContents& record);

// The steps of the wall clock during the boot: measured from a record, inferred from a
// timing log.
std::vector<ClockStep> ClockStepsOf(const BootInput& input);

// The host's boot record when it exists, else its timing log (host paths).
std::string HostBootInputPath();

}  // namespace bootstrand::analyze
