// The linter: reads plugins with the activator's own loaders and registries, then
// reports what a boot would do with them without activating anything: the files it
// would skip, what would stop it, what looks wrong, and the activation order as
// waves. Lint() drives it once per process; the report writers turn the result into
// text for people or JSON.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "prediction.h"
#include "trust.h"

namespace bootstrand::lint {

// A bad command line or a path that names nothing; the program exits with status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct LintOptions {
  bool help = false;
  bool version = false;
  bool json = false;
  bool strict = false;  // skipped files, warnings and trust findings fail the run too
  std::uint32_t workers = 0;  // 0: no limit, as the activator on a large host
  std::vector<std::string> disable;
  // Plugin files or directories; none: the built-in plugin and the two plugin
  // directories, as the activator loads them.
  std::vector<std::string> paths;
  // --predict: the boot's times from a timing log instead of the waves, and no trust checks.
  std::optional<PredictOptions> predict;
};

// Throws UsageError for an unknown option, a missing value or a bad number.
LintOptions ParseLintArguments(const std::vector<std::string>& arguments);
void WriteLintUsage(std::ostream& stream);

struct SkippedFile {
  std::string path;
  std::string reason;
  // The activator's line on standard error; for an entry that it passes over without
  // a word, a line of the same form.
  std::string message;
};

enum class FindingKind {
  // Stop a boot.
  Cycle,
  SelfRequirement,
  PreemptiveConflict,
  Blocked,
  // Suspicious.
  UnprovidedTag,
  SharedTag,
  RunOnceWithoutVersion,
  Disabled,
  UnmatchedDisable,
  // Wrong though the boot completes.
  RunOnceKeyCollision,
};

// One plugin of a cycle waiting for the next: it requires `tag` from it, or, when
// `heldBack`, the next one is a preemptive provider of `tag` that holds it back.
struct CycleStep {
  std::string plugin;
  std::string waitsFor;
  std::string tag;
  bool heldBack = false;
};

// A --disable entry that turns a plugin off, and what of the plugin it matched:
// "name", "tag" or "run-once key".
struct DisableMatch {
  std::string entry;
  std::string as;
};

// Plugins are named, and listed in load order unless said otherwise.
struct Finding {
  FindingKind kind = FindingKind::Cycle;
  std::string plugin{};                    // SelfRequirement, RunOnceWithoutVersion, Disabled,
                                           // RunOnceKeyCollision
  std::string tag{};                       // PreemptiveConflict, UnprovidedTag, SharedTag;
                                           // the entry of UnmatchedDisable; the key of
                                           // RunOnceKeyCollision
  std::vector<std::string> plugins{};      // Cycle (its members), PreemptiveConflict, Blocked,
                                           // UnprovidedTag (requirers), SharedTag (providers),
                                           // RunOnceKeyCollision (the others the key names)
  std::vector<std::string> tags{};         // SelfRequirement
  std::vector<CycleStep> cycle{};          // Cycle: one closed walk through its first member
  std::vector<DisableMatch> disabledBy{};  // Disabled
};

// Plugins that run together, when every plugin succeeds and runs as long as any other
// and the scheduler's own work takes no time: at most `workers` plugins that need a
// worker, and the plugins settled meanwhile that the worker layer passes over without
// one (disabled, or without operations).
struct Wave {
  std::vector<std::string> run;
  std::vector<std::string> passedOver;
};

// A rival dropped unrun when the preemptive provider `by`, of wave `wave` (from 1),
// succeeded.
struct Preemption {
  std::string plugin;
  std::string by;
  std::size_t wave = 0;
};

struct LintReport {
  std::uint32_t workers = 0;
  std::size_t pluginCount = 0;
  std::vector<SkippedFile> skippedFiles;
  std::vector<Finding> stops;
  std::vector<Finding> errors;
  std::vector<Finding> warnings;
  std::vector<Wave> waves;
  std::vector<Preemption> preempted;
  std::vector<TrustFinding> trust;
  std::optional<Prediction> prediction;  // instead of the waves

  bool BootCompletes() const { return stops.empty(); }
  // What --strict fails on when the boot would complete.
  bool HasFindings() const {
    return !skippedFiles.empty() || !errors.empty() || !warnings.empty() || !trust.empty();
  }
};

// Loads the plugins into the process-wide registries (once per process, or after
// Plugin::ResetRegistries) and examines them, and checks who may change the files and
// folders a boot would use, or with --predict predicts the boot's times instead.
// Never opens the run-once marker. Throws UsageError for a path that names nothing.
LintReport Lint(const LintOptions& options);

void WriteReportText(const LintReport& report, std::ostream& stream);
nlohmann::json ReportJson(const LintReport& report);

}  // namespace bootstrand::lint
