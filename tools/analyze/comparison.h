// Two boots side by side, for the operator who kept the timing log of an earlier,
// good boot and asks what changed since: which plugins got slower or faster, which
// came or went, and whether the critical chain moved. Compare works on the analyses
// of both boots; the writers print the result as text or JSON.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "analyze/analysis.h"

namespace bootstrand::analyze {

// The noise of a boot: a plugin's change counts as slower or faster only when it is
// at least `absolute` and at least `basisPoints` hundredths of a percent of its time
// before.
struct Threshold {
  Microseconds absolute = 5000;
  std::int64_t basisPoints = 1000;
};

// "5ms,10%": a duration (a number with us, ms or s), a percentage, or both separated
// by a comma; a part left out keeps its default. Nothing for any other text.
std::optional<Threshold> ParseThreshold(std::string_view text);

struct PluginChange {
  std::string name;
  Microseconds before = 0;
  Microseconds after = 0;
  Microseconds Delta() const { return after - before; }
};

struct BootTotals {
  std::optional<Microseconds> kernelTime;  // host uptime when activation began
  Microseconds activation = 0;  // from its start to its end, else the span of the timed plugins
  bool hasSummary = false;  // its start and end are known
  std::string activationUnknown;  // why not, when they are not
  std::vector<ClockStep> clockSteps;
};

// A plugin's time is the end minus the start of its timing line. A name timed more
// than once in one boot (plugins that share a name) counts with the sum of its times.
struct Comparison {
  BootTotals before;
  BootTotals after;
  Threshold threshold;
  std::vector<PluginChange> plugins;  // timed in both boots; the largest delta first, ties by name
  std::vector<std::size_t> slower;  // into `plugins`: past the threshold, the largest increase first
  std::vector<std::size_t> faster;  // the largest decrease first
  std::vector<std::string> added;  // timed only after, in the order of its log
  std::vector<std::string> removed;  // timed only before, in the order of its log
  // Timed in a boot only by a line that ends before it starts (a timing log's, after a
  // step back of the wall clock): neither compared nor added or removed.
  std::vector<std::string> timeUnknown;
  // Plugin names along both critical chains; absent without plugin files.
  std::optional<std::vector<std::string>> chainBefore;
  std::optional<std::vector<std::string>> chainAfter;
  std::vector<std::string> chainNotes;  // why the chains are missing or may stop early
};

Comparison Compare(const Analysis& before, const Analysis& after, const Threshold& threshold);

// Whether a plugin's change is past the threshold (either way).
bool PastThreshold(const PluginChange& change, const Threshold& threshold);

// A change with its sign: "+300.2 ms", "-12 us", "0 us".
std::string FormatChange(Microseconds change);

// The text report; `top` limits the lists of slower and faster plugins (0: all).
void PrintComparison(std::ostream& output, const Comparison& comparison, std::size_t top);

// The same as the value of the key "compare"; times are microseconds.
nlohmann::json ComparisonJson(const Comparison& comparison, std::size_t top);

}  // namespace bootstrand::analyze
