// Native plugins loaded and activated by the real binary: a preemptive provider, a
// failing entry point, one that takes its worker down, and a bad version.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

TEST(NativePlugins, RunInWorkersAndReportEachOutcome) {
  HostRoot root;
  for (const char* name : {"api5.so", "failing.so", "crashing.so", "version6.so"}) {
    std::filesystem::copy_file(std::string(BOOTSTRAND_TEST_PLUGIN_DIR) + "/" + name,
                               root.Path(std::string("/usr/libexec/bootstrand/plugins/") + name));
  }
  // A rival of the preemptive api5 for the tag "time".
  root.WritePlugin("ntp.json", JsonPlugin({"time"}, {}, {"ntp"}));
  RunResult run = RunBootstrand(root, {});
  ASSERT_EQ(run.exitStatus, 0) << run.err;

  EXPECT_EQ(run.err, "Skipping /usr/libexec/bootstrand/plugins/version6.so: Unsupported API version: 6\n");
  EXPECT_EQ(run.out, "crashing: exited with signal 6\n");
  std::vector<std::string> alert = root.Channel("alert");
  EXPECT_GE(IndexOf(alert, "Bootstrand plugin crashing activation failed."), 0);
  EXPECT_GE(IndexOf(alert, "Bootstrand plugin failing activation failed."), 0);
  EXPECT_EQ(alert.size(), 2u);
  std::vector<std::string> kernel = root.Channel("kernel");
  int activated = IndexOf(kernel, "Bootstrand plugin api5 activated.");
  EXPECT_GE(activated, 0);
  EXPECT_GT(IndexOf(kernel, "Bootstrand plugin ntp skipped."), activated);
  EXPECT_EQ(IndexOf(kernel, "Activating Bootstrand plugin ntp."), -1);
  EXPECT_GE(IndexOf(kernel, "Bootstrand plugin end-autoconf activated."), 0);
  std::string log = root.ReadFile("/var/log/bootstrand-native-stdout.log");
  EXPECT_NE(log.find("crit Plugin failing failed Invoking method start (rc=7)"), std::string::npos) << log;
  EXPECT_NE(log.find("notice Invoking method start on plugin api5"), std::string::npos) << log;
}

}  // namespace
}  // namespace bootstrand::testing
