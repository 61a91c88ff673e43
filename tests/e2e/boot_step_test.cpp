// The host's boot step run boot after boot in one root: run-once plugins run once for
// each version, a failed one runs again, whatever the channels show; a state file it
// cannot read costs a rerun, never the boot; a signalled boot keeps what activated.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>

#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

// "keys" (run-once, version 1.0), "flaky" (run-once, version 1, fails until /fixed
// exists) and "every" (not run-once).
void WriteTree(const HostRoot& root, const std::string& keysVersion) {
  root.WriteCommand("flaky", "[ -e \"$BOOTSTRAND_ROOT/fixed\" ] && exec \"$(dirname \"$0\")/mark\" \"$@\"");
  root.WritePlugins({{"keys", {"k"}, {}, {"mark --name keys"}, {{"run_once", true}, {"plugin_version", keysVersion}}},
                     {"flaky", {"f"}, {}, {"flaky --name flaky"}, {{"run_once", true}, {"plugin_version", "1"}}},
                     {"every", {"e"}, {}, {"mark --name every"}}});
}

struct Boot {
  const char* what;
  std::function<void(const HostRoot&)> before;
  Lines marks;  // sorted
  Lines state;
  std::string err;
};

TEST(BootStep, RunsEachRunOncePluginOncePerVersion) {
  HostRoot root;
  WriteTree(root, "1.0");
  const std::string state = "/var/lib/bootstrand/run-once";
  const Boot boots[] = {
      {"first boot: flaky fails", nullptr, {"--name=every", "--name=keys"}, {"keys1.0"}, ""},
      {"flaky fixed: it runs, keys does not", [](const HostRoot& r) { r.WriteFile("/fixed", ""); },
       {"--name=every", "--name=flaky"}, {"keys1.0", "flaky1"}, ""},
      {"a new version of keys runs once; the temporary a power cut left is removed",
       [](const HostRoot& r) {
         WriteTree(r, "1.1");
         r.WriteFile("/var/lib/bootstrand/.run-once.Cut4Q2", "keys1.0\nfla");
       },
       {"--name=every", "--name=keys"}, {"keys1.0", "flaky1", "keys1.1"}, ""},
      {"nothing new", nullptr, {"--name=every"}, {"keys1.0", "flaky1", "keys1.1"}, ""},
      {"a named pipe as the state file holds nothing up",
       [&](const HostRoot& r) {
         std::filesystem::remove(r.Path(state));
         mkfifo(r.Path(state).c_str(), 0644);
       },
       {"--name=every", "--name=flaky", "--name=keys"}, {},
       "bootstrand boot step: " + root.Path(state) +
           " is not a regular file: the run-once plugins of earlier boots run again\n"
           "bootstrand boot step: the run-once plugins that activated are not kept, since " + root.Path(state) +
           " could not be read: they run again at the next boot\n"},
  };
  for (const Boot& boot : boots) {
    SCOPED_TRACE(boot.what);
    if (boot.before) boot.before(root);
    std::filesystem::remove(root.Path("/order.log"));
    // Quiet: the step must not depend on what the channels show.
    RunResult run = RunProgram(BOOTSTRAND_BOOT_STEP, root, {"--quiet"}, {{"BOOTSTRAND_ACTIVATOR", BOOTSTRAND_BINARY}}, 30);
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_EQ(run.err, boot.err);
    Lines marks = root.Marks();
    std::sort(marks.begin(), marks.end());
    EXPECT_EQ(marks, boot.marks);
    EXPECT_EQ(std::filesystem::is_regular_file(root.Path(state)) ? root.ReadLines(state) : Lines{}, boot.state);
    Lines temporaries;
    for (const auto& entry : std::filesystem::directory_iterator(root.Path("/var/lib/bootstrand"))) {
      if (entry.path().filename().string().starts_with(".run-once.")) temporaries.push_back(entry.path().filename());
    }
    EXPECT_EQ(temporaries, Lines{});
  }
}

// A signal to every process of the boot step in the middle of a boot: a stop of the
// unit (SIGTERM), the quit key (SIGQUIT) or a hang-up of the console (SIGHUP). The
// step passes it on and waits for bootstrand, which stops or goes on; the step keeps
// the run-once plugin that had activated and exits with bootstrand's status; nothing
// of the boot is left.
TEST(BootStep, SignalledBootKeepsWhatActivated) {
  const struct {
    const char* signal;
    std::string status;
  } signalled[] = {{"TERM", "4\n"}, {"QUIT", "4\n"}, {"HUP", "0\n"}};
  for (const auto& each : signalled) {
    SCOPED_TRACE(each.signal);
    HostRoot root;
    root.WriteCommand("hang", "echo $$ > \"$BOOTSTRAND_ROOT/hanging\"\n"
                              "until [ -e \"$BOOTSTRAND_ROOT/release\" ]; do sleep 0.05; done");
    root.WritePlugins({{"keys", {"k"}, {}, {"mark --name keys"}, {{"run_once", true}, {"plugin_version", "1"}}},
                       {"slow", {"s"}, {"k"}, {"hang"}}});
    // Released a while after the signal: by then a stop has ended the command.
    std::string shell = std::string("set -m\n\"$0\" & step=$!\n") +
                        "until [ -e \"$BOOTSTRAND_ROOT/hanging\" ]; do sleep 0.05; done\n" +
                        "kill -" + each.signal + " -$step\nsleep 0.5\ntouch \"$BOOTSTRAND_ROOT/release\"\n" +
                        "wait $step\necho $? > \"$BOOTSTRAND_ROOT/status\"";
    RunResult run = RunProgram("/bin/bash", root, {"-c", shell, BOOTSTRAND_BOOT_STEP},
                               {{"BOOTSTRAND_ACTIVATOR", BOOTSTRAND_BINARY}}, 30);
    EXPECT_FALSE(run.timedOut);
    EXPECT_EQ(root.ReadFile("/status"), each.status);
    EXPECT_EQ(root.ReadLines("/var/lib/bootstrand/run-once"), Lines{"keys1"});
    EXPECT_EQ(ProcessesOf(root), Lines{});
  }
}

// Thousands of kept keys go out in several --disable options, none too long for the
// kernel, and still reach the plugin they belong to.
TEST(BootStep, ManyKeysStillBoot) {
  HostRoot root;
  WriteTree(root, "1.0");
  std::string keys;
  for (int i = 0; i < 8000; ++i) keys += "retired-plugin-number-" + std::to_string(i) + "-v1\n";
  root.WriteFile("/var/lib/bootstrand/run-once", keys + "keys1.0\n");
  RunResult run = RunProgram(BOOTSTRAND_BOOT_STEP, root, {}, {{"BOOTSTRAND_ACTIVATOR", BOOTSTRAND_BINARY}}, 30);
  EXPECT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(root.Marks(), Lines{"--name=every"});
}

}  // namespace
}  // namespace bootstrand::testing
