// The host's boot step (packaging/boot.in) run boot after boot in one root: run-once
// plugins run once for each version, a failed one runs again, and a state file it
// cannot read costs a rerun, never the boot.
#include <gtest/gtest.h>

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
      {"a new version of keys runs once", [](const HostRoot& r) { WriteTree(r, "1.1"); }, {"--name=every", "--name=keys"},
       {"keys1.0", "flaky1", "keys1.1"}, ""},
      {"nothing new", nullptr, {"--name=every"}, {"keys1.0", "flaky1", "keys1.1"}, ""},
      {"a state file that cannot be read",
       [&](const HostRoot& r) {
         std::filesystem::remove(r.Path(state));
         std::filesystem::create_directories(r.Path(state));
       },
       {"--name=every", "--name=flaky", "--name=keys"}, {},
       "bootstrand boot step: cannot read " + root.Path(state) +
           ": the run-once plugins of earlier boots run again\n"
           "bootstrand boot step: cannot write " + root.Path(state) +
           ": run-once plugins of this boot run again at the next\n"},
  };
  for (const Boot& boot : boots) {
    SCOPED_TRACE(boot.what);
    if (boot.before) boot.before(root);
    std::filesystem::remove(root.Path("/order.log"));
    RunResult run = RunProgram(BOOTSTRAND_BOOT_STEP, root, {}, {{"BOOTSTRAND_ACTIVATOR", BOOTSTRAND_BINARY}}, 30);
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_EQ(run.err, boot.err);
    Lines marks = root.Marks();
    std::sort(marks.begin(), marks.end());
    EXPECT_EQ(marks, boot.marks);
    EXPECT_EQ(std::filesystem::is_directory(root.Path(state)) ? Lines{} : root.ReadLines(state), boot.state);
  }
}

}  // namespace
}  // namespace bootstrand::testing
