// Resolves absolute host paths under the root given by BOOTSTRAND_ROOT, so that the
// program and its tests can run against a private copy of the host file system.
#pragma once

#include <string>
#include <string_view>

namespace bootstrand {

// Returns `path` prefixed with the host root. Relative paths and device nodes
// ("/dev/...") are returned unchanged; with BOOTSTRAND_ROOT unset or "/" every path
// is returned unchanged.
std::string HostPath(std::string_view path);

// True when `root` (a value of BOOTSTRAND_ROOT, null when unset) leaves host paths as
// they are: unset, empty, or nothing but slashes. That is a real host.
bool IsRealHostRoot(const char* root);

// Creates `directory` and its missing parents (like mkdir -p); returns false on failure.
bool MakeDirectories(const std::string& directory);

}  // namespace bootstrand
