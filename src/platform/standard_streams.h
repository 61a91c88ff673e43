// The process's standard streams as the operating system sees them: making sure
// descriptors 0, 1 and 2 are open before anything else opens a file, moving an open
// file onto one of them, and writing a line that several processes share a stream
// for in one piece.
#pragma once

#include <string_view>

namespace bootstrand {

// Opens "/dev/null" on every one of descriptors 0, 1 and 2 that is closed, so that
// no file opened later lands on a standard stream by accident. Call it before the
// program opens anything.
void EnsureStandardStreams();

// Makes `target` (0, 1 or 2) refer to the open file of `fd` and closes `fd`, unless
// it is `target` itself. Either way `target` ends up without close-on-exec, so the
// programs this process starts inherit it. False when the duplication failed; `fd` is
// closed then too.
bool RedirectOnto(int fd, int target);

// Writes `line` and a newline to descriptor `fd` (1 or 2) with one write, after
// whatever the standard streams still buffer for it, so that a line never mixes with
// those of other processes writing to the same file.
void WriteLine(int fd, std::string_view line);

// The console device: "/dev/console", or the device that BOOTSTRAND_CONSOLE names
// (tests point it at a pseudo-terminal).
const char* ConsoleDevice();

}  // namespace bootstrand
