#include "platform/kitbag/command_process.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include "platform/signals.h"
#include "platform/unique_fd.h"

extern char** environ;

namespace Kitbag::AutoCli {

namespace {

// Everything written to `file` so far, from its start.
std::string ReadWritten(int file) {
  std::string text;
  char buffer[4096];
  for (off_t offset = 0;;) {
    const ssize_t count = pread(file, buffer, sizeof buffer, offset);
    if (count > 0) {
      text.append(buffer, static_cast<std::size_t>(count));
      offset += count;
    } else if (count == 0 || errno != EINTR) {
      return text;
    }
  }
}

// Starts `executable` with standard error on `errorFile`. vfork rather than fork: a
// worker is a copy of the scheduler, and copying its address space for every command
// would cost more than the command itself. The child shares this process's memory
// until it execs, so it only makes system calls, on values prepared here, and passes a
// failed exec's error back through `execError`.
pid_t StartChild(const char* executable, char* const* argv, int errorFile, int& execError) {
  const std::vector<int>& ignored = bootstrand::IgnoredSignals();
  volatile int error = 0;
  const pid_t child = vfork();
  if (child == 0) {
    bootstrand::RestoreDefaultSignals(ignored);
    // dup2 onto standard error also clears close-on-exec there.
    if (dup2(errorFile, STDERR_FILENO) == STDERR_FILENO) execve(executable, argv, environ);
    error = errno;
    _exit(127);
  }
  execError = child < 0 ? errno : error;
  return child;
}

}  // namespace

CommandProcessResult RunCommandProcess(const std::string& executable, const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(executable.c_str()));
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  // Standard error goes to an anonymous file rather than a pipe. A command may leave
  // a daemon behind that keeps the descriptor: with a pipe, reading to its end would
  // wait for that daemon, and closing the read end early would kill it with SIGPIPE at
  // its next message. The file never blocks a writer and is read once the command
  // itself has ended.
  bootstrand::UniqueFd errorFile(memfd_create("command-stderr", MFD_CLOEXEC));
  if (!errorFile.Valid()) {
    throw std::runtime_error("cannot create a file for the errors of " + executable + ": " + strerror(errno));
  }

  // Text still buffered here would otherwise reach the output after the command's.
  std::cout.flush();
  std::clog.flush();
  std::fflush(nullptr);

  int execError = 0;
  const pid_t child = StartChild(executable.c_str(), argv.data(), errorFile.Get(), execError);
  if (child < 0) throw std::runtime_error("cannot fork for " + executable + ": " + strerror(execError));
  if (execError != 0) {
    // The command could not be executed: report it as the command itself would.
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    CommandProcessResult result;
    result.waitStatus = 127 << 8;
    result.errorOutput = "cannot execute " + executable + ": " + strerror(execError) + "\n";
    result.execError = execError;
    return result;
  }

  CommandProcessResult result;
  while (waitpid(child, &result.waitStatus, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error("cannot wait for " + executable + ": " + strerror(errno));
  }
  result.errorOutput = ReadWritten(errorFile.Get());
  return result;
}

}  // namespace Kitbag::AutoCli
