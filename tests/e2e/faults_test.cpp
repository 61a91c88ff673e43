// Faults injected into whole boots of the real binary: workers that die mid-plugin,
// native plugins that end their process, commands that ignore signals, pipes named as
// plugins, and host files or folders that cannot be used. Every boot must end, report the fault and
// let the other plugins run.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

const char* const kMark = "echo \"$*\" >> \"$BOOTSTRAND_ROOT/order.log\"";

class Faults : public ::testing::Test {
 protected:
  void SetUp() override { root.WriteCommand("mark", kMark); }

  // Plugin `victim` runs `command`; `after` requires it, `other` is independent.
  void WriteVictimAndNeighbours(const std::string& command) {
    root.WritePlugin("victim.json", JsonPlugin({"v"}, {}, {command, "mark --name victim"}));
    root.WritePlugin("after.json", JsonPlugin({"a"}, {"v"}, {"mark --name after"}));
    root.WritePlugin("other.json", JsonPlugin({"o"}, {}, {"mark --name other"}));
  }

  std::vector<std::string> Order() const { return root.Lines("/order.log"); }

  HostRoot root;
};

TEST_F(Faults, AWorkerKilledMidPluginFailsThatPluginOnly) {
  // The command's parent is the worker running the plugin.
  for (const char* signal : {"KILL", "SEGV"}) {
    HostRoot fresh;
    fresh.WriteCommand("mark", kMark);
    fresh.WriteCommand("die", std::string("kill -") + signal + " $PPID");
    fresh.WritePlugin("victim.json", JsonPlugin({"v"}, {}, {"die", "mark --name victim"}));
    fresh.WritePlugin("after.json", JsonPlugin({"a"}, {"v"}, {"mark --name after"}));
    RunResult run = RunBootstrand(fresh, {"--max-workers", "1"});
    ASSERT_EQ(run.exitStatus, 0) << signal << run.err;
    // The sanitizers turn a segmentation fault into an ordinary exit, so only the
    // kill is pinned down to its line.
    EXPECT_NE(run.out.find("victim: exited with "), std::string::npos) << run.out;
    if (std::string(signal) == "KILL") {
      EXPECT_EQ(run.out, "victim: exited with signal 9\n");
    }
    EXPECT_EQ(fresh.Channel("alert"), std::vector<std::string>{"Bootstrand plugin victim activation failed."});
    EXPECT_EQ(fresh.Lines("/order.log"), std::vector<std::string>{"--name=after"}) << signal;
    EXPECT_GE(IndexOf(fresh.Channel("kernel"), "Bootstrand plugin end-autoconf activated."), 0);
  }
}

TEST_F(Faults, NativePluginsThatEndTheirProcess) {
  for (const char* name : {"exiting.so", "crashing.so"}) {
    std::filesystem::copy_file(std::string(BOOTSTRAND_TEST_PLUGIN_DIR) + "/" + name,
                               root.Path(std::string("/usr/libexec/bootstrand/plugins/") + name));
  }
  root.WritePlugin("other.json", JsonPlugin({"o"}, {}, {"mark --name other"}));
  RunResult run = RunBootstrand(root, {"--max-workers", "1"});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  // A worker that exits with status 0 reports success, whatever the plugin meant.
  EXPECT_EQ(run.out, "crashing: exited with signal 6\n");
  EXPECT_GE(IndexOf(root.Channel("kernel"), "Bootstrand plugin exiting activated."), 0);
  EXPECT_EQ(root.Channel("alert"), std::vector<std::string>{"Bootstrand plugin crashing activation failed."});
  EXPECT_EQ(Order(), std::vector<std::string>{"--name=other"});
}

TEST_F(Faults, ACommandIgnoringTerminationIsWaitedFor) {
  root.WriteCommand("stubborn", "trap '' TERM\nkill -TERM $$\nsleep 1\necho survived >> \"$BOOTSTRAND_ROOT/order.log\"");
  WriteVictimAndNeighbours("stubborn");
  RunResult run = RunBootstrand(root, {"--max-workers", "2"}, {}, 30);
  ASSERT_FALSE(run.timedOut);
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  std::vector<std::string> order = Order();
  int survived = IndexOf(order, "survived");
  ASSERT_GE(survived, 0);
  EXPECT_LT(survived, IndexOf(order, "--name=victim"));
  EXPECT_LT(IndexOf(order, "--name=victim"), IndexOf(order, "--name=after"));
  EXPECT_TRUE(root.Channel("alert").empty());
}

TEST_F(Faults, ADaemonLeftByACommandNeitherHoldsTheBootNorDies) {
  // The daemon keeps the command's standard error open for 30 seconds.
  root.WriteCommand("daemon", "sleep 30 &\necho $! > \"$BOOTSTRAND_ROOT/daemon.pid\"");
  WriteVictimAndNeighbours("daemon");
  RunResult run = RunBootstrand(root, {"--time-ops"}, {}, 15);
  pid_t daemon = root.Exists("/daemon.pid") ? std::stoi(root.ReadFile("/daemon.pid")) : 0;
  bool alive = daemon > 0 && kill(daemon, 0) == 0;
  if (alive) kill(daemon, SIGKILL);
  ASSERT_FALSE(run.timedOut);
  EXPECT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_TRUE(alive);
  EXPECT_GE(IndexOf(Order(), "--name=after"), 0);
  // The timing record is the command's own time, not the daemon's.
  std::string log = root.ReadFile("/var/log/bootstrand-cormcli-stdout.log");
  std::size_t record = log.find(" cormcli daemon\n");
  ASSERT_NE(record, std::string::npos) << log;
  EXPECT_EQ(log.substr(log.rfind('\n', record) + 1, 2), "0.") << log;
}

