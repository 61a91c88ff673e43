#include "platform/host_path.h"

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>

namespace bootstrand {

namespace {

// The root without its trailing slashes: what goes in front of a host path.
std::string_view RootPrefix(const char* root) {
  std::string_view prefix = root != nullptr ? root : "";
  while (!prefix.empty() && prefix.back() == '/') prefix.remove_suffix(1);
  return prefix;
}

}  // namespace

std::string HostPath(std::string_view path) {
  if (path.empty() || path.front() != '/' || path.starts_with("/dev/")) return std::string(path);
  std::string resolved(RootPrefix(std::getenv("BOOTSTRAND_ROOT")));
  resolved += path;
  return resolved;
}

bool IsRealHostRoot(const char* root) { return RootPrefix(root).empty(); }

bool MakeDirectories(const std::string& directory) {
  for (std::size_t slash = directory.find('/', 1);; slash = directory.find('/', slash + 1)) {
    std::string prefix = directory.substr(0, slash);
    if (!prefix.empty() && mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

}  // namespace bootstrand
