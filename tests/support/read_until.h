// Reading a child's output with a deadline, so that a broken test fails instead of
// hanging.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace bootstrand::testing {

using Clock = std::chrono::steady_clock;

// Appends what `fd` delivers to `output` until `done(output)` holds or the output
// ends (both true), or the deadline passes (false). A terminal's master side counts
// as ended once the other side is closed.
bool ReadUntil(int fd, std::string& output, Clock::time_point deadline,
               const std::function<bool(const std::string&)>& done);

// Reads until the output ends; false when the deadline passes first.
inline bool ReadToEnd(int fd, std::string& output, Clock::time_point deadline) {
  return ReadUntil(fd, output, deadline, [](const std::string&) { return false; });
}

}  // namespace bootstrand::testing
