// Boots of the bundled example tree, the same one the demo runs.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

class ExampleTree : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::copy(std::string(BOOTSTRAND_EXAMPLES_DIR) + "/tree", root.Root(),
                          std::filesystem::copy_options::recursive | std::filesystem::copy_options::overwrite_existing);
  }

  std::vector<std::string> Activated() const {
    std::vector<std::string> names;
    const std::string prefix = "Bootstrand plugin ";
    const std::string suffix = " activated.";
    for (const std::string& line : root.Channel("kernel")) {
      if (line.rfind(prefix, 0) == 0 && line.size() > suffix.size() &&
          line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0) {
        names.push_back(line.substr(prefix.size(), line.size() - prefix.size() - suffix.size()));
      }
    }
    return names;
  }

  bool Before(const std::vector<std::string>& order, const std::string& first, const std::string& second) const {
    int a = IndexOf(order, first);
    int b = IndexOf(order, second);
    return a >= 0 && b >= 0 && a < b;
  }

  HostRoot root;
};

TEST_F(ExampleTree, BootsInDependencyOrderSeriallyAndInParallel) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"--max-workers", "1"}, std::vector<std::string>{}}) {
    std::filesystem::remove_all(root.Path("/var/run"));
    RunResult run = RunBootstrand(root, arguments);
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    std::vector<std::string> order = Activated();
    EXPECT_TRUE(Before(order, "10-devices", "20-storage"));
    EXPECT_TRUE(Before(order, "30-dhcp", "40-firewall"));
    EXPECT_TRUE(Before(order, "restore-configuration", "70-vm-autostart"));
    EXPECT_TRUE(Before(order, "70-vm-autostart", "80-management-agent"));
    ASSERT_FALSE(order.empty());
    EXPECT_EQ(order.back(), "end-autoconf");
    // The preemptive DHCP provider succeeded, so the static address never ran.
    EXPECT_GE(IndexOf(root.Channel("kernel"), "Bootstrand plugin 30-static-ip skipped."), 0);
    EXPECT_EQ(IndexOf(order, "30-static-ip"), -1);
    EXPECT_EQ(root.Channel("alert"), std::vector<std::string>{"Bootstrand plugin 40-syslog-forward activation failed."});
    EXPECT_EQ(root.ReadFile("/.runonce"), "bootstrand.run-once=50-host-keys1.2");
    EXPECT_EQ(root.ReadFile("/var/run/example/ip-config"), "dhcp\n");
    EXPECT_TRUE(root.Exists("/var/run/example/volume-scratch space"));
    EXPECT_TRUE(root.Exists("/var/run/example/vms-started"));
    std::vector<std::string> timing = root.Lines("/var/log/sysboot.log");
    EXPECT_EQ(timing.size(), 1 + 13 + 3u);  // start, 13 plugins run, summary
  }
}

TEST_F(ExampleTree, DryRunAndDisabledPlugins) {
  RunResult run = RunBootstrand(root, {"--dry", "--disable", "30-dhcp,remote-syslog"});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_NE(run.out.find("10-devices: start\n"), std::string::npos);
  EXPECT_FALSE(root.Exists("/var/run/example"));
  std::vector<std::string> kernel = root.Channel("kernel");
  EXPECT_GE(IndexOf(kernel, "Bootstrand plugin 30-dhcp skipped."), 0);
  EXPECT_GE(IndexOf(kernel, "Bootstrand plugin 40-syslog-forward skipped."), 0);
  // With the preemptive provider disabled the static address runs.
  EXPECT_GE(IndexOf(kernel, "Bootstrand plugin 30-static-ip activated."), 0);
  EXPECT_TRUE(root.Channel("alert").empty());
}

}  // namespace
}  // namespace bootstrand::testing
