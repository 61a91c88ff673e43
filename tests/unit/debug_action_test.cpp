// Drives the operator prompt through a real pseudo-terminal: the prompt runs in a
// forked child whose standard streams are the terminal, the test types keys on the
// other side and reads back every byte the child wrote.
#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "support/read_until.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

const std::string kHideCursor = "\x1b[?25l";
const std::string kPrompt =
    "\x1b[36mnet\x1b[0m: \x1b[35m(c)ontinue\x1b[0m \x1b[32m(e)xecute\x1b[0m \x1b[33m(t)roubleshoot\x1b[0m "
    "\x1b[31m(s)kip\x1b[0m" + kHideCursor;

// The redrawn line when `chosen` was answered.
std::string Redrawn(char chosen) {
  auto choice = [chosen](char key, const char* color, const char* text) {
    return std::string(key == chosen ? color : "\x1b[37m") + text + "\x1b[0m";
  };
  return "\r\x1b[36mnet\x1b[0m: " + choice('c', "\x1b[35m", "(c)ontinue") + " " +
         choice('e', "\x1b[32m", "(e)xecute") + " " + choice('t', "\x1b[33m", "(t)roubleshoot") + " " +
         choice('s', "\x1b[31m", "(s)kip") + "\x1b[?25h\n";
}

struct Prompted {
  std::string output;  // every byte the child wrote
  struct {
    ActivateFlags bits = 0xFFFFFFFF;
    std::uint32_t lineMode = 0;  // standard input was left with canonical input and echo on
  } report;
};

// Runs the prompt for "net" in a forked child on a fresh pseudo-terminal and types
// `keys` once it waits for them (the prompt hides the cursor only after it has
// switched the terminal to key-at-a-time mode). The terminal starts in line mode with
// echo, as a terminal starts, or (`keyMode`) in key-at-a-time mode without echo, so
// that restoring line mode is visible; output post-processing is off so that the test
// sees the program's bytes unchanged. End of input is left to the end-to-end tests.
Prompted Prompt(const std::string& keys, bool keyMode = false) {
  Prompted result;
  int report[2], terminal = -1;
  if (pipe2(report, O_CLOEXEC) != 0) std::abort();
  std::fflush(nullptr);
  pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    termios attributes {};
    tcgetattr(STDIN_FILENO, &attributes);
    attributes.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    if (keyMode) attributes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    tcsetattr(STDIN_FILENO, TCSANOW, &attributes);
    // The console is this terminal, never the machine's own. Signals as the scheduler
    // has them: SIGPIPE ignored; and one blocked for good measure.
    setenv("BOOTSTRAND_CONSOLE", ttyname(STDIN_FILENO), 1);
    signal(SIGPIPE, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    result.report.bits = Plugin::DebugAction("net");
    if (tcgetattr(STDIN_FILENO, &attributes) == 0) {
      result.report.lineMode = (attributes.c_lflag & (ICANON | ECHO)) == (ICANON | ECHO);
    }
    _exit(write(report[1], &result.report, sizeof result.report) == sizeof result.report ? 0 : 2);
  }
  close(report[1]);
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  bool ended = ReadUntil(terminal, result.output, deadline, [](const std::string& so_far) {
    return so_far.find(kHideCursor) != std::string::npos;
  }) && write(terminal, keys.data(), keys.size()) == std::ssize(keys) && ReadToEnd(terminal, result.output, deadline);
  EXPECT_TRUE(ended) << "the prompt did not end; output so far: " << ::testing::PrintToString(result.output);
  if (!ended) kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
  if (read(report[0], &result.report, sizeof result.report) != sizeof result.report) ADD_FAILURE() << "no report";
  close(report[0]);
  close(terminal);
  return result;
}

TEST(DebugAction, EachAnswerReturnsItsBitsAndRedrawsTheLineWithIt) {
  const std::tuple<const char*, char, ActivateFlags> cases[] = {
      {"x\r12s", 's', 0x0A},  // keys other than the four answers leave no trace: no echo, no redraw
      {"C", 'c', 0x00}, {"e", 'e', 0x02}, {"qS", 's', 0x0A},
      {"ec", 'e', 0x02},  // the first answer wins
  };
  for (const auto& [keys, answer, bits] : cases) {
    Prompted prompt = Prompt(keys);
    EXPECT_EQ(prompt.output, kPrompt + Redrawn(answer)) << keys;
    EXPECT_EQ(prompt.report.bits, bits) << keys;
    EXPECT_EQ(prompt.report.lineMode, 1u) << keys;
  }
}

TEST(DebugAction, TroubleshootRunsAShellWithDefaultSignalsThenErasesTheLine) {
  // Typed ahead in one go: the prompt takes its answer only and leaves the rest to the
  // shell. The shell computes the marker, so seeing it proves a shell ran; what it
  // starts must see no ignored and no blocked signal.
  Prompted prompt = Prompt("techo marker-$((40+2)); grep -E '^Sig(Blk|Ign)' /proc/self/status\nexit\n", true);
  const std::string& output = prompt.output;
  ASSERT_EQ(output.substr(0, kPrompt.size() + Redrawn('t').size()), kPrompt + Redrawn('t'));
  std::size_t marker = output.find("marker-42");
  ASSERT_NE(marker, std::string::npos) << ::testing::PrintToString(output);
  EXPECT_NE(output.find("SigBlk:\t0000000000000000"), std::string::npos) << ::testing::PrintToString(output);
  EXPECT_NE(output.find("SigIgn:\t0000000000000000"), std::string::npos) << ::testing::PrintToString(output);
  // The erase comes after the shell, as the last thing written.
  EXPECT_EQ(output.find("\x1b[2K"), output.size() - 4);
  EXPECT_LT(marker, output.size() - 4);
  EXPECT_EQ(prompt.report.bits, 0x02u);
  EXPECT_EQ(prompt.report.lineMode, 1u);
}

}  // namespace
}  // namespace bootstrand::testing
