// The name the activator goes by in the system log and the kernel log. One process
// has one syslog(3) identity, so the logging set-up and the channel outputs share it.
#pragma once

namespace bootstrand {

inline constexpr const char* kLogIdentity = "Pellam2";

}  // namespace bootstrand
