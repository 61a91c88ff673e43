// Many boots of the example tree in random orders with one to four workers. After
// every boot each plugin has exactly one outcome, the timing log has one line per
// plugin that ran, every process the boot started has ended by itself, and the
// commands saw no descriptor but their own.
#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <random>
#include <regex>
#include <thread>

#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

constexpr int kBootsPerWorkerCount = 25;

// Becomes a listing of its own descriptors, as "N -> target" at the end of each
// line: what the command inherited, and the listing's own folder.
const char* const kDescriptorProbe = "exec ls -l /proc/$$/fd > \"$BOOTSTRAND_ROOT/fds.log\"";

// Reaps the processes that the boot left behind once they end, and reports whether
// all of them ended within `patience`.
bool LeftoversEnd(std::chrono::milliseconds patience) {
  auto deadline = std::chrono::steady_clock::now() + patience;
  while (std::chrono::steady_clock::now() < deadline) {
    pid_t reaped = waitpid(-1, nullptr, WNOHANG);
    if (reaped < 0 && errno == ECHILD) return true;
    if (reaped == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

class Soak : public ::testing::TestWithParam<int> {
 protected:
  // Processes orphaned by a boot become this process's children, so that the
  // test sees whether they end.
  void SetUp() override { ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); }
  void TearDown() override {
    LeftoversEnd(std::chrono::seconds(5));
    prctl(PR_SET_CHILD_SUBREAPER, 0);
  }
};

TEST_P(Soak, EveryBootEndsCleanWithOneOutcomePerPlugin) {
  const int workers = GetParam();
  std::random_device entropy;
  const std::regex outcome("Bootstrand plugin (.+) (activated|activation failed|skipped|opportunistic skipped|"
                           "opportunistic activation failed)\\.");
  const std::regex timing("\\[.* - .*\\] sysboot: (.+)");
  for (int boot = 0; boot < kBootsPerWorkerCount; ++boot) {
    const std::string seed = std::to_string(entropy() % 2147483647u);
    SCOPED_TRACE("--randomize " + seed + " --max-workers " + std::to_string(workers));
    HostRoot root;
    std::filesystem::copy(std::string(BOOTSTRAND_EXAMPLES_DIR) + "/tree", root.Root(),
                          std::filesystem::copy_options::recursive |
                              std::filesystem::copy_options::overwrite_existing);
    root.WriteCommand("probe fds", kDescriptorProbe);
    root.WritePlugin("fd-probe.json", JsonPlugin({"probe"}, {}, {"probe fds"}));

    RunResult run = RunBootstrand(root, {"--randomize", seed, "--max-workers", std::to_string(workers)});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    ASSERT_TRUE(LeftoversEnd(std::chrono::seconds(5))) << "a worker or command outlived the boot";

    std::vector<std::string> messages = root.Channel("kernel");
    for (const std::string& alert : root.Channel("alert")) messages.push_back(alert);
    std::map<std::string, std::vector<std::string>> outcomes;
    std::smatch match;
    for (const std::string& message : messages) {
      if (std::regex_match(message, match, outcome)) outcomes[match[1]].push_back(match[2]);
    }
    std::map<std::string, int> timed;
    for (const std::string& line : root.Lines("/var/log/sysboot.log")) {
      if (std::regex_match(line, match, timing)) ++timed[match[1]];
    }
    // The example tree's plugins, the probe and the built-in; one was preempted.
    ASSERT_EQ(outcomes.size(), 15u);
    EXPECT_EQ(timed.size(), 14u);
    for (const auto& [name, results] : outcomes) {
      ASSERT_EQ(results.size(), 1u) << name;
      // A preempted plugin never ran, so it has no timing line.
      EXPECT_EQ(timed[name], results[0] == "skipped" ? 0 : 1) << name;
    }

    // Nothing beyond the standard streams was inherited.
    const std::regex entry(".* ([0-9]+) -> (.*)");
    const std::regex listing("/proc/[0-9]+/fd");
    std::map<int, std::string> descriptors;
    for (const std::string& line : root.Lines("/fds.log")) {
      if (std::regex_match(line, match, entry)) descriptors[std::stoi(match[1])] = match[2];
    }
    ASSERT_EQ(descriptors.count(2), 1u);
    for (const auto& [fd, target] : descriptors) {
      EXPECT_TRUE(fd <= 2 || std::regex_match(target, listing)) << "descriptor " << fd << " leaked: " << target;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Workers, Soak, ::testing::Values(1, 2, 3, 4),
                         [](const ::testing::TestParamInfo<int>& info) {
                           return std::to_string(info.param) + "Workers";
                         });

}  // namespace
}  // namespace bootstrand::testing
