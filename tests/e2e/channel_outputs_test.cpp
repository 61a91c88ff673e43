// The outputs of the message channels that BOOTSTRAND_CHANNELS chooses, and the
// interactive prompt on a console that is a pseudo-terminal. Every run names its
// outputs inside its root: nothing reaches the machine's console, kernel log or syslog.
#include <gtest/gtest.h>

#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

#include "support/host_root.h"
#include "support/read_until.h"

namespace bootstrand::testing {
namespace {

const char* const kPlainConsole =
    "Activating Bootstrand Plugins: \n"
    "[0/2] activating: a\n"
    "[1/2] activating: b-fails-with-a-long-name\n"
    "Bootstrand plugin b-fails-with-a-long-name activation failed.\n"
    "All bootstrand plugins activated\n";

// Plugin a succeeds; b-fails-with-a-long-name requires a and fails: one alert. One
// worker and no built-in plugin make every run the same (an empty argument is
// ignored). Plain files in the root serve as console and kernel log.
class ChannelOutputs : public ::testing::Test {
 protected:
  void SetUp() override {
    root.WriteCommand("broken", "exit 1");
    root.WritePlugins({{"a", {"a"}, {}, {"mark"}}, {"b-fails-with-a-long-name", {"b"}, {"a"}, {"broken"}}});
    for (const char* file : {"/console.txt", "/kmsg"}) root.WriteFile(file, "");
  }

  RunResult Boot(const std::map<std::string, std::string>& environment, const std::string& extra = "") {
    return RunBootstrand(root, {"--max-workers", "1", "--plugin", "a.json,b-fails-with-a-long-name.json", extra},
                         environment);
  }

  std::map<std::string, Lines> Sinks() const {
    std::map<std::string, Lines> sinks;
    for (const char* channel : {"status", "alert", "progress", "kernel"}) sinks[channel] = root.Channel(channel);
    std::filesystem::remove_all(root.Path("/var/run/trove"));
    return sinks;
  }

