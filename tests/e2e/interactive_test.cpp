// Interactive activation through a real pseudo-terminal that is also the console:
// the operator skips the first plugin, executes the second and lets the rest run
// without being asked again.
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

TEST(Interactive, TheOperatorSkipsExecutesThenContinues) {
  HostRoot root;
  root.WritePlugins({{"a", {"a"}, {}, {"mark --name a"}}, {"b", {"b"}, {"a"}, {"mark --name b"}},
                     {"c-with-a-long-name", {"c"}, {"b"}, {"mark --name c"}}, {"d", {"d"}, {"c"}, {"mark --name d"}}});
  int terminal = -1;
  pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  ASSERT_GE(child, 0);
  if (child == 0) {
    setenv("BOOTSTRAND_ROOT", root.Root().c_str(), 1);
    setenv("BOOTSTRAND_MAIN_MEMORY", "17179869184", 1);
    setenv("BOOTSTRAND_CONSOLE", "/dev/null", 1);
    setenv("BOOTSTRAND_CHANNELS", (std::string("files,console=") + ttyname(STDIN_FILENO)).c_str(), 1);
    execl(BOOTSTRAND_BINARY, BOOTSTRAND_BINARY, "--interactive", "--plugin",
          "a.json,b.json,c-with-a-long-name.json,d.json", nullptr);
    _exit(127);
  }
  // Each prompt ends by hiding the cursor until the key comes.
  const std::string kHideCursor = "\x1b[?25l";
  std::string output;
  std::vector<std::size_t> prompts;
  for (char key : std::string("sec")) {
    std::size_t from = output.size();
    auto prompted = [&](const std::string& so_far) { return so_far.find(kHideCursor, from) != std::string::npos; };
    ReadUntil(terminal, output, Clock::now() + std::chrono::seconds(20), prompted);
    if (!prompted(output) || write(terminal, &key, 1) != 1) break;
    prompts.push_back(output.find(kHideCursor, from));
  }
  ReadToEnd(terminal, output, Clock::now() + std::chrono::seconds(20));
  if (prompts.size() < 3) kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  close(terminal);
  ASSERT_EQ(prompts.size(), 3u) << output;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

  // a was passed over by the worker layer, then finished as a success; the others ran,
  // d without a prompt.
  EXPECT_EQ(root.Marks(), (Lines{"--name=b", "--name=c", "--name=d"}));
  Lines kernel = root.Channel("kernel");
  int skipped = IndexOf(kernel, "Bootstrand plugin a skipped.");
  EXPECT_GE(skipped, 0);
  EXPECT_GT(IndexOf(kernel, "Bootstrand plugin a activated."), skipped);
  EXPECT_EQ(output.find(kHideCursor, prompts.back() + 1), std::string::npos) << output;
  // The first prompt whole, and the line redrawn with the answer.
  EXPECT_NE(output.find("\x1b[36ma\x1b[0m: \x1b[35m(c)ontinue\x1b[0m \x1b[32m(e)xecute\x1b[0m "
                        "\x1b[33m(t)roubleshoot\x1b[0m \x1b[31m(s)kip\x1b[0m\x1b[?25l\r"
                        "\x1b[36ma\x1b[0m: \x1b[37m(c)ontinue\x1b[0m \x1b[37m(e)xecute\x1b[0m "
                        "\x1b[37m(t)roubleshoot\x1b[0m \x1b[31m(s)kip\x1b[0m\x1b[?25h\r\n"),
            std::string::npos)
      << output;
  // The prompt starts on a clean line of the console that shows the live line.
  EXPECT_NE(output.find("[1/4] activating: b\r\x1b[K\x1b[36mc-with-a-long-name\x1b[0m: "), std::string::npos)
      << output;
}

}  // namespace
}  // namespace bootstrand::testing
