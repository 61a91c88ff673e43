// The operator prompt of interactive mode: one coloured line with four choices, one
// key read without Enter, the line redrawn with the answer, and optionally a shell on
// the console before the plugin runs. Runs in the scheduler process and blocks it.
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "interactive/console.h"
#include "log/color.h"
#include "platform/channel_outputs.h"
#include "platform/signals.h"
#include "plugin/plugin.h"

namespace bootstrand {

namespace {

struct Choice {
  char key;
  const char* text;
  int color;
  ActivateFlags bits;
};

// In the order they are shown.
constexpr Choice kChoices[] = {
    {'c', "(c)ontinue", 5, 0},
    {'e', "(e)xecute", 2, ActivateFlag::Interactive},
    {'t', "(t)roubleshoot", 3, ActivateFlag::Interactive},
    {'s', "(s)kip", 1, ActivateFlag::Skip | ActivateFlag::Interactive},
};

constexpr const char* kHideCursor = "\x1b[?25l";
constexpr const char* kShowCursor = "\x1b[?25h";
constexpr const char* kEraseLine = "\x1b[2K";
constexpr const char* kShell = "/bin/sh";

// Shows every choice; `chosen` (0 for none) in its own colour, the others in white.
void WriteChoices(const std::string& name, char chosen) {
  std::cout << Color{6} << name << Color{8} << ": ";
  bool first = true;
  for (const Choice& choice : kChoices) {
    if (!first) std::cout << ' ';
    first = false;
    int color = chosen == 0 || chosen == choice.key ? choice.color : 7;
    std::cout << Color{color} << choice.text << Color{8};
  }
}

// Waits for c, e, t or s. Keys are read one at a time straight from the terminal: a
// buffered read would take keys typed ahead for the troubleshooting shell and use them
// as later answers. End of input must not leave the scheduler spinning on a dead
// console, so it counts as "continue", which also ends prompting.
char ReadAnswer() {
  for (;;) {
    char key = 0;
    ssize_t count = read(STDIN_FILENO, &key, 1);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return 'c';
    char lower = static_cast<char>(std::tolower(static_cast<unsigned char>(key)));
    for (const Choice& choice : kChoices) {
      if (choice.key == lower) return lower;
    }
  }
}

void ReportFailure(const char* what, int error) {
  std::cerr << Color{1} << what << std::strerror(error) << Color{8} << std::endl;
}

[[noreturn]] void RunShell() {
  if (setsid() < 0) {
    ReportFailure("setsid failed: ", errno);
    _exit(1);
  }
  // The shell must not inherit the scheduler's pipes to its workers: a worker only
  // ends when its request pipe closes.
  long limit = sysconf(_SC_OPEN_MAX);
  if (limit > 3) {
    if (close_range(3, static_cast<unsigned int>(limit - 1), 0) != 0) {
      for (long fd = 3; fd < limit; ++fd) close(static_cast<int>(fd));
    }
  }
  ioctl(STDIN_FILENO, TIOCSCTTY, 1);
  // The scheduler ignores SIGPIPE; the operator's shell starts with the defaults.
  RestoreDefaultSignals();
  char* const arguments[] = {const_cast<char*>(kShell), nullptr};
  execv(kShell, arguments);
  int error = errno;
  std::cerr << Color{1} << "exec " << kShell << ": " << std::strerror(error) << Color{8} << std::endl;
  _exit(1);
}

void Troubleshoot() {
  // Whatever is still buffered would otherwise be written by both processes.
  std::cout.flush();
  std::fflush(stdout);
  pid_t child = fork();
  if (child < 0) {
    ReportFailure("fork failed: ", errno);
    return;
  }
  if (child == 0) RunShell();
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  std::cout << kEraseLine << std::flush;
}

}  // namespace

ActivateFlags Plugin::DebugAction(const std::string& name) {
  // The prompt starts where the cursor is; on a console that shows the live status
  // line, that would be at the end of it.
  ClearLiveConsoleLines();
  SwitchConsole(1);
  SetLineMode(false);
  WriteChoices(name, 0);
  std::cout << std::flush << kHideCursor << std::flush;

  char answer = ReadAnswer();

  std::cout << '\r';
  WriteChoices(name, answer);
  std::cout << kShowCursor << std::endl;
  SetLineMode(true);

  switch (answer) {
    case 't':
      Troubleshoot();
      break;
    case 'c':
      SwitchConsole(11);
      break;
    default:
      break;
  }
  for (const Choice& choice : kChoices) {
    if (choice.key == answer) return choice.bits;
  }
  return 0;
}

}  // namespace bootstrand
