#include "platform/clocks.h"

#include <time.h>

#include <cstdlib>
#include <fstream>

namespace bootstrand {

namespace {

// Tests step the wall clock without touching the machine's: when
// BOOTSTRAND_WALL_CLOCK_OFFSET_FILE names a file, the signed number of seconds it
// holds is added to every wall-clock reading, so a plugin's command can "set the
// clock" by writing that file. A missing or unreadable file adds nothing.
std::int64_t TestOffsetMicroseconds() {
  const char* file = std::getenv("BOOTSTRAND_WALL_CLOCK_OFFSET_FILE");
  if (file == nullptr || *file == '\0') return 0;
  std::ifstream input(file);
  long long seconds = 0;
  if (!(input >> seconds)) return 0;
  return seconds * 1000000;
}

std::int64_t Read(clockid_t clock) {
  timespec now {};
  clock_gettime(clock, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

}  // namespace

ClockReading ReadClocks() {
  ClockReading reading;
  reading.boottimeMicroseconds = Read(CLOCK_BOOTTIME);
  reading.wallMicroseconds = Read(CLOCK_REALTIME) + TestOffsetMicroseconds();
  return reading;
}

timeval WallClockNow() { return ToTimeval(Read(CLOCK_REALTIME) + TestOffsetMicroseconds()); }

timeval ToTimeval(std::int64_t wallMicroseconds) {
  std::int64_t seconds = wallMicroseconds / 1000000;
  std::int64_t micro = wallMicroseconds % 1000000;
  if (micro < 0) {
    micro += 1000000;
    seconds -= 1;
  }
  timeval time {};
  time.tv_sec = static_cast<time_t>(seconds);
  time.tv_usec = static_cast<suseconds_t>(micro);
  return time;
}

}  // namespace bootstrand
