// The outputs of the message channels that BOOTSTRAND_CHANNELS chooses, each boot in a
// temporary root: the console as a pseudo-terminal and as a plain file, kernel log
// records written to a plain file, --quiet, a console that cannot be opened, a sink
// that cannot be written, and the default for a root under another folder. Every run
// names its outputs with paths inside its root: nothing reaches the machine's console,
// kernel log or system log.
#include <gtest/gtest.h>

#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>

#include "support/host_root.h"
#include "support/read_until.h"

namespace bootstrand::testing {
namespace {

// Plugin a succeeds; b-fails-with-a-long-name requires a and fails: one alert. One
// worker and no built-in plugin make every run the same.
class ChannelOutputs : public ::testing::Test {
 protected:
  void SetUp() override {
    root.WriteCommand("ok", "exit 0");
    root.WriteCommand("broken", "exit 1");
    root.WritePlugin("a.json", JsonPlugin({"a"}, {}, {"ok"}));
    root.WritePlugin("b-fails-with-a-long-name.json", JsonPlugin({"b"}, {"a"}, {"broken"}));
  }

  RunResult Boot(const std::map<std::string, std::string>& environment, std::vector<std::string> extra = {}) {
    std::vector<std::string> arguments = {"--max-workers", "1", "--plugin", "a.json,b-fails-with-a-long-name.json"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return RunBootstrand(root, arguments, environment);
  }

  std::map<std::string, std::vector<std::string>> Sinks() const {
    std::map<std::string, std::vector<std::string>> sinks;
    for (const char* channel : {"status", "alert", "progress", "kernel"}) sinks[channel] = root.Channel(channel);
    return sinks;
  }

  // An empty plain file in the root, to serve as console or kernel log.
  std::string PlainFile(const std::string& name) const {
    root.WriteFile("/" + name, "");
    return root.Path("/" + name);
  }

  HostRoot root;
};

TEST_F(ChannelOutputs, TheConsoleShowsALiveLineOnATerminalAndPlainLinesInAFile) {
  struct Case {
    bool terminal;
    std::string expected;
  };
  const Case cases[] = {
      // 24 columns: the live line is cut to 23 characters, so that it never wraps.
      {true,
       "Activating Bootstrand Plugins: \r\n"
       "\r\x1b[K[0/2] activating: a"
       "\r\x1b[K[1/2] activating: b-fai"
       "\r\x1b[KBootstrand plugin b-fails-with-a-long-name activation failed.\r\n[1/2] activating: b-fai"
       "\r\x1b[K"
       "All bootstrand plugins activated\r\n"},
      {false,
       "Activating Bootstrand Plugins: \n"
       "[0/2] activating: a\n"
       "[1/2] activating: b-fails-with-a-long-name\n"
       "Bootstrand plugin b-fails-with-a-long-name activation failed.\n"
       "All bootstrand plugins activated\n"},
  };
  ASSERT_EQ(Boot({}).exitStatus, 0);
  auto sinksOfPlainBoot = Sinks();
  for (const Case& each : cases) {
    std::filesystem::remove_all(root.Path("/var/run/trove"));
    int terminal = -1, device = -1;
    winsize size{24, 24, 0, 0};
    std::string console;
    if (each.terminal) {
      ASSERT_EQ(openpty(&terminal, &device, nullptr, nullptr, &size), 0);
      termios attributes{};
      tcgetattr(device, &attributes);
      cfmakeraw(&attributes);  // every byte as the program wrote it
      tcsetattr(device, TCSANOW, &attributes);
      console = ttyname(device);
    } else {
      console = PlainFile("console.txt");
    }
    RunResult run = Boot({{"BOOTSTRAND_CHANNELS", "files,console=" + console}});
    std::string shown = each.terminal ? "" : root.ReadFile("/console.txt");
    if (each.terminal) {
      close(device);
      ReadToEnd(terminal, shown, Clock::now() + std::chrono::seconds(10));
      close(terminal);
    }
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(shown, each.expected) << (each.terminal ? "terminal" : "plain file");
    EXPECT_EQ(Sinks(), sinksOfPlainBoot) << "the sink files are written as without a console";
  }
}

TEST_F(ChannelOutputs, ThePromptStartsOnACleanLineOfTheConsoleThatShowsTheLiveLine) {
  int terminal = -1;
  pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  ASSERT_GE(child, 0);
  if (child == 0) {
    setenv("BOOTSTRAND_ROOT", root.Root().c_str(), 1);
    setenv("BOOTSTRAND_MAIN_MEMORY", "17179869184", 1);
    setenv("BOOTSTRAND_CONSOLE", "/dev/null", 1);
    setenv("BOOTSTRAND_CHANNELS", (std::string("console=") + ttyname(STDIN_FILENO)).c_str(), 1);
    execl(BOOTSTRAND_BINARY, BOOTSTRAND_BINARY, "--interactive", "--max-workers", "1", "--plugin",
          "a.json,b-fails-with-a-long-name.json", nullptr);
    _exit(127);
  }
  // Execute a, then continue with b, whose prompt comes while a's live line is shown.
  std::string output;
  for (const char* key : {"e", "c"}) {
    std::size_t from = output.size();
    ReadUntil(terminal, output, Clock::now() + std::chrono::seconds(20),
              [&](const std::string& so_far) { return so_far.find("\x1b[?25l", from) != std::string::npos; });
    if (write(terminal, key, 1) != 1) break;
  }
  ReadToEnd(terminal, output, Clock::now() + std::chrono::seconds(20));
  int status = 0;
  waitpid(child, &status, 0);
  close(terminal);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_NE(output.find("[0/2] activating: a\r\x1b[K\x1b[36mb-fails-with-a-long-name\x1b[0m: "), std::string::npos)
      << output;
}

TEST_F(ChannelOutputs, KernelLogRecordsCarryThePriorityOfTheirChannel) {
  std::string kmsg = PlainFile("kmsg");
  RunResult run = Boot({{"BOOTSTRAND_CHANNELS", "kmsg=" + kmsg}});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.err, "");
  // Daemon facility; alerts at warning (4), kernel-channel lines at info (6).
  EXPECT_EQ(root.Lines("/kmsg"), (std::vector<std::string>{
                                     "<30>Pellam2: Activating Bootstrand plugin a.",
                                     "<30>Pellam2: Applying start on plugin a",
                                     "<30>Pellam2: Bootstrand plugin a activated.",
                                     "<30>Pellam2: Activating Bootstrand plugin b-fails-with-a-long-name.",
                                     "<30>Pellam2: Applying start on plugin b-fails-with-a-long-name",
                                     "<28>Pellam2: Bootstrand plugin b-fails-with-a-long-name activation failed.",
                                 }));
  EXPECT_FALSE(root.Exists("/var/run/trove")) << "files was not listed";
}

TEST_F(ChannelOutputs, QuietSilencesEveryOutput) {
  std::string console = PlainFile("console.txt");
  std::string kmsg = PlainFile("kmsg");
  RunResult run = Boot({{"BOOTSTRAND_CHANNELS", "files,console=" + console + ",kmsg=" + kmsg}}, {"--quiet"});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(root.ReadFile("/console.txt") + root.ReadFile("/kmsg"), "");
  EXPECT_FALSE(root.Exists("/var/run/trove"));
}

TEST_F(ChannelOutputs, AConsoleThatCannotBeOpenedIsLeftOutWithOneMessage) {
  std::string missing = root.Path("/no/such/tty");
  RunResult run = Boot({{"BOOTSTRAND_CHANNELS", "files,console=" + missing}});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.err, "Channel output console=" + missing + " left out: No such file or directory\n");
  EXPECT_EQ(root.Channel("progress").back(), "All bootstrand plugins activated");
}

TEST_F(ChannelOutputs, ASinkThatCannotBeWrittenLeavesTheOtherOutputsGoing) {
  root.WriteFile("/var/run/trove", "a file where the sink folder belongs");
  std::string console = PlainFile("console.txt");
  RunResult run = Boot({{"BOOTSTRAND_CHANNELS", "files,console=" + console}});
  EXPECT_EQ(run.exitStatus, 0);
  // Each channel the console takes reports its sink once and goes on; the kernel
  // channel, which reached nothing, fails as it does with the sink files alone.
  for (const char* node : {"system.progressTerm.progressText", "system.progressTerm.statusText", "system.sysAlert"}) {
    std::string line = "Channel output files (" + root.Path("/var/run/trove/") + node + ".log) left out: Not a directory\n";
    std::size_t first = run.err.find(line);
    EXPECT_NE(first, std::string::npos) << line << run.err;
    EXPECT_EQ(run.err.find(line, first + 1), std::string::npos) << "reported twice: " << line;
  }
  EXPECT_NE(run.err.find("Failed to set Trove node.\n"), std::string::npos) << run.err;
  std::string shown = root.ReadFile("/console.txt");
  EXPECT_NE(shown.find("Bootstrand plugin b-fails-with-a-long-name activation failed.\n"), std::string::npos);
  EXPECT_TRUE(shown.ends_with("All bootstrand plugins activated\n")) << shown;
}

TEST_F(ChannelOutputs, ARootUnderAnotherFolderDefaultsToTheSinkFilesOnly) {
  // The console output's default device is BOOTSTRAND_CONSOLE's: a file here, which
  // must stay empty.
  std::string console = PlainFile("console.txt");
  for (const std::string& prefix : {root.Root(), root.Root() + "//"}) {
    RunResult run = Boot({{"BOOTSTRAND_ROOT", prefix}, {"BOOTSTRAND_CONSOLE", console}});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(root.Channel("progress").back(), "All bootstrand plugins activated");
    EXPECT_EQ(root.ReadFile("/console.txt"), "");
  }
}

}  // namespace
}  // namespace bootstrand::testing
