// Many boots of the example tree in random orders with one to four workers. After
// every boot each plugin has exactly one outcome, dependants started after their
// providers ended, the timing log has one line per plugin that ran, the tree's
// results are in place, every process the boot started has ended by itself, and the
// commands saw no descriptor but their own.
#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <random>
#include <regex>
#include <thread>

#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

constexpr int kBootsPerWorkerCount = 25;

// Reaps the processes that the boot left behind once they end, and reports whether
// all of them ended within five seconds.
bool LeftoversEnd() {
  for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
       std::chrono::steady_clock::now() < deadline;) {
    pid_t reaped = waitpid(-1, nullptr, WNOHANG);
    if (reaped < 0 && errno == ECHILD) return true;
    if (reaped == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

// Processes orphaned by a boot become this process's children, so that the test
// sees whether they end.
class Soak : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override { ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); }
  void TearDown() override { LeftoversEnd(); prctl(PR_SET_CHILD_SUBREAPER, 0); }
};

TEST_P(Soak, EveryBootEndsCleanWithOneOutcomePerPlugin) {
  const std::string workers = std::to_string(GetParam());
  std::random_device entropy;
  const std::regex outcome("Bootstrand plugin (.+) (activated|activation failed|skipped|opportunistic skipped|"
                           "opportunistic activation failed)\\.");
  const std::regex timing("\\[.* - .*\\] sysboot: (.+)"), descriptor(".* ([0-9]+) -> (.*)"), own("/proc/[0-9]+/fd");
  for (int boot = 0; boot < kBootsPerWorkerCount; ++boot) {
    const std::string seed = std::to_string(entropy() % 2147483647u);
    SCOPED_TRACE("--randomize " + seed + " --max-workers " + workers);
    HostRoot root;
    root.CopyExampleTree();
    // Lists its own descriptors, as "N -> target" at the end of each line: what the
    // command inherited, and the listing's own folder.
    root.WriteCommand("probe fds", "exec ls -l /proc/$$/fd > \"$BOOTSTRAND_ROOT/fds.log\"");
    root.WritePlugins({{"fd-probe", {"probe"}, {}, {"probe fds"}}});

    RunResult run = RunBootstrand(root, {"--randomize", seed, "--max-workers", workers});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    ASSERT_TRUE(LeftoversEnd()) << "a worker or command outlived the boot";

    Lines kernel = root.Channel("kernel"), alerts = root.Channel("alert");
    EXPECT_EQ(alerts, Lines{"Bootstrand plugin 40-syslog-forward activation failed."});
    std::map<std::string, Lines> outcomes;
    std::map<std::string, int> timed;
    std::smatch match;
    for (const Lines* channel : {&kernel, &alerts}) {
      for (const std::string& message : *channel) {
        if (std::regex_match(message, match, outcome)) outcomes[match[1]].push_back(match[2]);
      }
    }
    for (const std::string& line : root.ReadLines("/var/log/sysboot.log")) {
      if (std::regex_match(line, match, timing)) ++timed[match[1]];
    }
    // The example tree's plugins, the probe and the built-in; 30-static-ip was
    // preempted, so it never ran and has no timing line.
    ASSERT_EQ(outcomes.size(), 15u);
    EXPECT_EQ(timed.size(), 14u);
    for (const auto& [name, results] : outcomes) {
      ASSERT_EQ(results.size(), 1u) << name;
      EXPECT_EQ(timed[name], results[0] == "skipped" ? 0 : 1) << name;
    }
    EXPECT_EQ(outcomes["30-static-ip"][0], "skipped");
    for (const auto& [first, then] : {std::pair{"10-devices", "20-storage"}, {"30-dhcp", "40-firewall"},
                                      {"restore-configuration", "70-vm-autostart"},
                                      {"70-vm-autostart", "end-autoconf"}}) {
      EXPECT_LT(IndexOf(kernel, "Bootstrand plugin " + std::string(first) + " activated."),
                IndexOf(kernel, "Activating Bootstrand plugin " + std::string(then) + "."));
    }
    EXPECT_EQ(root.ReadFile("/.runonce"), "bootstrand.run-once=50-host-keys1.2");
    EXPECT_EQ(root.ReadFile("/var/run/example/ip-config"), "dhcp\n");
    EXPECT_TRUE(root.Exists("/var/run/example/volume-scratch space") && root.Exists("/var/run/example/vms-started"));

    // Nothing beyond the standard streams was inherited.
    bool listed = false;
    for (const std::string& line : root.ReadLines("/fds.log")) {
      if (!std::regex_match(line, match, descriptor)) continue;
      int fd = std::stoi(match[1]);
      listed = listed || fd == 2;
      EXPECT_TRUE(fd <= 2 || std::regex_match(match[2].str(), own)) << fd << " leaked: " << match[2];
    }
    EXPECT_TRUE(listed) << root.ReadFile("/fds.log");
  }
}

INSTANTIATE_TEST_SUITE_P(Workers, Soak, ::testing::Values(1, 2, 3, 4),
                         [](const auto& info) { return std::to_string(info.param) + "Workers"; });

}  // namespace
}  // namespace bootstrand::testing
