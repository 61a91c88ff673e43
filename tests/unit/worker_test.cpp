// The worker pool with real forked workers running in-process test plugins.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <regex>
#include <stdexcept>

#include "support/test_plugin.h"
#include "worker/worker.h"

namespace bootstrand::testing {
namespace {

using Results = std::vector<PluginResult>;
using HandOverResult = bootstrand::WorkerPool::HandOverResult;

class WorkerPool : public PluginTest {
 protected:
  void TearDown() override {
    Worker::ResetPool();
    PluginTest::TearDown();
    // Every worker has been reaped: no zombie is left behind.
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }
  TestPlugin* New(const std::string& name, std::function<bool()> activate = [] { return true; }) {
    TestPlugin* plugin = &Make(name);
    plugin->activate = std::move(activate);
    return plugin;
  }
  // Collects results at least once and until `count` have arrived; with `out`, what
  // the pool printed meanwhile.
  static Results Collect(std::size_t count, std::string* out = nullptr) {
    if (out != nullptr) ::testing::internal::CaptureStdout();
    Results results;
    do {
      for (const PluginResult& result : Worker::PluginResults()) results.push_back(result);
    } while (results.size() < count);
    if (out != nullptr) *out = ::testing::internal::GetCapturedStdout();
    return results;
  }
};

// With the limit at one worker, busy: passed-over plugins still go through, queued
// without a worker; any other waits until the worker is free and then reuses it.
TEST_F(WorkerPool, TheLimitHoldsBackAllButPassedOverPluginsAndOneWorkerServesTheRest) {
  Worker::LimitWorkers(1);
  TestPlugin* running = New("running", [] { return usleep(200000) == 0; });
  TestPlugin* flagged = New("flagged");
  TestPlugin* empty = New("empty");
  empty->noOperations = true;
  TestPlugin* failing = New("failing", [] { return false; });

  ASSERT_EQ(Worker::HandOver(running, 0), HandOverResult::Running);
  EXPECT_EQ(Worker::HandOver(failing, 0), HandOverResult::Refused);
  ASSERT_EQ(Worker::HandOver(flagged, ActivateFlag::Skip), HandOverResult::PassedOver);
  ASSERT_EQ(Worker::HandOver(empty, 0), HandOverResult::PassedOver);
  // Queued results come back at once, without waiting for the running plugin.
  EXPECT_EQ(Collect(0), (Results{{flagged, 0}, {empty, 0}}));
  EXPECT_EQ(Collect(1), (Results{{running, 0}}));
  ASSERT_TRUE(Worker::ActivatePlugin(failing, 0));
  EXPECT_EQ(Collect(1), (Results{{failing, 1}}));
  EXPECT_EQ(Worker::PoolSize(), 1u);
}

// Plugins end their workers in every way they can, all at once; each dead worker's
// end becomes its plugin's result. Each live plugin checks, inside its worker, that
// besides the pipes this process already had only its own two pipe ends are open
// (standard streams aside: a worker sends them elsewhere).
TEST_F(WorkerPool, DeadWorkersBecomeResultsAndEachWorkerHoldsOnlyItsOwnPipes) {
  auto pipes = [] {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code ignored;
      count += std::stoi(entry.path().filename()) > 2 &&
               std::filesystem::read_symlink(entry, ignored).string().starts_with("pipe:");
    }
    return count;
  };
  auto ownPipesOnly = [pipes, inherited = pipes()] { return pipes() == inherited + 2; };
  for (TestPlugin* plugin :
       {New("killed", [] { return raise(SIGKILL) == 0; }), New("second", ownPipesOnly),
        New("exits", []() -> bool { std::exit(3); }), New("exits-cleanly", []() -> bool { std::exit(0); }),
        New("throws", []() -> bool { throw std::runtime_error("boom"); }), New("third", ownPipesOnly),
        New("throws-other", []() -> bool { throw 7; })}) {
    ASSERT_TRUE(Worker::ActivatePlugin(plugin, 0));
  }
  EXPECT_EQ(Worker::PoolSize(), 7u);
  std::string out;
  std::map<std::string, std::int32_t> statuses;
  for (const auto& [plugin, status] : Collect(7, &out)) statuses[plugin->name] = status;
  EXPECT_EQ(statuses, (std::map<std::string, std::int32_t>{{"killed", 9}, {"second", 0}, {"exits", 3},
                                                            {"exits-cleanly", 0}, {"throws", 2}, {"third", 0},
                                                            {"throws-other", 2}}));
  for (const char* line : {"killed: exited with signal 9\n", "exits: exited with code 3\n",
                           "throws: exited with code 2\n", "throws-other: exited with code 2\n"}) {
    EXPECT_NE(out.find(line), std::string::npos) << out;
  }
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 4) << out;
  EXPECT_EQ(Worker::PoolSize(), 2u);
}

TEST_F(WorkerPool, AWorkerThatDiesIdleFailsTheHandOverAndIsDroppedWithoutAResult) {
  // The plugin's worker dies 50 ms after the plugin has returned.
  ASSERT_TRUE(Worker::ActivatePlugin(New("first", [] { return ualarm(50000, 0) == 0; }), 0));
  Collect(1);
  usleep(200000);

  Worker::LimitWorkers(1);
  TestPlugin* probe = New("probe");
  EXPECT_FALSE(Worker::ActivatePlugin(probe, 0));  // the request write fails with EPIPE
  std::string out;
  EXPECT_EQ(Collect(0, &out), Results{});
  EXPECT_TRUE(std::regex_match(out, std::regex("idle worker [0-9]+: exited with signal 14\n"))) << out;
  EXPECT_EQ(Worker::PoolSize(), 0u);
  EXPECT_NE(root_.ReadFile("/var/run/trove/system.log.log")
                .find("Activating Bootstrand plugin probe.\nBootstrand worker communication failed Broken pipe\n"),
            std::string::npos);
  // The next hand-over spawns a fresh worker.
  EXPECT_TRUE(Worker::ActivatePlugin(probe, 0));
  EXPECT_EQ(Collect(1), (Results{{probe, 0}}));
}

}  // namespace
}  // namespace bootstrand::testing
