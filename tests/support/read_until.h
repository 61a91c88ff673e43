// Reading a child's output with a deadline, so that a broken test fails instead of
// hanging.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

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

// Reads a packet pipe (pipe2 with O_DIRECT) to its end, one element per write made
// on the other side, so that a test sees whether a line went out in one piece. False
// when the deadline passes first.
bool ReadWrites(int fd, std::vector<std::string>& writes, Clock::time_point deadline);

}  // namespace bootstrand::testing
