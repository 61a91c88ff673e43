// Drives the operator prompt through a real pseudo-terminal: the prompt runs in a
// forked child whose standard streams are the terminal, the test types keys on the
// other side and reads back every byte the child wrote.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "plugin/plugin.h"
#include "support/read_until.h"

namespace bootstrand {
namespace {

using testing::Clock;
using testing::ReadUntil;

constexpr auto kPatience = std::chrono::seconds(10);

const std::string kPrompt =
    "\x1b[36mnet\x1b[0m: \x1b[35m(c)ontinue\x1b[0m \x1b[32m(e)xecute\x1b[0m \x1b[33m(t)roubleshoot\x1b[0m "
    "\x1b[31m(s)kip\x1b[0m\x1b[?25l";

// The redrawn line when `chosen` was answered.
std::string Redrawn(char chosen) {
  auto choice = [chosen](char key, const char* color, const char* text) {
    return std::string(key == chosen ? color : "\x1b[37m") + text + "\x1b[0m";
  };
  return "\r\x1b[36mnet\x1b[0m: " + choice('c', "\x1b[35m", "(c)ontinue") + " " +
         choice('e', "\x1b[32m", "(e)xecute") + " " + choice('t', "\x1b[33m", "(t)roubleshoot") + " " +
         choice('s', "\x1b[31m", "(s)kip") + "\x1b[?25h\n";
}

struct Report {
  ActivateFlags bits = 0xFFFFFFFF;
  // Standard input was left with canonical input and echo on.
  std::uint32_t lineMode = 0;
};

[[noreturn]] void PromptAndReport(int reportFd) {
  ActivateFlags bits = Plugin::DebugAction("net");
  termios attributes {};
  Report report{bits, 0};
  if (tcgetattr(STDIN_FILENO, &attributes) == 0) {
    report.lineMode = (attributes.c_lflag & (ICANON | ECHO)) == (ICANON | ECHO);
  }
  if (write(reportFd, &report, sizeof report) != sizeof report) _exit(2);
  _exit(0);
}

// A child running the prompt, seen from the test: its output so far and its report.
class PromptChild {
 public:
  ~PromptChild() {
    if (child_ > 0) {
      kill(child_, SIGKILL);
      waitpid(child_, nullptr, 0);
    }
    if (output_ >= 0) close(output_);
    if (report_ >= 0) close(report_);
  }

  // The prompt on a fresh terminal, in line mode with echo as a terminal starts, or
  // (`keyMode`) already in key-at-a-time mode without echo, so that restoring line
  // mode is visible. Output post-processing is off so that the test sees the
  // program's bytes unchanged.
  void StartOnTerminal(bool keyMode) {
    int reportPipe[2];
    ASSERT_EQ(pipe2(reportPipe, O_CLOEXEC), 0);
    std::fflush(nullptr);
    child_ = forkpty(&output_, nullptr, nullptr, nullptr);
    ASSERT_GE(child_, 0);
    if (child_ == 0) {
      termios attributes {};
      tcgetattr(STDIN_FILENO, &attributes);
      attributes.c_oflag &= ~static_cast<tcflag_t>(OPOST);
      if (keyMode) attributes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
      tcsetattr(STDIN_FILENO, TCSANOW, &attributes);
      // The terminal is the console here, never the machine's own. Signals as the
      // scheduler has them: SIGPIPE ignored; and one blocked for good measure.
      setenv("BOOTSTRAND_CONSOLE", ttyname(STDIN_FILENO), 1);
      signal(SIGPIPE, SIG_IGN);
      sigset_t blocked;
      sigemptyset(&blocked);
      sigaddset(&blocked, SIGUSR1);
      sigprocmask(SIG_BLOCK, &blocked, nullptr);
      PromptAndReport(reportPipe[1]);
    }
    close(reportPipe[1]);
    report_ = reportPipe[0];
  }

