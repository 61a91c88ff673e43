// The message channels' buffer semantics, the choice of their outputs, Color, the
// timing log's formats and the redirection of the standard streams.
#include <gtest/gtest.h>

#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "log/channels.h"
#include "log/color.h"
#include "log/process_logging.h"
#include "log/profile.h"
#include "log/trove_buffer.h"
#include "platform/channel_outputs.h"
#include "platform/trove.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

std::vector<std::string> SinkLines(const ScopedRoot& root, const char* node) {
  std::vector<std::string> lines;
  std::ifstream sink(root.Path(std::string("/var/run/trove/") + node + ".log"));
  for (std::string line; std::getline(sink, line);) lines.push_back(line);
  return lines;
}

TEST(TroveBufferTest, OneFlushDeliversOneMessage) {
  ScopedRoot root;
  TroveBuffer kernelBuffer(Trove_NODE_system_log, false);
  std::ostream kernel(&kernelBuffer);
  TroveBuffer statusBuffer(Trove_NODE_system_progressTerm_statusText, true);
  std::ostream status(&statusBuffer);

  kernel << "two\nlines" << std::endl;
  kernel << "abc\rdef" << std::flush;
  kernel.flush();  // nothing written: an empty message
  kernel << "back\\slash" << std::endl;
  status << "\ractivating: a\nactivating: b\n" << std::flush;

  EXPECT_EQ(SinkLines(root, "system.log"), (std::vector<std::string>{"twolines", "def", "", "back\\\\slash"}));
  EXPECT_EQ(SinkLines(root, "system.progressTerm.statusText"),
            std::vector<std::string>{"activating: a\\nactivating: b\\n"});
}

TEST(TroveBufferTest, AFailedDeliveryReportsOnceAndSilencesThatChannel) {
  ScopedRoot root;
  TroveBuffer buffer(Trove_NODE_system_sysAlert, false);
  std::ostream alert(&buffer);
  setenv("BOOTSTRAND_TROVE_FAIL", "Set", 1);
  ::testing::internal::CaptureStderr();
  alert << "first" << std::endl;
  unsetenv("BOOTSTRAND_TROVE_FAIL");
  alert << "second" << std::endl;
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Failed to set Trove node.\n");
  EXPECT_TRUE(alert.bad());
  EXPECT_EQ(SinkLines(root, "system.sysAlert"), std::vector<std::string>{});

  TroveBuffer otherBuffer(Trove_NODE_system_sysAlert, false);
  std::ostream other(&otherBuffer);
  other << "third" << std::endl;
  EXPECT_EQ(SinkLines(root, "system.sysAlert"), std::vector<std::string>{"third"});
}

TEST(TroveBufferTest, EachListFailureHasItsOwnMessage) {
  ScopedRoot root;
  for (const auto& [operation, message] : std::vector<std::pair<std::string, std::string>>{
           {"ParamListCreate", "Failed to create Trove param list.\n"},
           {"ParamListAddString", "Failed to add Trove input string.\n"}}) {
    TroveBuffer buffer(Trove_NODE_system_log, false);
    std::ostream kernel(&buffer);
    setenv("BOOTSTRAND_TROVE_FAIL", operation.c_str(), 1);
    ::testing::internal::CaptureStderr();
    kernel << "lost" << std::endl;
    unsetenv("BOOTSTRAND_TROVE_FAIL");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), message);
  }
}

