// The two clocks a boot is told by: the wall clock, for showing a moment to a
// person, and CLOCK_BOOTTIME, which counts from the kernel's start, keeps counting
// through suspend and is never stepped, for measuring. A duration is always the
// difference of two boot-time readings.
#pragma once

#include <sys/time.h>

#include <cstdint>

namespace bootstrand {

struct ClockReading {
  std::int64_t wallMicroseconds = 0;      // since the epoch, UTC
  std::int64_t boottimeMicroseconds = 0;  // since the kernel started
};

// Both clocks, read one right after the other.
ClockReading ReadClocks();

// The wall clock alone, as the timing log shows it.
timeval WallClockNow();

timeval ToTimeval(std::int64_t wallMicroseconds);

}  // namespace bootstrand