  HostRoot root;
  const std::string console = root.Path("/console.txt"), kmsg = root.Path("/kmsg");
};

// A root under another folder defaults to the sink files only; the console output's
// default device is then BOOTSTRAND_CONSOLE's, a file here, which must stay empty.
// With a terminal of 24 columns listed as console, the sink files are written as
// without it and the live line is cut to 23 characters, so that it never wraps.
TEST_F(ChannelOutputs, TheConsoleShowsALiveLineOnATerminal) {
  std::map<std::string, Lines> sinks;
  for (const std::string& prefix : {root.Root() + "//", root.Root()}) {
    RunResult run = Boot({{"BOOTSTRAND_ROOT", prefix}, {"BOOTSTRAND_CONSOLE", console}});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(run.err + root.ReadFile("/console.txt"), "");
    sinks = Sinks();
    EXPECT_EQ(sinks["progress"], (Lines{"Activating Bootstrand Plugins: ", "All bootstrand plugins activated"}));
  }
  int terminal = -1, device = -1;
  winsize size{24, 24, 0, 0};
  ASSERT_EQ(openpty(&terminal, &device, nullptr, nullptr, &size), 0);
  termios attributes{};
  tcgetattr(device, &attributes);
  cfmakeraw(&attributes);  // every byte as the program wrote it
  tcsetattr(device, TCSANOW, &attributes);
  RunResult run = Boot({{"BOOTSTRAND_CHANNELS", std::string("files,console=") + ttyname(device)}});
  close(device);
  std::string shown;
  ReadToEnd(terminal, shown, Clock::now() + std::chrono::seconds(10));
  close(terminal);
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(shown,
            "Activating Bootstrand Plugins: \r\n"
            "\r\x1b[K[0/2] activating: a"
            "\r\x1b[K[1/2] activating: b-fai"
            "\r\x1b[KBootstrand plugin b-fails-with-a-long-name activation failed.\r\n[1/2] activating: b-fai"
            "\r\x1b[K"
            "All bootstrand plugins activated\r\n");
  EXPECT_EQ(Sinks(), sinks);
}

// A console that cannot be opened is left out with one message; the kernel log takes
// the daemon facility: alerts at warning (4), kernel-channel lines at info (6). Unless
// the host's printk_devkmsg is "on", the kernel would drop records beyond its burst:
// the alert goes alone, and the kernel-channel lines are counted in one record at the
// end, which names the outputs that have them. With --quiet no output gets anything.
TEST_F(ChannelOutputs, KernelLogRecordsCarryThePriorityOfTheirChannel) {
  std::string missing = root.Path("/no/such/tty");
  const std::string alert = "<28>Pellam2: Bootstrand plugin b-fails-with-a-long-name activation failed.";
  const std::tuple<const char*, std::string, Lines> cases[] = {
      {"on\n", "kmsg=" + kmsg + ",console=" + missing,
       {"<30>Pellam2: Activating Bootstrand plugin a.", "<30>Pellam2: Applying start on plugin a",
        "<30>Pellam2: Bootstrand plugin a activated.",
        "<30>Pellam2: Activating Bootstrand plugin b-fails-with-a-long-name.",
        "<30>Pellam2: Applying start on plugin b-fails-with-a-long-name", alert}},
      {"ratelimit\n", "kmsg=" + kmsg + ",console=" + missing,
       {alert, "<30>Pellam2: 5 kernel-channel lines went nowhere: the kernel log takes them with printk.devkmsg=on"}},
      {nullptr, "files,kmsg=" + kmsg + ",console=" + missing,
       {alert, "<30>Pellam2: 5 kernel-channel lines went only to files (" + root.Path("/var/run/trove/system.log.log") +
                   "): the kernel log takes them with printk.devkmsg=on"}},
  };
  for (const auto& [setting, channels, records] : cases) {
    std::filesystem::remove_all(root.Path("/proc"));
    if (setting != nullptr) root.WriteFile("/proc/sys/kernel/printk_devkmsg", setting);
    root.WriteFile("/kmsg", "");
    RunResult run = Boot({{"BOOTSTRAND_CHANNELS", channels}});
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_EQ(run.err, "Channel output console=" + missing + " left out: No such file or directory\n");
    EXPECT_EQ(root.ReadLines("/kmsg"), records) << channels;
    EXPECT_EQ(root.Exists("/var/run/trove"), channels.starts_with("files,"));
    std::filesystem::remove_all(root.Path("/var/run/trove"));
  }
  root.WriteFile("/kmsg", "");
  RunResult run = Boot({{"BOOTSTRAND_CHANNELS", "files,console=" + console + ",kmsg=" + kmsg}}, "--quiet");
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.err + root.ReadFile("/console.txt") + root.ReadFile("/kmsg"), "");
  EXPECT_FALSE(root.Exists("/var/run/trove"));
}

// Each channel the console, a plain file, takes reports its sink once and goes on;
// the kernel channel, which reached nothing, fails as it does with the sink files alone.
TEST_F(ChannelOutputs, ASinkThatCannotBeWrittenLeavesTheOtherOutputsGoing) {
  root.WriteFile("/var/run/trove", "a file where the sink folder belongs");
  RunResult run = Boot({{"BOOTSTRAND_CHANNELS", "files,console=" + console}});
  EXPECT_EQ(run.exitStatus, 0);
  auto leftOut = [&](const std::string& node) {
    return "Channel output files (" + root.Path("/var/run/trove/" + node) + ".log) left out: Not a directory\n";
  };
  EXPECT_EQ(run.err, leftOut("system.progressTerm.progressText") + "Failed to set Trove node.\n" +
                         leftOut("system.progressTerm.statusText") + leftOut("system.sysAlert"));
  EXPECT_EQ(root.ReadFile("/console.txt"), kPlainConsole);
}

// Through a pseudo-terminal that is also the console, the operator skips the first
// plugin, executes the second, troubleshoots the third and lets the rest run without
// being asked again. At the third prompt keys other than the four answers leave no
// trace, a capital letter answers, and the keys typed after it in one go are left to
// the shell it starts; the shell computes the marker, so seeing it proves a shell
// ran. The boot runs with a signal blocked and ignores SIGPIPE: the shell must see
// neither, and the terminal is back in line mode at the end.
TEST(Interactive, TheOperatorSkipsExecutesTroubleshootsThenContinues) {
  HostRoot root;
  root.WritePlugins({{"a", {"a"}, {}, {"mark --name a"}}, {"b", {"b"}, {"a"}, {"mark --name b"}},
                     {"c-with-a-long-name", {"c"}, {"b"}, {"mark --name c"}}, {"d", {"d"}, {"c"}, {"mark --name d"}},
                     {"e", {"e"}, {"d"}, {"mark --name e"}}});
  int terminal = -1;
  pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  ASSERT_GE(child, 0);
  if (child == 0) {
    setenv("BOOTSTRAND_ROOT", root.Root().c_str(), 1);
    setenv("BOOTSTRAND_MAIN_MEMORY", "17179869184", 1);
    setenv("BOOTSTRAND_CONSOLE", "/dev/null", 1);
    setenv("BOOTSTRAND_CHANNELS", (std::string("files,console=") + ttyname(STDIN_FILENO)).c_str(), 1);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    execl(BOOTSTRAND_BINARY, BOOTSTRAND_BINARY, "--interactive", "--plugin",
          "a.json,b.json,c-with-a-long-name.json,d.json,e.json", nullptr);
    _exit(127);
  }
  // Each prompt ends by hiding the cursor until the key comes.
  const std::string kHideCursor = "\x1b[?25l";
  std::string output;
  std::vector<std::size_t> prompts;
  for (const std::string keys :
       {"s", "e", "x\r1Techo marker-$((40+2)); grep -E '^Sig(Blk|Ign)' /proc/self/status\nexit\n", "c"}) {
    std::size_t from = output.size();
    auto prompted = [&](const std::string& so_far) { return so_far.find(kHideCursor, from) != std::string::npos; };
    ReadUntil(terminal, output, Clock::now() + std::chrono::seconds(20), prompted);
    if (!prompted(output) || write(terminal, keys.data(), keys.size()) != std::ssize(keys)) break;
    prompts.push_back(output.find(kHideCursor, from));
  }
  ReadToEnd(terminal, output, Clock::now() + std::chrono::seconds(20));
  if (prompts.size() < 4) kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  termios attributes{};
  bool lineMode = tcgetattr(terminal, &attributes) == 0 && (attributes.c_lflag & ICANON) && (attributes.c_lflag & ECHO);
  close(terminal);
  ASSERT_EQ(prompts.size(), 4u) << output;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_TRUE(lineMode);

  // a was passed over by the worker layer, then finished as a success; the others ran,
  // e without a prompt.
  EXPECT_EQ(root.Marks(), (Lines{"--name=b", "--name=c", "--name=d", "--name=e"}));
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
  EXPECT_NE(output.find("[1/5] activating: b\r\x1b[K\x1b[36mc-with-a-long-name\x1b[0m: "), std::string::npos)
      << output;
  // Nothing of the ignored keys between the third prompt and its redrawn line; the
  // shell's output, then the line erased after it.
  EXPECT_EQ(output.substr(prompts[2] + kHideCursor.size(), 2), "\r\x1b") << output;
  std::size_t marker = output.find("marker-42", prompts[2]);
  ASSERT_NE(marker, std::string::npos) << output;
  EXPECT_NE(output.find("SigBlk:\t0000000000000000", marker), std::string::npos) << output;
  EXPECT_NE(output.find("SigIgn:\t0000000000000000", marker), std::string::npos) << output;
  EXPECT_LT(output.find("\x1b[2K", marker), prompts[3]) << output;
}

}  // namespace
}  // namespace bootstrand::testing
