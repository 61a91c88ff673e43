// Reading a small file whole, as plugin files are read: one open, one status query
// and as few reads as its size allows.
#pragma once

#include <optional>
#include <string>

namespace bootstrand {

// The contents of the file at `path` (already resolved under the host root), or
// nothing when it cannot be opened or read, or is a folder. A pipe, a device or a
// socket is never read, since that could block for good: std::runtime_error with
// "not a regular file".
std::optional<std::string> ReadWholeFile(const std::string& path);

}  // namespace bootstrand
