// Reading a child's output with a deadline, so that a broken test fails instead of
// hanging.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace bootstrand::testing {

using Clock = std::chrono::steady_clock;

// Appends what `fd` delivers to `output` until `done(output)` holds or the output
// ends (both true), or the deadline passes (false). A terminal's master side counts
// as ended once the other side is closed.
inline bool ReadUntil(int fd, std::string& output, Clock::time_point deadline,
                      const std::function<bool(const std::string&)>& done) {
  while (!done(output)) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd entry{fd, POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(left)) <= 0) continue;
    char buffer[4096];
    ssize_t count = read(fd, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return true;
    output.append(buffer, static_cast<std::size_t>(count));
  }
  return true;
}

// Reads until the output ends; false when the deadline passes first.
inline bool ReadToEnd(int fd, std::string& output, Clock::time_point deadline) {
  return ReadUntil(fd, output, deadline, [](const std::string&) { return false; });
}

// Reads a packet pipe (pipe2 with O_DIRECT) to its end, one element per write made
// on the other side (a read returns at most one), so that a test sees whether a line
// went out in one piece. False when the deadline passes first.
inline bool ReadWrites(int fd, std::vector<std::string>& writes, Clock::time_point deadline) {
  for (std::string packet;; packet.clear()) {
    if (!ReadUntil(fd, packet, deadline, [](const std::string& so_far) { return !so_far.empty(); })) return false;
    if (packet.empty()) return true;
    writes.push_back(packet);
  }
}

}  // namespace bootstrand::testing
