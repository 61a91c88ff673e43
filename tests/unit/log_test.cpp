// The message channels' buffer semantics and delivery failures, the choice of their
// outputs, and the redirection of the standard streams. The timing log's lines are
// checked on real boots by the end-to-end tests and read back by the analyzer's.
#include <unistd.h>

#include "log/process_logging.h"
#include "log/trove_buffer.h"
#include "platform/channel_outputs.h"
#include "platform/kmsg_rate_limit.h"
#include "platform/trove.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

TEST(TroveBuffer, OneFlushDeliversOneMessage) {
  ScopedRoot root;
  TroveBuffer kernelBuffer(Trove_NODE_system_log, false), statusBuffer(Trove_NODE_system_progressTerm_statusText, true);
  std::ostream kernel(&kernelBuffer), status(&statusBuffer);
  kernel << "two\nlines" << std::endl;
  kernel << "abc\rdef" << std::flush;
  kernel.flush();  // nothing written: an empty message
  kernel << "back\\slash" << std::endl;
  status << "\ractivating: a\nactivating: b\n" << std::flush;
  // A carriage return starts the message again; only the status channel keeps
  // newlines. The sinks hold one line per message, "\n" for a newline and "\\" for
  // a backslash.
  EXPECT_EQ(root.ReadFile("/var/run/trove/system.log.log"), "twolines\ndef\n\nback\\\\slash\n");
  EXPECT_EQ(root.ReadFile("/var/run/trove/system.progressTerm.statusText.log"), "activating: a\\nactivating: b\\n\n");
}

// A failed delivery is reported once, and that channel stays silent while the others
// go on.
TEST(TroveBuffer, EachDeliveryFailureHasItsMessageAndSilencesItsChannel) {
  for (const auto& [operation, message] : std::vector<std::pair<std::string, std::string>>{
           {"Set", "Failed to set Trove node.\n"},
           {"ParamListCreate", "Failed to create Trove param list.\n"},
           {"ParamListAddString", "Failed to add Trove input string.\n"}}) {
    ScopedRoot root;
    TroveBuffer buffer(Trove_NODE_system_sysAlert, false), otherBuffer(Trove_NODE_system_sysAlert, false);
    std::ostream alert(&buffer);
    setenv("BOOTSTRAND_TROVE_FAIL", operation.c_str(), 1);
    ::testing::internal::CaptureStderr();
    alert << "lost" << std::endl;
    unsetenv("BOOTSTRAND_TROVE_FAIL");
    alert << "silenced" << std::endl;
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), message);
    EXPECT_TRUE(alert.bad()) << operation;
    std::ostream(&otherBuffer) << "other" << std::endl;
    EXPECT_EQ(root.ReadFile("/var/run/trove/system.sysAlert.log"), "other\n") << operation;
  }
}

// A real host's default cannot be tried end to end without writing to the machine's
// console, kernel log and system log; building the list opens nothing.
TEST(ChannelOutputsTest, TheListAndItsDefaultsFollowTheVariableAndTheRoot) {
  unsetenv("BOOTSTRAND_CONSOLE");  // the console output's default device
  const std::vector<std::string> realHost = {"files", "console=/dev/console", "kmsg=/dev/kmsg", "syslog"};
  const std::string outputs = " (files, console[=PATH], kmsg[=PATH], syslog)";
  const std::string notAnOutput = "\" is not an output" + outputs + "; left out\n";
  const std::tuple<const char*, const char*, bool, std::vector<std::string>, std::string> cases[] = {
      {nullptr, nullptr, false, realHost, ""},
      {" ", "//", false, realHost, ""},
      {"", "/tmp/host/", true, {"files"}, ""},
      {" kmsg=/tmp/k , files,,files,kmsg=/tmp/k", nullptr, false, {"kmsg=/tmp/k", "files"}, ""},
      {"console,console=/dev/tty", "/tmp/host", false, {"console=/dev/console", "console=/dev/tty"}, ""},
      {"consle,console=,files=x,syslog", "/", false, {"syslog"},
       "BOOTSTRAND_CHANNELS: \"consle" + notAnOutput + "BOOTSTRAND_CHANNELS: \"console=" + notAnOutput +
           "BOOTSTRAND_CHANNELS: \"files=x" + notAnOutput},
      // Where the journal reads the kernel log, kmsg would put each line there twice.
      {" , consle", nullptr, true, {"files", "console=/dev/console", "syslog"},
       "BOOTSTRAND_CHANNELS: \" , consle\" names no output" + outputs + "; the default files,console,syslog is used\n"},
  };
  for (const auto& [channels, root, journal, entries, errors] : cases) {
    ::testing::internal::CaptureStderr();
    ChannelOutputs outputs(channels, root, journal);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), errors);
    EXPECT_EQ(outputs.Entries(), entries) << (channels ? channels : "(unset)") << " with root "
                                          << (root ? root : "(unset)");
  }
}

// The kernel keeps 10 records in any 5 seconds (a margin of 50 ms for its clock): the
// wait, in milliseconds, of a record after writes that ended at the given times.
TEST(KmsgRateLimitTest, ARecordWaitsUntilTheTenthBeforeItIsFiveSecondsOld) {
  const std::vector<int> tenInASecond = {0, 100, 200, 300, 400, 500, 600, 700, 800, 900};
  std::vector<int> eleven = tenInASecond;
  eleven.push_back(5050);
  const std::tuple<std::vector<int>, int, int> cases[] = {
      {{}, 0, 0}, {{0, 0, 0, 0, 0, 0, 0, 0, 0}, 1, 0}, {tenInASecond, 1000, 4050},
      {tenInASecond, 5050, 0}, {eleven, 5060, 90},
  };
  for (const auto& [writes, at, wait] : cases) {
    KmsgRateLimit limit;
    KmsgRateLimit::Clock::time_point start;
    for (int end : writes) limit.Wrote(start + std::chrono::milliseconds(end));
    EXPECT_EQ(limit.WaitAt(start + std::chrono::milliseconds(at)), std::chrono::milliseconds(wait)) << at;
  }
}

TEST(InitFds, AStandardStreamThatWasClosedStillReachesTheProgramsStartedAfterwards) {
  ScopedRoot root;
  RunInChild([] {
    // The log file opens on the free descriptor 1 and must lose close-on-exec there.
    close(STDOUT_FILENO);
    init_fds("/var/log/out.log");
    return execl("/bin/sh", "sh", "-c", "echo reached", static_cast<char*>(nullptr));
  });
  EXPECT_EQ(root.ReadFile("/var/log/out.log"), "reached\n");
}

}  // namespace
}  // namespace bootstrand::testing
