#include "platform/kitbag/command_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include "platform/unique_fd.h"

namespace Kitbag::AutoCli {

namespace {

// Between fork and exec only async-signal-safe calls: the strings were built before
// the fork, and strerror is safe here because the process has one thread.
[[noreturn]] void ExecChild(int errorFd, const char* executable, char* const* argv) {
  if (errorFd == STDERR_FILENO) {
    // dup2 onto itself would leave close-on-exec set.
    fcntl(errorFd, F_SETFD, 0);
  } else {
    dup2(errorFd, STDERR_FILENO);
  }
  // Ignored dispositions survive exec, and the scheduler ignores SIGPIPE; a command
  // must see the defaults. Caught signals are reset by exec anyway.
  struct sigaction defaultAction {};
  defaultAction.sa_handler = SIG_DFL;
  sigemptyset(&defaultAction.sa_mask);
  for (int signal = 1; signal < NSIG; ++signal) {
    if (signal != SIGKILL && signal != SIGSTOP) sigaction(signal, &defaultAction, nullptr);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);

  execv(executable, argv);
  const char* reason = strerror(errno);
  const char* pieces[] = {"cannot execute ", executable, ": ", reason, "\n"};
  for (const char* piece : pieces) bootstrand::WriteAll(STDERR_FILENO, piece, strlen(piece));
  _exit(127);
}

std::string ReadToEnd(int fd) {
  std::string text;
  char buffer[4096];
  while (true) {
    const ssize_t count = read(fd, buffer, sizeof buffer);
    if (count > 0) {
      text.append(buffer, static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      return text;
    }
  }
}

}  // namespace

CommandProcessResult RunCommandProcess(const std::string& executable, const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(executable.c_str()));
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) {
    throw std::runtime_error("cannot create a pipe for " + executable + ": " + strerror(errno));
  }
  bootstrand::UniqueFd readEnd(pipeFds[0]);
  bootstrand::UniqueFd writeEnd(pipeFds[1]);

  // Text still buffered here would otherwise reach the output after the command's.
  std::cout.flush();
  std::clog.flush();
  std::fflush(nullptr);

  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("cannot fork for " + executable + ": " + strerror(errno));
  if (child == 0) ExecChild(writeEnd.Get(), executable.c_str(), argv.data());

  // The read below ends only when every write end is closed, ours included.
  writeEnd.Reset();
  CommandProcessResult result;
  result.errorOutput = ReadToEnd(readEnd.Get());
  // Should the read have failed, a child still writing gets SIGPIPE instead of
  // blocking the wait below for ever.
  readEnd.Reset();
  while (waitpid(child, &result.waitStatus, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error("cannot wait for " + executable + ": " + strerror(errno));
  }
  return result;
}

}  // namespace Kitbag::AutoCli
