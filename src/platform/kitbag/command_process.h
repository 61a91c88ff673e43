// Runs one command executable to completion for the dispatcher: spawned with no
// shell, in a process group of its own, with default signal dispositions and an empty
// signal mask, standard input and output inherited, standard error read as it comes.
// Blocking: it returns once the command's own process has exited and been reaped;
// whatever that process left running (a daemon) is neither waited for nor touched,
// unless the command ran past its bound.
#pragma once

#include <string>
#include <vector>

#include "platform/kitbag/command_errors.h"

namespace Kitbag::AutoCli {

struct CommandProcessResult {
  int waitStatus = 0;     // as returned by waitpid
  int execError = 0;      // why the executable could not be run; 0 when it ran
  unsigned timedOut = 0;  // the bound, in seconds, when the command was stopped for running past it
  bool stopped = false;   // stopped because this process was asked to stop (stop_signals.h)
};

// Runs `executable` with `arguments` (argv[0] is the executable path), handing what it
// writes to standard error to `errors`. With `timeoutSeconds` above 0, a command still
// running after that long gets SIGTERM, and SIGKILL kSecondsToKill later, both sent to
// its whole process group; the same happens at once when this process is asked to
// stop. Throws std::runtime_error, with the strerror text, when the pipe or the spawn
// fails, and without starting anything once this process has been asked to stop. A failed exec is reported as the child would: "cannot
// execute <path>: <reason>" on its standard error and exit status 127.
CommandProcessResult RunCommandProcess(const std::string& executable, const std::vector<std::string>& arguments,
                                       CommandErrors& errors, unsigned timeoutSeconds = 0);

// Between SIGTERM and SIGKILL when a command is stopped.
constexpr unsigned kSecondsToKill = 10;

}  // namespace Kitbag::AutoCli
