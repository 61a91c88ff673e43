#include "platform/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "platform/unique_fd.h"

namespace bootstrand {

void EnsureStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) continue;
    // The lowest free descriptor is this one: those below it are open already. No
    // close-on-exec, as for the standard stream it stands in for.
    int null = open("/dev/null", O_RDWR);
    if (null >= 0 && null != fd) {
      dup2(null, fd);
      close(null);
    }
  }
}

bool RedirectOnto(int fd, int target) {
  if (fd == target) return fcntl(fd, F_SETFD, 0) == 0;
  bool moved = dup2(fd, target) == target;
  close(fd);
  return moved;
}

void WriteLine(int fd, std::string_view line) {
  if (fd == STDOUT_FILENO) {
    std::cout.flush();
    std::fflush(stdout);
  } else if (fd == STDERR_FILENO) {
    std::cerr.flush();
    std::fflush(stderr);
  }
  std::string whole(line);
  whole += '\n';
  WriteAll(fd, whole.data(), whole.size());
}

const char* ConsoleDevice() {
  const char* device = std::getenv("BOOTSTRAND_CONSOLE");
  return device != nullptr && *device != '\0' ? device : "/dev/console";
}

}  // namespace bootstrand
