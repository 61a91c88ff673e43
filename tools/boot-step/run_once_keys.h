// Which run-once keys the boot step passes to the activator, worked out from the
// keys it keeps and the boot record of the last run. A key is the run-once plugin's
// name and version run together; --disable turns off every plugin whose name, tag or
// run-once key equals it, so a key is passed on only when it can turn off nothing but
// its own plugin. Pure functions: the step's files and processes are elsewhere.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/boot_record_reader.h"

namespace bootstrand::boot_step {

// The run-once keys of the plugins that activated in `record`: ran and succeeded,
// not passed over, not in a dry run. In load order, without repeats.
std::vector<std::string> ActivatedRunOnceKeys(const BootRecordContents& record);

// `known` with the keys of `more` it lacks appended; true in `changed` when any was.
std::vector<std::string> Merged(const std::vector<std::string>& known, const std::vector<std::string>& more,
                                bool& changed);

struct DisableArguments {
  std::vector<std::string> values;   // one per --disable option, keys joined by commas
  std::vector<std::string> reports;  // a line for the operator per key held back
};

// One --disable value stays well under the kernel's bound on a single argument
// (32 pages), and all of them under a share of the bound on the whole command line,
// which the environment shares.
inline constexpr std::size_t kMaxValueLength = 64 * 1024;
inline constexpr std::size_t kMaxTotalLength = 1024 * 1024;

// The --disable values for `keys`. Held back, with a report each: a key with a comma
// (the activator would split it), and, when `last` is given, a key that would also
// turn off another plugin of the last run (by its name or one of its tags). Should
// the rest exceed `maxTotal`, only the keys of run-once plugins of the last run go.
DisableArguments DisableArgumentsFor(const std::vector<std::string>& keys, const BootRecordContents* last,
                                     std::size_t maxValue = kMaxValueLength, std::size_t maxTotal = kMaxTotalLength);

}  // namespace bootstrand::boot_step
