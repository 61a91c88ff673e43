// Drives the operator prompt through a real pseudo-terminal: the prompt runs in a
// forked child whose standard streams are the terminal, the test types keys on the
// other side and reads back every byte the child wrote.
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "support/read_until.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

const std::string kHideCursor = "\x1b[?25l";
const std::string kPrompt =
    "\x1b[36mnet\x1b[0m: \x1b[35m(c)ontinue\x1b[0m \x1b[32m(e)xecute\x1b[0m \x1b[33m(t)roubleshoot\x1b[0m "
    "\x1b[31m(s)kip\x1b[0m" + kHideCursor;

// The child's exit status carries the answer's bits (0x7F when they do not fit) and
// kLineMode when standard input was left with canonical input and echo on.
constexpr int kLineMode = 0x80;
struct Prompted {
  std::string output;  // every byte the child wrote
  int status = -1;     // -1: the child did not exit
};

// Runs the prompt for "net" in a forked child on a fresh pseudo-terminal and types
// `keys` once it waits for them (the prompt hides the cursor only after it has
// switched the terminal to key-at-a-time mode). The terminal starts in key-at-a-time
// mode without echo, so that the prompt's return to line mode is visible, and without
// output post-processing, so that the test sees the program's bytes unchanged. End of
// input is left to the end-to-end tests.
Prompted Prompt(const std::string& keys) {
  Prompted result;
  int terminal = -1;
  std::fflush(nullptr);
  pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    termios attributes {};
    tcgetattr(STDIN_FILENO, &attributes);
    attributes.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    attributes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    tcsetattr(STDIN_FILENO, TCSANOW, &attributes);
    // The console is this terminal, never the machine's own. Signals as the scheduler
    // has them: SIGPIPE ignored; and one blocked for good measure.
    setenv("BOOTSTRAND_CONSOLE", ttyname(STDIN_FILENO), 1);
    signal(SIGPIPE, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    const ActivateFlags bits = Plugin::DebugAction("net");
    const bool lineMode = tcgetattr(STDIN_FILENO, &attributes) == 0 && (attributes.c_lflag & ICANON) &&
                          (attributes.c_lflag & ECHO);
    _exit(static_cast<int>(std::min<ActivateFlags>(bits, 0x7F)) | (lineMode ? kLineMode : 0));
  }
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  bool ended = ReadUntil(terminal, result.output, deadline, [](const std::string& so_far) {
    return so_far.find(kHideCursor) != std::string::npos;
  }) && write(terminal, keys.data(), keys.size()) == std::ssize(keys) && ReadToEnd(terminal, result.output, deadline);
  EXPECT_TRUE(ended) << "the prompt did not end; output so far: " << ::testing::PrintToString(result.output);
  if (!ended) kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  close(terminal);
  return result;
}

// Keys other than the four answers leave no trace (no echo, no redraw), a capital
// letter answers too, and the first answer wins: the keys typed after it in one go
// are left to the shell it starts. The shell computes the marker, so seeing it proves
// a shell ran; what it starts must see no ignored and no blocked signal. The other
// answers are the end-to-end tests'.
TEST(DebugAction, TroubleshootRunsAShellWithDefaultSignalsThenErasesTheLine) {
  Prompted prompt = Prompt("x\r1Techo marker-$((40+2)); grep -E '^Sig(Blk|Ign)' /proc/self/status\nexit\n");
  const std::string& output = prompt.output;
  // The line redrawn with the answer in its colour and the others in grey.
  const std::string redrawn =
      "\r\x1b[36mnet\x1b[0m: \x1b[37m(c)ontinue\x1b[0m \x1b[37m(e)xecute\x1b[0m \x1b[33m(t)roubleshoot\x1b[0m "
      "\x1b[37m(s)kip\x1b[0m\x1b[?25h\n";
  ASSERT_EQ(output.substr(0, kPrompt.size() + redrawn.size()), kPrompt + redrawn);
  std::size_t marker = output.find("marker-42");
  ASSERT_NE(marker, std::string::npos) << ::testing::PrintToString(output);
  EXPECT_NE(output.find("SigBlk:\t0000000000000000"), std::string::npos) << ::testing::PrintToString(output);
  EXPECT_NE(output.find("SigIgn:\t0000000000000000"), std::string::npos) << ::testing::PrintToString(output);
  // The erase comes after the shell, as the last thing written.
  EXPECT_EQ(output.find("\x1b[2K"), output.size() - 4);
  EXPECT_LT(marker, output.size() - 4);
  EXPECT_EQ(prompt.status, 0x02 | kLineMode);
}

}  // namespace
}  // namespace bootstrand::testing
