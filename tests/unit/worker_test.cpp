// The worker pool with real forked workers running in-process test plugins.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "support/test_plugin.h"
#include "worker/worker.h"

namespace bootstrand::testing {
namespace {

using Results = std::vector<PluginResult>;

// Standard streams aside: a worker sends them elsewhere.
int OpenPipeDescriptors() {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    count += std::stoi(entry.path().filename()) > 2 &&
             std::filesystem::read_symlink(entry, ignored).string().starts_with("pipe:");
  }
  return count;
}

class WorkerPool : public PluginTest {
 protected:
  void SetUp() override {
    PluginTest::SetUp();
    Worker::ResetPool();
  }
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
  // Collects results until `count` have arrived.
  static Results Collect(std::size_t count) {
    Results results;
    while (results.size() < count) {
      for (const PluginResult& result : Worker::PluginResults()) results.push_back(result);
    }
    return results;
  }
};

// With the limit at one worker, busy: passed-over plugins still go through, queued
// without a worker; any other waits until the worker is free and then reuses it.
TEST_F(WorkerPool, TheLimitHoldsBackAllButPassedOverPluginsAndOneWorkerServesTheRest) {
  Worker::LimitWorkers(1);
  TestPlugin* running = New("running", [] { return usleep(200000) == 0; });
  TestPlugin* flagged = New("flagged");
  TestPlugin* disabled = New("disabled");
  disabled->skip = true;
  TestPlugin* empty = New("empty");
  empty->noOperations = true;
  TestPlugin* failing = New("failing", [] { return false; });

  ASSERT_EQ(Worker::HandOver(running, 0), bootstrand::WorkerPool::HandOverResult::Running);
  EXPECT_FALSE(Worker::ActivatePlugin(failing, 0));
  ASSERT_EQ(Worker::HandOver(flagged, ActivateFlag::Skip), bootstrand::WorkerPool::HandOverResult::PassedOver);
  ASSERT_TRUE(Worker::ActivatePlugin(disabled, 0));
  ASSERT_TRUE(Worker::ActivatePlugin(empty, 0));
  // Queued results come back at once, without waiting for the running plugin.
  EXPECT_EQ(Worker::PluginResults(), (Results{{flagged, 0}, {disabled, 0}, {empty, 0}}));
  EXPECT_EQ(Collect(1), (Results{{running, 0}}));
  ASSERT_TRUE(Worker::ActivatePlugin(failing, 0));
  EXPECT_EQ(Collect(1), (Results{{failing, 1}}));
  EXPECT_EQ(Worker::PoolSize(), 1u);

  EXPECT_EQ(root_.Read("/var/run/trove/system.log.log"),
            "Activating Bootstrand plugin running.\nBootstrand plugin flagged skipped.\n"
            "Bootstrand plugin disabled skipped.\nBootstrand plugin empty skipped.\n"
            "Activating Bootstrand plugin failing.\n");
  std::string timing = root_.Read("/var/log/sysboot.log");
  for (const char* name : {"running", "empty", "failing"}) {
    EXPECT_NE(timing.find("] sysboot: " + std::string(name) + "\n"), std::string::npos) << name;
  }
}

TEST_F(WorkerPool, AWorkerThatEndsMidPluginBecomesTheResult) {
  const std::tuple<std::function<bool()>, std::int32_t, std::string> cases[] = {
      {[] { return raise(SIGKILL) == 0; }, 9, "p: exited with signal 9\n"},
      {[]() -> bool { std::exit(0); }, 0, ""},
      {[]() -> bool { std::exit(3); }, 3, "p: exited with code 3\n"},
      {[]() -> bool { throw std::runtime_error("boom"); }, 2, "p: exited with code 2\n"},
      {[]() -> bool { throw 7; }, 2, "p: exited with code 2\n"},
  };
  for (const auto& [activate, status, line] : cases) {
    Worker::ResetPool();
    TestPlugin* plugin = New("p", activate);
    ASSERT_TRUE(Worker::ActivatePlugin(plugin, 0));
    ::testing::internal::CaptureStdout();
    Results results = Collect(1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), line);
    EXPECT_EQ(results, (Results{{plugin, status}})) << line;
    EXPECT_EQ(Worker::PoolSize(), 0u);
  }
}

// Each live plugin checks, inside its worker, that besides the pipes this process
// already had only its own two pipe ends are open.
TEST_F(WorkerPool, ADeadWorkerIsReplacedByTheLastOneAndEachWorkerHoldsOnlyItsOwnPipes) {
  const int inherited = OpenPipeDescriptors();
  auto ownPipesOnly = [inherited] { return OpenPipeDescriptors() == inherited + 2; };
  TestPlugin* dies = New("dies", [] { return raise(SIGKILL) == 0; });
  TestPlugin* second = New("second", ownPipesOnly);
  TestPlugin* third = New("third", ownPipesOnly);
  for (TestPlugin* plugin : {dies, second, third}) ASSERT_TRUE(Worker::ActivatePlugin(plugin, 0));
  EXPECT_EQ(Worker::PoolSize(), 3u);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  ::testing::internal::CaptureStdout();
  Results results = Worker::PluginResults();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "dies: exited with signal 9\n");
  EXPECT_EQ(results, (Results{{dies, 9}, {third, 0}, {second, 0}}));
  EXPECT_EQ(Worker::PoolSize(), 2u);
}

TEST_F(WorkerPool, AWorkerThatDiesIdleFailsTheHandOverAndIsDroppedWithoutAResult) {
  const std::string pidFile = root_.Path("/worker.pid");
  TestPlugin* first = New("first", [pidFile] { return static_cast<bool>(std::ofstream(pidFile) << getpid()); });
  ASSERT_TRUE(Worker::ActivatePlugin(first, 0));
  Collect(1);
  const pid_t workerPid = std::stoi(root_.Read("/worker.pid"));
  ASSERT_EQ(kill(workerPid, SIGKILL), 0);
  usleep(100000);

  Worker::LimitWorkers(1);
  TestPlugin* probe = New("probe");
  EXPECT_FALSE(Worker::ActivatePlugin(probe, 0));  // the request write fails with EPIPE
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(Worker::PluginResults(), Results{});
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "idle worker " + std::to_string(workerPid) + ": exited with signal 9\n");
  EXPECT_EQ(Worker::PoolSize(), 0u);
  EXPECT_NE(root_.Read("/var/run/trove/system.log.log")
                .find("Activating Bootstrand plugin probe.\nBootstrand worker communication failed Broken pipe\n"),
            std::string::npos);
  // The next hand-over spawns a fresh worker.
  EXPECT_TRUE(Worker::ActivatePlugin(probe, 0));
  EXPECT_EQ(Collect(1), (Results{{probe, 0}}));
}

}  // namespace
}  // namespace bootstrand::testing
