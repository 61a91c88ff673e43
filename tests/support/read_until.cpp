#include "support/read_until.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace bootstrand::testing {

bool ReadUntil(int fd, std::string& output, Clock::time_point deadline,
               const std::function<bool(const std::string&)>& done) {
  while (!done(output)) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd entry{fd, POLLIN, 0};
    int ready = poll(&entry, 1, static_cast<int>(left));
    if (ready <= 0) continue;
    char buffer[4096];
    ssize_t count = read(fd, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return true;
    output.append(buffer, static_cast<std::size_t>(count));
  }
  return true;
}

bool ReadWrites(int fd, std::vector<std::string>& writes, Clock::time_point deadline) {
  for (;;) {
    std::string packet;
    // A read of a packet pipe returns at most one write.
    if (!ReadUntil(fd, packet, deadline, [](const std::string& so_far) { return !so_far.empty(); })) return false;
    if (packet.empty()) return true;
    writes.push_back(packet);
  }
}

}  // namespace bootstrand::testing
