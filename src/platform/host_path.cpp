#include "platform/host_path.h"

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>

namespace bootstrand {

std::string HostPath(std::string_view path) {
  if (path.empty() || path.front() != '/' || path.starts_with("/dev/")) return std::string(path);
  const char* root = std::getenv("BOOTSTRAND_ROOT");
  std::string_view prefix = root != nullptr ? root : "";
  while (!prefix.empty() && prefix.back() == '/') prefix.remove_suffix(1);
  std::string resolved(prefix);
  resolved += path;
  return resolved;
}

bool MakeDirectories(const std::string& directory) {
  for (std::size_t slash = directory.find('/', 1);; slash = directory.find('/', slash + 1)) {
    std::string prefix = directory.substr(0, slash);
    if (!prefix.empty() && mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

}  // namespace bootstrand
