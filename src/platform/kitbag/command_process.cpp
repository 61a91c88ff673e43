#include "platform/kitbag/command_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include "platform/unique_fd.h"

extern char** environ;

namespace Kitbag::AutoCli {

namespace {

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

  // posix_spawn rather than fork: a worker is a copy of the scheduler, and copying
  // its address space for every command would cost more than the command itself.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // dup2 onto standard error also clears close-on-exec there.
  posix_spawn_file_actions_adddup2(&actions, writeEnd.Get(), STDERR_FILENO);
  // Ignored dispositions survive exec, and the scheduler ignores SIGPIPE; a command
  // must see the defaults and no blocked signals.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t all;
  sigfillset(&all);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  pid_t child = -1;
  const int error = posix_spawn(&child, executable.c_str(), &actions, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    if (error == EAGAIN || error == ENOMEM) {
      throw std::runtime_error("cannot fork for " + executable + ": " + strerror(error));
    }
    // The command could not be executed: report it as the command itself would.
    CommandProcessResult result;
    result.waitStatus = 127 << 8;
    result.errorOutput = "cannot execute " + executable + ": " + strerror(error) + "\n";
    return result;
  }

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
