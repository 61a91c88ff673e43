// When each plugin's activation started and ended, as the worker that ran it saw it:
// a table in memory shared with the worker processes, one slot per plugin, made
// before the first worker is forked. A worker fills its plugin's slot before it sends
// the response, so the scheduler finds the slot filled once it has read the response
// (the pipe orders the two). Without a table (nothing made it) every call does nothing.
#pragma once

#include <cstddef>
#include <optional>

#include "platform/clocks.h"

namespace bootstrand {

class ActivationStamps {
 public:
  // Replaces any earlier table with an empty one of `slots` slots. Must run before
  // the workers are forked; a failure leaves no table.
  static void Make(std::size_t slots);
  // Drops the table.
  static void Drop();

  static void Started(std::size_t slot, const ClockReading& reading);
  static void Ended(std::size_t slot, const ClockReading& reading);
  // The readings of the slot's last activation; an end only once it ended.
  static std::optional<ClockReading> StartOf(std::size_t slot);
  static std::optional<ClockReading> EndOf(std::size_t slot);
};

}  // namespace bootstrand