  // The prompt with standard input on the null device and output into a pipe.
  void StartWithoutInput() {
    int reportPipe[2];
    int outputPipe[2];
    ASSERT_EQ(pipe2(reportPipe, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(outputPipe, O_CLOEXEC), 0);
    std::fflush(nullptr);
    child_ = fork();
    ASSERT_GE(child_, 0);
    if (child_ == 0) {
      setenv("BOOTSTRAND_CONSOLE", "/dev/null", 1);
      int null = open("/dev/null", O_RDONLY);
      if (null < 0 || dup2(null, STDIN_FILENO) < 0 || dup2(outputPipe[1], STDOUT_FILENO) < 0) _exit(3);
      PromptAndReport(reportPipe[1]);
    }
    close(reportPipe[1]);
    close(outputPipe[1]);
    report_ = reportPipe[0];
    output_ = outputPipe[0];
  }

  // Waits until the output holds `text`; the prompt hides the cursor only after it
  // has switched the terminal to key-at-a-time mode, so typing is safe after that.
  void WaitFor(const std::string& text) {
    bool inTime = ReadUntil(output_, text_, Clock::now() + kPatience,
                            [&text](const std::string& output) { return output.find(text) != std::string::npos; });
    ASSERT_TRUE(inTime) << "timed out waiting for the output; so far: " << ::testing::PrintToString(text_);
    ASSERT_NE(text_.find(text), std::string::npos) << "output ended early: " << ::testing::PrintToString(text_);
  }

  void Type(const std::string& keys) {
    ASSERT_EQ(write(output_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }

  // Reads the rest of the output and the report, and reaps the child.
  void Finish() {
    bool inTime = testing::ReadToEnd(output_, text_, Clock::now() + kPatience);
    ASSERT_TRUE(inTime) << "the prompt did not end; output so far: " << ::testing::PrintToString(text_);
    ASSERT_EQ(read(report_, &report_value_, sizeof report_value_), static_cast<ssize_t>(sizeof report_value_));
    int status = 0;
    ASSERT_EQ(waitpid(child_, &status, 0), child_);
    child_ = -1;
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
  }

  const std::string& Output() const { return text_; }
  const Report& Result() const { return report_value_; }

 private:
  pid_t child_ = -1;
  int output_ = -1;
  int report_ = -1;
  std::string text_;
  Report report_value_;
};

struct AnswerCase {
  const char* label;
  std::string keys;
  char answer;
  ActivateFlags bits;
};

void PrintTo(const AnswerCase& answer, std::ostream* stream) { *stream << answer.label; }

class DebugActionAnswer : public ::testing::TestWithParam<AnswerCase> {};

TEST_P(DebugActionAnswer, ReturnsBitsAndRedrawsTheLineWithTheAnswer) {
  const AnswerCase& answer = GetParam();
  PromptChild prompt;
  ASSERT_NO_FATAL_FAILURE(prompt.StartOnTerminal(false));
  ASSERT_NO_FATAL_FAILURE(prompt.WaitFor("\x1b[?25l"));
  ASSERT_NO_FATAL_FAILURE(prompt.Type(answer.keys));
  ASSERT_NO_FATAL_FAILURE(prompt.Finish());

  // Keys other than the four answers leave no trace: no echo, no redraw.
  EXPECT_EQ(prompt.Output(), kPrompt + Redrawn(answer.answer));
  EXPECT_EQ(prompt.Result().bits, answer.bits);
  EXPECT_EQ(prompt.Result().lineMode, 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Keys, DebugActionAnswer,
    ::testing::Values(AnswerCase{"SkipAfterIgnoredKeys", "x\r12s", 's', 0x0A},
                    AnswerCase{"UpperCaseContinue", "C", 'c', 0x00},
                    AnswerCase{"Execute", "e", 'e', 0x02},
                    AnswerCase{"UpperCaseSkip", "qS", 's', 0x0A},
                    AnswerCase{"FirstAnswerWins", "ec", 'e', 0x02}),
    [](const ::testing::TestParamInfo<AnswerCase>& info) { return info.param.label; });

TEST(DebugAction, TroubleshootRunsAShellWithDefaultSignalsThenErasesTheLine) {
  PromptChild prompt;
  ASSERT_NO_FATAL_FAILURE(prompt.StartOnTerminal(true));
  ASSERT_NO_FATAL_FAILURE(prompt.WaitFor("\x1b[?25l"));
  // Typed ahead in one go: the prompt takes its answer only and leaves the rest to the
  // shell. The shell computes the marker, so seeing it proves a shell ran; what it
  // starts must see no ignored and no blocked signal.
  ASSERT_NO_FATAL_FAILURE(prompt.Type("techo marker-$((40+2)); grep -E '^Sig(Blk|Ign)' /proc/self/status\nexit\n"));
  ASSERT_NO_FATAL_FAILURE(prompt.Finish());

  const std::string& output = prompt.Output();
  ASSERT_EQ(output.substr(0, kPrompt.size() + Redrawn('t').size()), kPrompt + Redrawn('t'));
  std::size_t marker = output.find("marker-42");
  ASSERT_NE(marker, std::string::npos) << ::testing::PrintToString(output);
  EXPECT_NE(output.find("SigBlk:\t0000000000000000"), std::string::npos) << ::testing::PrintToString(output);
  EXPECT_NE(output.find("SigIgn:\t0000000000000000"), std::string::npos) << ::testing::PrintToString(output);
  std::size_t erase = output.find("\x1b[2K");
  ASSERT_NE(erase, std::string::npos);
  EXPECT_LT(marker, erase);
  EXPECT_EQ(output.substr(erase), "\x1b[2K") << "the erase must be the last thing written";
  EXPECT_EQ(prompt.Result().bits, 0x02u);
  EXPECT_EQ(prompt.Result().lineMode, 1u);
}

TEST(DebugAction, EndOfInputCountsAsContinue) {
  PromptChild prompt;
  ASSERT_NO_FATAL_FAILURE(prompt.StartWithoutInput());
  ASSERT_NO_FATAL_FAILURE(prompt.Finish());

  EXPECT_EQ(prompt.Output(), kPrompt + Redrawn('c'));
  EXPECT_EQ(prompt.Result().bits, 0x00u);
}

}  // namespace
}  // namespace bootstrand
