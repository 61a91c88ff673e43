// The flag word that travels with every activation: the scheduler owns one for the
// whole run and hands copies to the worker layer and to Plugin::Activate.
#pragma once

#include <cstdint>

namespace bootstrand {

using ActivateFlags = std::uint32_t;

namespace ActivateFlag {
inline constexpr ActivateFlags DryRun = 0x01;
inline constexpr ActivateFlags Interactive = 0x02;
inline constexpr ActivateFlags TimeOps = 0x04;
inline constexpr ActivateFlags Skip = 0x08;
inline constexpr ActivateFlags HostProfilePresent = 0x10;
inline constexpr ActivateFlags HostProfileBarrier = 0x20;
inline constexpr ActivateFlags PreemptivePluginsDisabled = 0x40;
}  // namespace ActivateFlag

}  // namespace bootstrand
