// Runs one program as the boot step's child and waits for it. A stop of the unit
// (SIGTERM to every process of it), Ctrl-C or Ctrl-\ (SIGINT, SIGQUIT) or a hang-up
// of the console (SIGHUP) reaching the step is passed on to the child, and the step
// keeps waiting, so that the child ends on its own terms (bootstrand stops, or goes on
// after a hang-up) and the step still gets to record what it did.
#pragma once

#include <string>
#include <vector>

namespace bootstrand::boot_step {

// The child's exit status; 128 + the signal when a signal ended it; 127 when the
// program is missing and 126 when it cannot be run, after a line on standard error.
int RunChildProgram(const std::string& program, const std::vector<std::string>& arguments);

}  // namespace bootstrand::boot_step
