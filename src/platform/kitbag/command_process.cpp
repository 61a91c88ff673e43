#include "platform/kitbag/command_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include "platform/signals.h"
#include "platform/stop_signals.h"
#include "platform/unique_fd.h"

extern char** environ;

namespace Kitbag::AutoCli {

namespace {

using Clock = std::int64_t;  // milliseconds on the monotonic clock

Clock Now() {
  timespec now {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return Clock{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Starts `executable` with standard output on `outputPipe` and standard error on
// `errorPipe`, as the leader of a new process group, so that a command that runs too
// long can be stopped with everything it started. vfork rather than fork: a worker is
// a copy of the scheduler, and copying its address space for every command would cost
// more than the command itself. The child shares this process's memory until it
// execs, so it only makes system calls, on values prepared here, and passes a failed
// exec's error back through `execError`.
pid_t StartChild(const char* executable, char* const* argv, int outputPipe, int errorPipe, int& execError) {
  const std::vector<int>& ignored = bootstrand::IgnoredSignals();
  volatile int error = 0;
  const pid_t child = vfork();
  if (child == 0) {
    bootstrand::RestoreDefaultSignals(ignored);
    setpgid(0, 0);
    // dup2 onto the standard streams also clears close-on-exec there.
    if (dup2(outputPipe, STDOUT_FILENO) == STDOUT_FILENO && dup2(errorPipe, STDERR_FILENO) == STDERR_FILENO) {
      execve(executable, argv, environ);
    }
    error = errno;
    _exit(127);
  }
  execError = child < 0 ? errno : error;
  return child;
}

// Reads what the pipe holds now and hands it to `take`. False at its end (no writer
// is left); true when it would have to wait.
template <typename Take>
bool ReadAvailable(int pipe, Take take) {
  char buffer[16384];
  for (;;) {
    const ssize_t count = read(pipe, buffer, sizeof buffer);
    if (count > 0) {
      take(std::string_view(buffer, static_cast<std::size_t>(count)));
    } else if (count == 0) {
      return false;
    } else if (errno != EINTR) {
      return errno == EAGAIN;
    }
  }
}

// The command's standard output goes on to this process's own (the plugin log). A
// log that cannot take it (a full or read-only disk) loses the text, never the
// command: written straight to the log, a command's own write would fail and often
// the command with it.
void CopyToOutput(std::string_view text) { bootstrand::WriteAll(STDOUT_FILENO, text.data(), text.size()); }

// Something the command started (a daemon) still holds one of its streams. Closing
// the pipe would kill it with SIGPIPE at its next message, and keeping the pipe
// unread would block it once the pipe is full; so a small process of its own reads
// the pipe until the last writer has gone, copying what it reads to this process's
// standard output when `copy` is true and throwing it away otherwise. It is a
// grandchild, left to init, so that nobody needs to reap it.
void DrainTheRest(bootstrand::UniqueFd pipe, bool copy) {
  const pid_t middle = fork();
  if (middle == 0) {
    if (fork() == 0) {
      setsid();
      prctl(PR_SET_NAME, "bootstrand-drain");
      bootstrand::RestoreDefaultSignals();
      if (dup2(pipe.Get(), STDIN_FILENO) == STDIN_FILENO) {
        syscall(SYS_close_range, copy ? 2U : 1U, ~0U, 0U);
        fcntl(STDIN_FILENO, F_SETFL, 0);
        char buffer[16384];
        for (;;) {
          const ssize_t count = read(STDIN_FILENO, buffer, sizeof buffer);
          if (count == 0 || (count < 0 && errno != EINTR)) break;
          if (count > 0 && copy) bootstrand::WriteAll(STDOUT_FILENO, buffer, static_cast<std::size_t>(count));
        }
      }
    }
    _exit(0);
  }
  if (middle > 0) {
    while (waitpid(middle, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
}

// A pipe for one of the command's streams: the read end, not blocking, is this
// process's; the write end is the command's.
struct StreamPipe {
  bootstrand::UniqueFd readEnd, writeEnd;
  bool reading = true;

  StreamPipe(const char* what, const std::string& executable) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      throw std::runtime_error(std::string("cannot create a pipe for the ") + what + " of " + executable + ": " +
                               strerror(errno));
    }
    readEnd = bootstrand::UniqueFd(ends[0]);
    writeEnd = bootstrand::UniqueFd(ends[1]);
    fcntl(readEnd.Get(), F_SETFL, O_NONBLOCK);
  }
};

// Stops a command that ran past its bound: SIGTERM to its group at once, SIGKILL to
// what is left of the group kSecondsToKill later.
class Bound {
 public:
  Bound(pid_t group, unsigned seconds)
      : group_(group), deadline_(seconds > 0 ? Now() + Clock{seconds} * 1000 : -1) {}

  // Milliseconds until the next step is due, -1 for none.
  int Wait() const {
    return deadline_ < 0 ? -1 : static_cast<int>(std::clamp<Clock>(deadline_ - Now(), 0, 1 << 30));
  }

  // Takes the step that is due, if one is.
  void Step() {
    if (deadline_ < 0 || Now() < deadline_) return;
    if (!terminated_) {
      kill(-group_, SIGTERM);
      terminated_ = true;
      deadline_ = Now() + Clock{kSecondsToKill} * 1000;
    } else {
      kill(-group_, SIGKILL);
      deadline_ = -1;
    }
  }

  // The boot is being stopped: the same steps, the first one now.
  void Expire() {
    if (!terminated_) deadline_ = Now();
  }

  bool Terminated() const { return terminated_; }

  // After the leader has gone: the rest of its group gets until the kill to end.
  void Finish() {
    while (terminated_ && deadline_ >= 0 && kill(-group_, 0) == 0) {
      usleep(20000);
      Step();
    }
  }

 private:
  pid_t group_;
  Clock deadline_;
  bool terminated_ = false;
};

}  // namespace

CommandProcessResult RunCommandProcess(const std::string& executable, const std::vector<std::string>& arguments,
                                       CommandErrors& errors, unsigned timeoutSeconds) {
  if (bootstrand::StopSignal() != 0) throw std::runtime_error("not started: the boot is being stopped");
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(executable.c_str()));
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  // Both output streams are pipes read while the command runs: standard error so that
  // what it writes costs a bounded buffer here, never memory that grows with its
  // output; standard output so that a log that cannot be written never fails it.
  StreamPipe output("output", executable), error("errors", executable);
  auto takeErrors = [&errors](std::string_view text) { errors.Add(text); };

  // Text still buffered here would otherwise reach the output after the command's.
  std::cout.flush();
  std::clog.flush();
  std::fflush(nullptr);

  int execError = 0;
  const pid_t child =
      StartChild(executable.c_str(), argv.data(), output.writeEnd.Get(), error.writeEnd.Get(), execError);
  output.writeEnd.Reset();
  error.writeEnd.Reset();
  if (child < 0) throw std::runtime_error("cannot fork for " + executable + ": " + strerror(execError));
  CommandProcessResult result;
  if (execError != 0) {
    // The command could not be executed: report it as the command itself would.
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    result.waitStatus = 127 << 8;
    result.execError = execError;
    errors.Add("cannot execute " + executable + ": " + strerror(execError) + "\n");
    return result;
  }

  // The command's end is seen on a process descriptor, polled with its output
  // streams; a kernel without them is asked every few milliseconds instead. A stream
  // whose last writer has gone is no longer polled.
  bootstrand::UniqueFd ended(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
  Bound bound(child, timeoutSeconds);
  for (;;) {
    pollfd watched[3] = {{ended.Get(), POLLIN, 0}, {error.readEnd.Get(), POLLIN, 0}, {output.readEnd.Get(), POLLIN, 0}};
    if (!error.reading) watched[1].fd = -1;
    if (!output.reading) watched[2].fd = -1;
    if (bootstrand::StopSignal() != 0) bound.Expire();
    int wait = bound.Wait();
    if (!ended.Valid() && (wait < 0 || wait > 20)) wait = 20;
    timespec timeout {wait / 1000, (wait % 1000) * 1000000L};
    const int ready = ppoll(watched, 3, wait < 0 ? nullptr : &timeout, bootstrand::WaitMask());
    if (ready < 0 && errno != EINTR) throw std::runtime_error("cannot wait for " + executable + ": " + strerror(errno));
    if (error.reading && watched[1].revents != 0) error.reading = ReadAvailable(error.readEnd.Get(), takeErrors);
    if (output.reading && watched[2].revents != 0) output.reading = ReadAvailable(output.readEnd.Get(), CopyToOutput);
    const pid_t reaped = waitpid(child, &result.waitStatus, WNOHANG);
    if (reaped == child) break;
    if (reaped < 0 && errno != EINTR) throw std::runtime_error("cannot wait for " + executable + ": " + strerror(errno));
    bound.Step();
  }
  if (bound.Terminated() && bootstrand::StopSignal() != 0) {
    result.stopped = true;
  } else if (bound.Terminated()) {
    result.timedOut = timeoutSeconds;
  }
  bound.Finish();
  // What the command wrote just before it ended is in the pipes still.
  if (output.reading && ReadAvailable(output.readEnd.Get(), CopyToOutput)) DrainTheRest(std::move(output.readEnd), true);
  if (error.reading && ReadAvailable(error.readEnd.Get(), takeErrors)) DrainTheRest(std::move(error.readEnd), false);
  return result;
}

}  // namespace Kitbag::AutoCli
