// The kernel's id of the current boot, a random UUID that changes at every boot; it
// tells whether what was written belongs to this boot or an earlier one.
#pragma once

#include <optional>
#include <string>

namespace bootstrand {

// The text of /proc/sys/kernel/random/boot_id (a host path, so a test root can hold
// its own), without the newline; none when it cannot be read.
std::optional<std::string> CurrentBootId();

}  // namespace bootstrand