TEST_F(Faults, CommandsStartWithDefaultSignalsWhateverTheActivatorInherited) {
  root.WriteCommand("signals", "grep -E '^Sig(Blk|Ign)' /proc/self/status >> \"$BOOTSTRAND_ROOT/order.log\"");
  root.WritePlugin("s.json", JsonPlugin({"s"}, {}, {"signals"}));
  RunResult run = RunProgram("/bin/sh", root, {"-c", "trap '' HUP PIPE; exec \"$0\" --plugin s.json", BOOTSTRAND_BINARY});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(Order(), (std::vector<std::string>{"SigBlk:\t0000000000000000", "SigIgn:\t0000000000000000"}));
}

TEST_F(Faults, HostFilesThatCannotBeWrittenDoNotStopTheBoot) {
  struct Case {
    std::string name;
    std::string blocked;  // a host path made a folder or a plain file where the other is expected
    bool asFolder;
  };
  const Case cases[] = {
      {"log folder is a file", "/var/log", false},
      {"run-once marker is a folder", "/.runonce", true},
  };
  for (const Case& each : cases) {
    HostRoot fresh;
    fresh.WriteCommand("mark", kMark);
    std::filesystem::remove_all(fresh.Path(each.blocked));
    if (each.asFolder) {
      std::filesystem::create_directories(fresh.Path(each.blocked));
    } else {
      fresh.WriteFile(each.blocked, "in the way\n");
    }
    fresh.WritePlugin("a.json", JsonPlugin({"a"}, {}, {"mark --name a"}, {{"run_once", true}}));
    fresh.WritePlugin("b.json", JsonPlugin({"b"}, {"a"}, {"mark --name b"}));
    RunResult run = RunBootstrand(fresh, {});
    ASSERT_EQ(run.exitStatus, 0) << each.name << run.err;
    EXPECT_EQ(fresh.Lines("/order.log"), (std::vector<std::string>{"--name=a", "--name=b"})) << each.name;
    EXPECT_TRUE(fresh.Channel("alert").empty()) << each.name;
  }
}

TEST_F(Faults, PipesNamedAsPluginsAreSkippedRatherThanWaitedFor) {
  root.WritePlugin("a.json", JsonPlugin({"a"}, {}, {"mark --name a"}));
  for (const char* pipe : {"/usr/libexec/bootstrand/plugins/p.json", "/q.so", "/r"}) {
    ASSERT_EQ(mkfifo(root.Path(pipe).c_str(), 0644), 0);
  }
  RunResult run = RunBootstrand(root, {"--plugin", "a.json,p.json,/q.so,/r,/dev/null"}, {}, 20);
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_NE(run.err.find("Skipping /usr/libexec/bootstrand/plugins/p.json: not a regular file\n"), std::string::npos);
  EXPECT_NE(run.err.find("Skipping /q.so: not a regular file\n"), std::string::npos);
  // Without a plugin suffix the kind of file does not matter.
  EXPECT_NE(run.err.find("Skipping /r: unknown type\n"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("Skipping /dev/null: unknown type\n"), std::string::npos) << run.err;
  EXPECT_EQ(Order(), (std::vector<std::string>{"--name=a"}));
#ifdef BOOTSTRAND_LINT_BINARY
  RunResult lint = RunProgram(BOOTSTRAND_LINT_BINARY, root, {"/q.so"}, {}, 20);
  EXPECT_EQ(lint.exitStatus, 0);
  EXPECT_EQ(lint.out.substr(0, lint.out.find('\n')), "Skipping /q.so: not a regular file");
#endif
}

TEST_F(Faults, MissingOrUnusableCommandFoldersFailEachCommandClearly) {
  for (bool asFile : {false, true}) {
    HostRoot fresh;
    std::filesystem::remove_all(fresh.Path("/usr/lib/tessary/cormcli"));
    if (asFile) fresh.WriteFile("/usr/lib/tessary/cormcli", "not a folder\n");
    fresh.WritePlugin("a.json", JsonPlugin({"a"}, {}, {"network up"}));
    fresh.WritePlugin("b.json", JsonPlugin({"b"}, {"a"}, {"network down"}));
    RunResult run = RunBootstrand(fresh, {});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(fresh.Channel("alert"), (std::vector<std::string>{"Bootstrand plugin a activation failed.",
                                                                "Bootstrand plugin b activation failed."}));
    std::string log = fresh.ReadFile("/var/log/bootstrand-cormcli-stdout.log");
    EXPECT_NE(log.find("a: Unknown command 'network up'"), std::string::npos) << log;
  }
}

TEST_F(Faults, InteractiveModeWithoutInputContinuesEveryPlugin) {
  WriteVictimAndNeighbours("mark --name first");
  RunResult run = RunBootstrand(root, {"--interactive", "--max-workers", "1"}, {}, 30);
  ASSERT_FALSE(run.timedOut);
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  std::vector<std::string> order = Order();
  EXPECT_EQ(order.size(), 4u);
  EXPECT_GE(IndexOf(order, "--name=after"), 0);
  EXPECT_TRUE(root.Channel("alert").empty());
}

}  // namespace
}  // namespace bootstrand::testing