// A real host's default cannot be tried end to end without writing to the machine's
// console, kernel log and system log; building the list opens nothing.
TEST(ChannelOutputsTest, TheListAndItsDefaultsFollowTheVariableAndTheRoot) {
  unsetenv("BOOTSTRAND_CONSOLE");  // the console output's default device
  const std::vector<std::string> realHost = {"files", "console=/dev/console", "kmsg=/dev/kmsg", "syslog"};
  struct Case {
    const char* channels;
    const char* root;
    std::vector<std::string> entries;
    std::string errors;
  };
  const Case cases[] = {
      {nullptr, nullptr, realHost, ""},
      {"", "", realHost, ""},
      {" ", "//", realHost, ""},
      {nullptr, "/tmp/host", {"files"}, ""},
      {"", "/tmp/host/", {"files"}, ""},
      {" kmsg=/tmp/k , files,,files,kmsg=/tmp/k", nullptr, {"kmsg=/tmp/k", "files"}, ""},
      {"console,console=/dev/tty", "/tmp/host", {"console=/dev/console", "console=/dev/tty"}, ""},
      {"consle,console=,files=x,syslog", "/", {"syslog"},
       "BOOTSTRAND_CHANNELS: \"consle\" is not an output (files, console[=PATH], kmsg[=PATH], syslog); left out\n"
       "BOOTSTRAND_CHANNELS: \"console=\" is not an output (files, console[=PATH], kmsg[=PATH], syslog); left out\n"
       "BOOTSTRAND_CHANNELS: \"files=x\" is not an output (files, console[=PATH], kmsg[=PATH], syslog); left out\n"},
  };
  for (const Case& each : cases) {
    ::testing::internal::CaptureStderr();
    ChannelOutputs outputs(each.channels, each.root);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), each.errors);
    EXPECT_EQ(outputs.Entries(), each.entries) << (each.channels ? each.channels : "(unset)") << " with root "
                                               << (each.root ? each.root : "(unset)");
  }
}

TEST(ColorTest, WritesTerminalSequences) {
  std::ostringstream text;
  text << Color{6} << "x" << Color{8} << Color{1};
  EXPECT_EQ(text.str(), "\x1b[36mx\x1b[0m\x1b[31m");
}

TEST(ProfileTest, TimestampsAreUtcWithPaddedFields) {
  std::ostringstream text;
  WriteTimestamp(text, timeval{0, 0}) << '|';
  WriteTimestamp(text, timeval{1794830709, 4210}) << '|';
  WriteTimestamp(text, timeval{1794787200, 999999});
  EXPECT_EQ(text.str(), "1970-01-01 00:00:00.000000|2026-11-16 12:05:09.004210|2026-11-16 00:00:00.999999");
}

TEST(ProfileTest, WritesStartLinePluginLinesAndSummaryInTheCreatingProcessOnly) {
  ScopedRoot root;
  {
    Profile profile;
    Profile::RecordPlugin("net", timeval{1794830709, 4210});
    pid_t child = fork();
    if (child == 0) {
      Profile::RecordPlugin("child", timeval{1794830709, 0});
      _exit(0);  // the child's copy must not write a summary, even when destroyed
    }
    int status = 0;
    waitpid(child, &status, 0);
  }
  std::istringstream lines(root.Read("/var/log/sysboot.log"));
  std::vector<std::string> all;
  for (std::string line; std::getline(lines, line);) all.push_back(line);
  ASSERT_EQ(all.size(), 6u);
  EXPECT_EQ(all[0].rfind("Ondrik Initialization Time: ", 0), 0u);
  EXPECT_EQ(all[0].substr(all[0].size() - 6), "000000");
  EXPECT_EQ(all[1].rfind("[2026-11-16 12:05:09.004210 - ", 0), 0u);
  EXPECT_EQ(all[1].substr(all[1].size() - 14), "] sysboot: net");
  EXPECT_EQ(all[2].substr(all[2].size() - 16), "] sysboot: child");
  EXPECT_EQ(all[3], "=== Bootstrand configuration info ===");
  EXPECT_EQ(all[4].rfind(" Start: ", 0), 0u);
  EXPECT_EQ(all[5].rfind(" End: ", 0), 0u);
}

TEST(InitFds, AStandardStreamThatWasClosedStillReachesTheProgramsStartedAfterwards) {
  ScopedRoot root;
  std::fflush(nullptr);
  pid_t child = fork();
  if (child == 0) {
    // The log file opens on the free descriptor 1 and must lose close-on-exec there.
    close(STDOUT_FILENO);
    init_fds("/var/log/out.log");
    execl("/bin/sh", "sh", "-c", "echo reached", static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(root.Read("/var/log/out.log"), "reached\n");
}

}  // namespace
}  // namespace bootstrand::testing
