// The boot record "/var/lib/bootstrand/boot-record.jsonl": one structured account of
// each run, written as the run goes, one JSON object per line, that the boot step,
// the analyzer and the linter read instead of the channels or the timing log. Every
// moment is given on both clocks (see clocks.h). The run before is kept as
// "boot-record.previous.jsonl". The start-up code opens it; the scheduler writes
// through the static members, which do nothing while no record is open (a query, a
// test that drives the scheduler itself). Writing never throws and never stops the
// run: the first failure is said once on standard error and the rest is dropped.
//
// Lines, each with "event" first:
//   "start":   version, boot_id (null when unknown), pid, dry_run, disabled (the
//              --disable names), worker_limit (null: no limit),
//              preemptive_plugins_disabled, interactive, at
//   "plugin":  index (load order, from 0), name, kind ("json", "native", "builtin"),
//              provides, requires (both sorted, kind tags included in provides),
//              run_once_key (null unless run-once), preemptive, disabled
//   "outcome": index, name, outcome (the words of its outcome line: "activated",
//              "skipped", "opportunistic skipped", "opportunistic activation failed",
//              "activation failed"), status (null for a plugin preempted before it
//              ran), passed_over (skipped without running), start and end (absent
//              for a preempted plugin), preempted_by (the preemptive plugin's name,
//              only for one preempted)
//   "end":     outcome ("completed", "interrupted", "unmet dependencies"), status
//              (the exit status), signal (only when interrupted), at
// A moment ("at", "start", "end") is {"wall_us": microseconds since the epoch by the
// wall clock, "boottime_us": microseconds since the kernel started}.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/clocks.h"

namespace bootstrand {

struct RecordedRunSettings {
  bool dryRun = false;
  std::vector<std::string> disabled;
  std::optional<std::uint32_t> workerLimit;
  bool preemptivePluginsDisabled = false;
  bool interactive = false;
};

struct RecordedPlugin {
  std::size_t index = 0;
  std::string name;
  std::string kind;
  std::vector<std::string> provides;
  std::vector<std::string> requires_;
  std::optional<std::string> runOnceKey;
  bool preemptive = false;
  bool disabled = false;
};

struct RecordedOutcome {
  std::size_t index = 0;
  std::string name;
  std::string outcome;
  std::optional<std::int32_t> status;
  bool passedOver = false;
  std::optional<ClockReading> start;
  std::optional<ClockReading> end;
  std::optional<std::string> preemptedBy;
};

class BootRecord {
 public:
  static constexpr const char* kPath = "/var/lib/bootstrand/boot-record.jsonl";
  static constexpr const char* kPreviousPath = "/var/lib/bootstrand/boot-record.previous.jsonl";

  // Keeps the last run's record as the previous one, starts this run's (a host path)
  // with its start line and one line per plugin, and makes both its name and these
  // lines durable.
  static void Open(const RecordedRunSettings& settings, const std::vector<RecordedPlugin>& plugins,
                   const ClockReading& at);
  static bool IsOpen();
  // `durable`: the line is on the disk when this returns (fdatasync).
  static void Outcome(const RecordedOutcome& outcome, bool durable);
  // The last line; always made durable. The record stays open (workers forked
  // earlier share it) but takes no more lines.
  static void End(const std::string& outcome, int status, const char* signal, const ClockReading& at);
  // Closes the record without an end line (tests).
  static void Close();
};

}  // namespace bootstrand
