// The boot step's state file "/var/lib/bootstrand/run-once": the run-once keys of
// the plugins that activated in earlier boots, one per line. An operator removes a
// line to make that plugin run again. The file is read without ever blocking and
// replaced whole, so that a power cut leaves either the old list or the new one.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace bootstrand::boot_step {

// The keys of the file at `path`, in file order; none when it is absent. Throws
// std::runtime_error, with the reason, when it cannot be read or is not a regular
// file (a named pipe, a device, a folder).
std::vector<std::string> ReadRunOnceState(const std::string& path);

// Replaces the file at `path` with `keys`: written to a temporary file beside it,
// flushed to the disk, renamed over it, and the folder flushed too. Makes the folder
// when it is missing; removes the temporaries that earlier writes cut short left. Throws std::runtime_error, with the reason, on failure; the
// old file is then left as it was.
void WriteRunOnceState(const std::string& path, const std::vector<std::string>& keys);

}  // namespace bootstrand::boot_step
