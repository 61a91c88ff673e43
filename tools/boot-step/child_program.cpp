#include "boot-step/child_program.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/standard_streams.h"

namespace bootstrand::boot_step {

int RunChildProgram(const std::string& program, const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  // Blocked from before the fork, so none is lost between the fork and the wait;
  // they are taken one by one with sigwait instead of in handlers. They stay blocked
  // afterwards: a stop that comes as the child ends must not end the step before it
  // has recorded what the child did.
  sigset_t waited;
  sigemptyset(&waited);
  for (int signal : {SIGTERM, SIGINT, SIGQUIT, SIGHUP, SIGCHLD}) sigaddset(&waited, signal);
  sigprocmask(SIG_BLOCK, &waited, nullptr);

  pid_t child = fork();
  if (child < 0) {
    int error = errno;
    WriteLine(STDERR_FILENO, "bootstrand boot step: cannot run " + program + ": " + std::strerror(error));
    return 126;
  }
  if (child == 0) {
    sigprocmask(SIG_UNBLOCK, &waited, nullptr);
    execv(program.c_str(), argv.data());
    int error = errno;
    WriteLine(STDERR_FILENO, "bootstrand boot step: cannot run " + program + ": " + std::strerror(error));
    _exit(error == ENOENT ? 127 : 126);
  }

  int status = 0;
  for (;;) {
    pid_t done = waitpid(child, &status, WNOHANG);
    if (done == child) break;
    if (done < 0 && errno != EINTR) {
      status = 1 << 8;  // exit status 1: the child cannot be waited for
      break;
    }
    int signal = 0;
    if (sigwait(&waited, &signal) == 0 && signal != SIGCHLD) kill(child, signal);
  }
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return WEXITSTATUS(status);
}

}  // namespace bootstrand::boot_step
