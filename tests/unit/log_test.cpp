// The message channels' buffer semantics and delivery failures, the choice of their
// outputs, the timing log's formats and the redirection of the standard streams.
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <sstream>

#include "log/process_logging.h"
#include "log/profile.h"
#include "log/trove_buffer.h"
#include "platform/channel_outputs.h"
#include "platform/trove.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

TEST(TroveBuffer, OneFlushDeliversOneMessage) {
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
  // One line per message in the sinks, a newline kept as "\n" and a backslash doubled.
  EXPECT_EQ(root.Read("/var/run/trove/system.log.log"), "twolines\ndef\n\nback\\\\slash\n");
  EXPECT_EQ(root.Read("/var/run/trove/system.progressTerm.statusText.log"), "activating: a\\nactivating: b\\n\n");
}

// A failed delivery is reported once, and that channel stays silent while the others
// go on.
TEST(TroveBuffer, EachDeliveryFailureHasItsMessageAndSilencesItsChannel) {
  for (const auto& [operation, message] : std::vector<std::pair<std::string, std::string>>{
           {"Set", "Failed to set Trove node.\n"},
           {"ParamListCreate", "Failed to create Trove param list.\n"},
           {"ParamListAddString", "Failed to add Trove input string.\n"}}) {
    ScopedRoot root;
    TroveBuffer buffer(Trove_NODE_system_sysAlert, false);
    std::ostream alert(&buffer);
    setenv("BOOTSTRAND_TROVE_FAIL", operation.c_str(), 1);
    ::testing::internal::CaptureStderr();
    alert << "lost" << std::endl;
    unsetenv("BOOTSTRAND_TROVE_FAIL");
    alert << "silenced" << std::endl;
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), message);
    EXPECT_TRUE(alert.bad()) << operation;
    TroveBuffer otherBuffer(Trove_NODE_system_sysAlert, false);
    std::ostream(&otherBuffer) << "other" << std::endl;
    EXPECT_EQ(root.Read("/var/run/trove/system.sysAlert.log"), "other\n") << operation;
  }
}

// A real host's default cannot be tried end to end without writing to the machine's
// console, kernel log and system log; building the list opens nothing.
TEST(ChannelOutputsTest, TheListAndItsDefaultsFollowTheVariableAndTheRoot) {
  unsetenv("BOOTSTRAND_CONSOLE");  // the console output's default device
  const std::vector<std::string> realHost = {"files", "console=/dev/console", "kmsg=/dev/kmsg", "syslog"};
  const std::string notAnOutput = "\" is not an output (files, console[=PATH], kmsg[=PATH], syslog); left out\n";
  const std::tuple<const char*, const char*, std::vector<std::string>, std::string> cases[] = {
      {nullptr, nullptr, realHost, ""},
      {"", "", realHost, ""},
      {" ", "//", realHost, ""},
      {nullptr, "/tmp/host", {"files"}, ""},
      {"", "/tmp/host/", {"files"}, ""},
      {" kmsg=/tmp/k , files,,files,kmsg=/tmp/k", nullptr, {"kmsg=/tmp/k", "files"}, ""},
      {"console,console=/dev/tty", "/tmp/host", {"console=/dev/console", "console=/dev/tty"}, ""},
      {"consle,console=,files=x,syslog", "/", {"syslog"},
       "BOOTSTRAND_CHANNELS: \"consle" + notAnOutput + "BOOTSTRAND_CHANNELS: \"console=" + notAnOutput +
           "BOOTSTRAND_CHANNELS: \"files=x" + notAnOutput},
  };
  for (const auto& [channels, root, entries, errors] : cases) {
    ::testing::internal::CaptureStderr();
    ChannelOutputs outputs(channels, root);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), errors);
    EXPECT_EQ(outputs.Entries(), entries) << (channels ? channels : "(unset)") << " with root "
                                          << (root ? root : "(unset)");
  }
}

TEST(Profile, WritesPluginLinesEverywhereAndTheSummaryInTheCreatingProcessOnly) {
  ScopedRoot root;
  {
    Profile profile;
    Profile::RecordPlugin("net", timeval{1794830709, 4210});
    pid_t child = fork();
    if (child == 0) {
      Profile::RecordPlugin("child", timeval{1794830709, 0});
      _exit(0);  // the child's copy must not write a summary, even when destroyed
    }
    waitpid(child, nullptr, 0);
  }
  const std::string time = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}";
  EXPECT_TRUE(std::regex_match(root.Read("/var/log/sysboot.log"),
                               std::regex("Ondrik Initialization Time: [0-9]+000000\n"
                                          "\\[2026-11-16 12:05:09\\.004210 - " + time + "\\] sysboot: net\n"
                                          "\\[2026-11-16 12:05:09\\.000000 - " + time + "\\] sysboot: child\n"
                                          "=== Bootstrand configuration info ===\n Start: " + time + "\n End: " +
                                          time + "\n")))
      << root.Read("/var/log/sysboot.log");
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
  waitpid(child, nullptr, 0);
  EXPECT_EQ(root.Read("/var/log/out.log"), "reached\n");
}

}  // namespace
}  // namespace bootstrand::testing
