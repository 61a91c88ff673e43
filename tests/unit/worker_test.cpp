// The worker pool with real forked workers running in-process test plugins.
#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <thread>

#include "plugin/plugin.h"
#include "support/test_plugin.h"
#include "worker/worker.h"

namespace bootstrand::testing {
namespace {

int OpenPipeDescriptors() {
  int count = 0;
  DIR* directory = opendir("/proc/self/fd");
  while (const dirent* entry = readdir(directory)) {
    int fd = std::atoi(entry->d_name);
    if (entry->d_name[0] == '.' || fd <= 2 || fd == dirfd(directory)) continue;
    char target[PATH_MAX] = {};
    std::string link = std::string("/proc/self/fd/") + entry->d_name;
    if (readlink(link.c_str(), target, sizeof target - 1) > 0 && std::string(target).rfind("pipe:", 0) == 0) ++count;
  }
  closedir(directory);
  return count;
}

class WorkerPool : public ::testing::Test {
 protected:
  void SetUp() override {
    Plugin::ResetRegistries();
    Worker::ResetPool();
  }
  void TearDown() override {
    Worker::ResetPool();
    Plugin::ResetRegistries();
    // Every worker has been reaped: no zombie is left behind.
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }

  TestPlugin* Make(const std::string& name, std::function<bool()> activate = [] { return true; }) {
    owned_.push_back(std::make_unique<TestPlugin>(name, std::vector<std::string>{}, std::vector<std::string>{},
                                                  std::move(activate)));
    return owned_.back().get();
  }

  // Collects results until `count` have arrived.
  std::vector<PluginResult> Collect(std::size_t count) {
    std::vector<PluginResult> results;
    while (results.size() < count) {
      for (const PluginResult& result : Worker::PluginResults()) results.push_back(result);
    }
    return results;
  }

