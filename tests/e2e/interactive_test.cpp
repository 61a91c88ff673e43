// Interactive activation through a real pseudo-terminal: the operator skips the
// first plugin, lets the second run and is asked no more.
#include <gtest/gtest.h>

#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "support/host_root.h"
#include "support/read_until.h"

namespace bootstrand::testing {
namespace {

// Reads from the terminal until `text` has appeared after `from`.
bool ReadUntilText(int terminal, std::string& output, const std::string& text, std::size_t from = 0) {
  ReadUntil(terminal, output, Clock::now() + std::chrono::seconds(20),
            [&](const std::string& so_far) { return so_far.find(text, from) != std::string::npos; });
  return output.find(text, from) != std::string::npos;
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
    setenv("BOOTSTRAND_CONSOLE", "/dev/null", 1);
    execl(BOOTSTRAND_BINARY, BOOTSTRAND_BINARY, "--interactive", "--plugin", "a.json,b.json", nullptr);
    _exit(127);
  }
  std::string output;
  bool prompted = ReadUntilText(terminal, output, "\x1b[36ma\x1b[0m: ");
  prompted = prompted && ReadUntilText(terminal, output, "\x1b[?25l");
  if (prompted) prompted = write(terminal, "s", 1) == 1;
  std::size_t afterFirst = output.size();
  prompted = prompted && ReadUntilText(terminal, output, "\x1b[36mb\x1b[0m: ", afterFirst);
  prompted = prompted && ReadUntilText(terminal, output, "\x1b[?25l", afterFirst);
  if (prompted) prompted = write(terminal, "c", 1) == 1;
  ReadToEnd(terminal, output, Clock::now() + std::chrono::seconds(20));
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
