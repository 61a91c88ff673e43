// The four message channels: boot status text, system alert, boot progress text and
// kernel log. Each is a process-wide output stream created on first use; one flush
// delivers one message. Forked workers inherit them.
#pragma once

#include <ostream>

namespace bootstrand {

std::ostream& StatusLog();
std::ostream& AlertLog();
std::ostream& ProgressLog();
std::ostream& KernelLog();

// Stops all delivery on the four channels for the rest of the process (--quiet).
void DeactivateKernelLog();
bool KernelLogDeactivated();

}  // namespace bootstrand
