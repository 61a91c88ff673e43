#include "platform/main_memory.h"

#include <sys/sysinfo.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

int get_main_memory_size(std::uint64_t* size, std::uint64_t* unused) {
  if (unused != nullptr) *unused = 0;
  if (const char* forced = std::getenv("BOOTSTRAND_MAIN_MEMORY")) {
    char* end = nullptr;
    errno = 0;
    unsigned long long bytes = std::strtoull(forced, &end, 10);
    if (std::strcmp(forced, "fail") == 0 || end == forced || *end != '\0' || errno != 0) {
      errno = ENOSYS;
      return -1;
    }
    *size = bytes;
    return 0;
  }
  struct sysinfo info {};
  if (sysinfo(&info) != 0) return -1;
  *size = static_cast<std::uint64_t>(info.totalram) * info.mem_unit;
  return 0;
}