  ScopedRoot root_;
  std::vector<std::unique_ptr<TestPlugin>> owned_;
};

TEST_F(WorkerPool, ReportsEachPluginsStatusAndReusesOneWorker) {
  TestPlugin* good = Make("good");
  TestPlugin* bad = Make("bad", [] { return false; });
  ASSERT_EQ(Worker::HandOver(good, 0), bootstrand::WorkerPool::HandOverResult::Running);
  EXPECT_EQ(Collect(1), (std::vector<PluginResult>{{good, 0}}));
  ASSERT_TRUE(Worker::ActivatePlugin(bad, 0));
  EXPECT_EQ(Collect(1), (std::vector<PluginResult>{{bad, 1}}));
  EXPECT_EQ(Worker::PoolSize(), 1u);  // one fork served both plugins
  std::string timing = root_.Read("/var/log/sysboot.log");
  EXPECT_NE(timing.find("] sysboot: good\n"), std::string::npos);
  EXPECT_NE(timing.find("] sysboot: bad\n"), std::string::npos);
}

TEST_F(WorkerPool, TheLimitBoundsTheNumberOfBusyWorkers) {
  Worker::LimitWorkers(1);
  TestPlugin* slow = Make("slow", [] {
    usleep(50000);
    return true;
  });
  TestPlugin* next = Make("next");
  ASSERT_TRUE(Worker::ActivatePlugin(slow, 0));
  EXPECT_FALSE(Worker::ActivatePlugin(next, 0));
  Collect(1);

  Worker::ResetPool();
  Worker::LimitWorkers(0);
  EXPECT_FALSE(Worker::ActivatePlugin(next, 0));
  EXPECT_EQ(Worker::PoolSize(), 0u);
  Worker::LimitWorkers(-1);
  EXPECT_EQ(Worker::WorkerLimit(), 0xFFFFFFFFu);
}

TEST_F(WorkerPool, PassedOverPluginsAreQueuedFirstWithoutAWorker) {
  TestPlugin* running = Make("running", [] {
    usleep(200000);
    return true;
  });
  TestPlugin* flagged = Make("flagged");
  TestPlugin* disabled = Make("disabled");
  disabled->skip = true;
  TestPlugin* empty = Make("empty");
  empty->noOperations = true;

  ASSERT_TRUE(Worker::ActivatePlugin(running, 0));
  ASSERT_EQ(Worker::HandOver(flagged, ActivateFlag::Skip), bootstrand::WorkerPool::HandOverResult::PassedOver);
  ASSERT_TRUE(Worker::ActivatePlugin(disabled, 0));
  ASSERT_TRUE(Worker::ActivatePlugin(empty, 0));
  EXPECT_EQ(Worker::PoolSize(), 1u);
  // Queued results come back at once, without waiting for the running plugin.
  EXPECT_EQ(Worker::PluginResults(), (std::vector<PluginResult>{{flagged, 0}, {disabled, 0}, {empty, 0}}));
  EXPECT_EQ(Collect(1), (std::vector<PluginResult>{{running, 0}}));

  std::string kernel = root_.Read("/var/run/trove/system.log.log");
  EXPECT_EQ(kernel,
            "Activating Bootstrand plugin running.\n"
            "Bootstrand plugin flagged skipped.\n"
            "Bootstrand plugin disabled skipped.\n"
            "Bootstrand plugin empty skipped.\n");
  EXPECT_NE(root_.Read("/var/log/sysboot.log").find("] sysboot: empty\n"), std::string::npos);
}

TEST_F(WorkerPool, AWorkerThatEndsMidPluginBecomesTheResult) {
  struct Case {
    std::function<bool()> activate;
    std::int32_t status;
    std::string line;
  };
  const Case cases[] = {
      {[] { return raise(SIGKILL) == 0; }, 9, "p: exited with signal 9\n"},
      {[]() -> bool { std::exit(0); }, 0, ""},
      {[]() -> bool { std::exit(3); }, 3, "p: exited with code 3\n"},
      {[]() -> bool { throw std::runtime_error("boom"); }, 2, "p: exited with code 2\n"},
      {[]() -> bool { throw 7; }, 2, "p: exited with code 2\n"},
  };
  for (const Case& each : cases) {
    Worker::ResetPool();
    TestPlugin* plugin = Make("p", each.activate);
    ASSERT_TRUE(Worker::ActivatePlugin(plugin, 0));
    ::testing::internal::CaptureStdout();
    std::vector<PluginResult> results = Collect(1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), each.line);
    EXPECT_EQ(results, (std::vector<PluginResult>{{plugin, each.status}})) << each.line;
    EXPECT_EQ(Worker::PoolSize(), 0u);
  }
}

TEST_F(WorkerPool, ADeadWorkerIsReplacedByTheLastOneInTheSameCall) {
  TestPlugin* dies = Make("dies", [] { return raise(SIGKILL) == 0; });
  TestPlugin* second = Make("second");
  TestPlugin* third = Make("third");
  for (TestPlugin* plugin : {dies, second, third}) ASSERT_TRUE(Worker::ActivatePlugin(plugin, 0));
  EXPECT_EQ(Worker::PoolSize(), 3u);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  ::testing::internal::CaptureStdout();
  std::vector<PluginResult> results = Worker::PluginResults();
  ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(results, (std::vector<PluginResult>{{dies, 9}, {third, 0}, {second, 0}}));
  EXPECT_EQ(Worker::PoolSize(), 2u);
}

TEST_F(WorkerPool, AWorkerHoldsOnlyItsOwnPipes) {
  // Each plugin checks, inside its worker, that besides the pipes this process
  // already had only its own two pipe ends are open.
  const int inherited = OpenPipeDescriptors();
  TestPlugin* first = Make("first", [inherited] {
    usleep(100000);
    return OpenPipeDescriptors() == inherited + 2;
  });
  TestPlugin* second = Make("second", [inherited] { return OpenPipeDescriptors() == inherited + 2; });
  ASSERT_TRUE(Worker::ActivatePlugin(first, 0));
  ASSERT_TRUE(Worker::ActivatePlugin(second, 0));
  std::vector<PluginResult> results = Collect(2);
  for (const PluginResult& result : results) EXPECT_EQ(result.second, 0) << result.first->name;
}

TEST_F(WorkerPool, AWorkerThatDiesIdleFailsTheHandOverAndIsDroppedWithoutAResult) {
  static pid_t workerPid = 0;
  std::string pidFile = root_.Path("/worker.pid");
  TestPlugin* first = Make("first", [pidFile] {
    FILE* file = std::fopen(pidFile.c_str(), "w");
    std::fprintf(file, "%d", getpid());
    std::fclose(file);
    return true;
  });
  ASSERT_TRUE(Worker::ActivatePlugin(first, 0));
  Collect(1);
  workerPid = std::stoi(root_.Read("/worker.pid"));
  ASSERT_EQ(kill(workerPid, SIGKILL), 0);
  usleep(100000);

  Worker::LimitWorkers(1);
  TestPlugin* probe = Make("probe");
  EXPECT_FALSE(Worker::ActivatePlugin(probe, 0));  // the request write fails with EPIPE
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(Worker::PluginResults(), std::vector<PluginResult>{});
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "idle worker " + std::to_string(workerPid) + ": exited with signal 9\n");
  EXPECT_EQ(Worker::PoolSize(), 0u);
  std::string kernel = root_.Read("/var/run/trove/system.log.log");
  EXPECT_NE(kernel.find("Activating Bootstrand plugin probe.\nBootstrand worker communication failed Broken pipe\n"),
            std::string::npos);

  // The next hand-over spawns a fresh worker.
  EXPECT_TRUE(Worker::ActivatePlugin(probe, 0));
  EXPECT_EQ(Collect(1), (std::vector<PluginResult>{{probe, 0}}));
}

}  // namespace
}  // namespace bootstrand::testing
