// Interactive activation through a real pseudo-terminal: the operator skips the
// first plugin, lets the second run and is asked no more.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>

#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

using Clock = std::chrono::steady_clock;

// Reads from the terminal until `text` has appeared after `from`; false on timeout or
// end of output.
bool ReadUntil(int terminal, std::string& output, const std::string& text, std::size_t from = 0) {
  auto deadline = Clock::now() + std::chrono::seconds(20);
  while (output.find(text, from) == std::string::npos) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd entry{terminal, POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(left)) <= 0) continue;
    char buffer[1024];
    ssize_t count = read(terminal, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    output.append(buffer, static_cast<std::size_t>(count));
  }
  return true;
}

TEST(Interactive, TheOperatorSkipsOnePluginThenContinues) {
  HostRoot root;
  root.WriteCommand("mark", "echo \"$*\" >> \"$BOOTSTRAND_ROOT/order.log\"");
  root.WritePlugin("a.json", JsonPlugin({"a"}, {}, {"mark --name a"}));
  root.WritePlugin("b.json", JsonPlugin({"b"}, {"a"}, {"mark --name b"}));

  int terminal = -1;
  pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  ASSERT_GE(child, 0);
  if (child == 0) {
    setenv("BOOTSTRAND_ROOT", root.Root().c_str(), 1);
    setenv("BOOTSTRAND_MAIN_MEMORY", "17179869184", 1);
    execl(BOOTSTRAND_BINARY, BOOTSTRAND_BINARY, "--interactive", "--plugin", "a.json,b.json", nullptr);
    _exit(127);
  }
  std::string output;
  bool prompted = ReadUntil(terminal, output, "\x1b[36ma\x1b[0m: ");
  prompted = prompted && ReadUntil(terminal, output, "\x1b[?25l");
  if (prompted) prompted = write(terminal, "s", 1) == 1;
  std::size_t afterFirst = output.size();
  prompted = prompted && ReadUntil(terminal, output, "\x1b[36mb\x1b[0m: ", afterFirst);
  prompted = prompted && ReadUntil(terminal, output, "\x1b[?25l", afterFirst);
  if (prompted) prompted = write(terminal, "c", 1) == 1;
  ReadUntil(terminal, output, "no such text: read to the end");
  if (!prompted) kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  close(terminal);
  ASSERT_TRUE(prompted) << output;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

  // a was passed over by the worker layer, then finished as a success; b ran.
  EXPECT_EQ(root.Lines("/order.log"), std::vector<std::string>{"--name=b"});
  std::vector<std::string> kernel = root.Channel("kernel");
  int skipped = IndexOf(kernel, "Bootstrand plugin a skipped.");
  int finished = IndexOf(kernel, "Bootstrand plugin a activated.");
  EXPECT_GE(skipped, 0);
  EXPECT_GT(finished, skipped);
  EXPECT_GE(IndexOf(kernel, "Bootstrand plugin b activated."), 0);
  EXPECT_EQ(output.find("\x1b[36mend-autoconf"), std::string::npos);  // not a plugin here
}

}  // namespace
}  // namespace bootstrand::testing
