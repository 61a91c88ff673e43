// Runs one command executable to completion for the dispatcher: spawned with no
// shell, default signal dispositions and an empty signal mask, standard input and
// output inherited, standard error captured. Blocking: it returns once the command's
// own process has exited and been reaped; whatever that process left running (a
// daemon) is neither waited for nor touched.
#pragma once

#include <string>
#include <vector>

namespace Kitbag::AutoCli {

struct CommandProcessResult {
  int waitStatus = 0;       // as returned by waitpid
  std::string errorOutput;  // what its standard error held when it exited
  int execError = 0;        // why the executable could not be run; 0 when it ran
};

// Runs `executable` with `arguments` (argv[0] is the executable path). Throws
// std::runtime_error, with the strerror text, when the error file or the spawn fails. A
// failed exec is reported as the child would: "cannot execute <path>: <reason>" on
// its standard error and exit status 127.
CommandProcessResult RunCommandProcess(const std::string& executable, const std::vector<std::string>& arguments);

}  // namespace Kitbag::AutoCli
