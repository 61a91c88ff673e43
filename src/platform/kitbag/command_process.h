// Runs one command executable to completion for the dispatcher: spawned with no
// shell, standard input and output inherited, standard error captured. Blocking: Run
// returns once the child has exited and been reaped.
#pragma once

#include <string>
#include <vector>

namespace Kitbag::AutoCli {

struct CommandProcessResult {
  int waitStatus = 0;       // as returned by waitpid
  std::string errorOutput;  // everything the child wrote to its standard error
};

// Runs `executable` with `arguments` (argv[0] is the executable path). Throws
// std::runtime_error, with the strerror text, when the pipe or the spawn fails. A
// failed exec is reported as the child would: "cannot execute <path>: <reason>" on
// its standard error and exit status 127.
CommandProcessResult RunCommandProcess(const std::string& executable, const std::vector<std::string>& arguments);

}  // namespace Kitbag::AutoCli
