// Test hook shared by the platform stand-ins: an environment variable holding a
// comma-separated list of operation names makes those operations fail.
#pragma once

#include <string_view>

namespace bootstrand {

// True when the comma-separated list in the environment variable `variable`
// contains `operation`.
bool ForcedFailure(const char* variable, std::string_view operation);

}  // namespace bootstrand
