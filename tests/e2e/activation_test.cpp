// Whole boots of the real binary: what the worker processes add to the scheduler's
// orders and outcomes, the host-profile barrier in the plugins, the deadlock stop,
// end-autoconf, dry runs and the timing log.
#include <gtest/gtest.h>

#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

// A command that appends its arguments to /order.log under the host root.
const char* const kMark = "echo \"$*\" >> \"$BOOTSTRAND_ROOT/order.log\"";

class Activation : public ::testing::Test {
 protected:
  void SetUp() override {
    root.WriteCommand("mark", kMark);
    root.WriteCommand("fail", "echo \"disk missing\" >&2\necho \"second line\" >&2\nexit 4");
  }

  // `--name <name>` marks the order log.
  static std::string Mark(const std::string& name) { return "mark --name " + name; }

  std::vector<std::string> Order() const { return root.Lines("/order.log"); }

  HostRoot root;
};

// The whole transcript of a serial boot through real workers, with a failing
// provider whose dependants still run. Orders and outcomes of every kind are the
// scheduler's own tests; this is what the processes add to them.
TEST_F(Activation, ASerialBootThroughRealWorkers) {
  root.WritePlugin("a.json", JsonPlugin({"app"}, {"storage"}, {Mark("a")}));
  root.WritePlugin("b.json", JsonPlugin({"storage"}, {"net"}, {"fail --disk sda", Mark("b")}));
  root.WritePlugin("c.json", JsonPlugin({"net"}, {}, {Mark("c")}));
  RunResult run = RunBootstrand(root, {"--max-workers", "1"});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  // The failing command did not stop the next one of the same plugin.
  EXPECT_EQ(Order(), (std::vector<std::string>{"--name=c", "--name=b", "--name=a"}));
  EXPECT_EQ(root.Channel("kernel"), (std::vector<std::string>{
                                        "Activating Bootstrand plugin c.",
                                        "Applying start on plugin c",
                                        "Bootstrand plugin c activated.",
                                        "Activating Bootstrand plugin b.",
                                        "Applying start on plugin b",
                                        "Activating Bootstrand plugin a.",
                                        "Applying start on plugin a",
                                        "Bootstrand plugin a activated.",
                                        "Activating Bootstrand plugin end-autoconf.",
                                        "Bootstrand plugin end-autoconf activated.",
                                    }));
  EXPECT_EQ(root.Channel("alert"), std::vector<std::string>{"Bootstrand plugin b activation failed."});
  EXPECT_EQ(root.Channel("progress"),
            (std::vector<std::string>{"Activating Bootstrand Plugins: ", "All bootstrand plugins activated"}));
  EXPECT_EQ(root.Channel("status"), (std::vector<std::string>{"activating: c\n", "activating: b\n", "activating: a\n",
                                                              "activating: end-autoconf\n", ""}));
  EXPECT_EQ(root.ReadFile("/var/lib/configstore/calls.log"),
            "EndAutoConf\nCleanupBootState\nEnablePalladNotification(true)\n");
  std::string log = root.ReadFile("/var/log/bootstrand-cormcli-stdout.log");
  EXPECT_NE(log.find("Method invocation failed: execute fail --disk sda failed\n"), std::string::npos) << log;
  EXPECT_NE(log.find("b: disk missing\n"), std::string::npos) << log;
  EXPECT_NE(log.find("b: second line\n"), std::string::npos) << log;
}

TEST_F(Activation, APreemptiveJsonPluginIsSkippedInItsWorkerWhenPreemptionIsDisabled) {
  root.WritePlugin("p.json", JsonPlugin({"dhcp"}, {}, {Mark("p")}, {{"preemptive_provider", true}}));
  root.WritePlugin("q.json", JsonPlugin({"dhcp"}, {}, {Mark("q")}));
  RunResult run = RunBootstrand(root, {"--disable-preemptive-plugins", "--plugin", "p.json,q.json"});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  std::vector<std::string> kernel = root.Channel("kernel");
  int skipped = IndexOf(kernel, "Plugin p skipped.");
  ASSERT_GE(skipped, 0);
  EXPECT_EQ(kernel[skipped + 1], "Bootstrand plugin p opportunistic skipped.");
  EXPECT_EQ(Order(), std::vector<std::string>{"--name=q"});
}

TEST_F(Activation, UnmetDependenciesStopTheRunAtOnceWithTheCycle) {
  root.WritePlugin("a.json", JsonPlugin({"x"}, {"y"}, {Mark("a")}));
  root.WritePlugin("b.json", JsonPlugin({"y"}, {"x"}, {Mark("b")}));
  root.WritePlugin("c.json", JsonPlugin({"z"}, {}, {Mark("c")}));
  RunResult run = RunBootstrand(root, {"--plugin", "a.json,b.json,c.json"});
  EXPECT_EQ(run.exitStatus, 3);
  EXPECT_EQ(root.Channel("alert"), std::vector<std::string>{"Bootstrand has unmet dependencies!"});
  std::vector<std::string> kernel = root.Channel("kernel");
  ASSERT_FALSE(kernel.empty());
  EXPECT_EQ(kernel.back(), "a b a ");
  EXPECT_EQ(Order(), std::vector<std::string>{"--name=c"});
  EXPECT_EQ(root.Channel("progress"), std::vector<std::string>{"Activating Bootstrand Plugins: "});
  // No summary: the process did not take the normal way out.
  EXPECT_EQ(root.ReadFile("/var/log/sysboot.log").find("=== Bootstrand configuration info ==="), std::string::npos);
}

TEST_F(Activation, AStatelessHostHoldsHostProfilesBackUntilTheConfigurationIsRestored) {
  root.WriteFile("/stateless.tgz", "");
  root.WriteFile("/etc/tessary/hostprofile.xml.gz", "");
  nlohmann::json early = JsonPlugin({"early"}, {}, {Mark("early-start")}, {{"version", 2}});
  early["operations"]["apply_host_profile"] = {Mark("early-profile")};
  nlohmann::json late = JsonPlugin({"late"}, {"restored"}, {Mark("late-start")}, {{"version", 2}});
  late["operations"]["apply_host_profile"] = {Mark("late-profile")};
  root.WritePlugin("early.json", early);
  root.WritePlugin("late.json", late);
  root.WritePlugin("restore-configuration.json", JsonPlugin({"restored"}, {"early"}, {Mark("restore")}));
  RunResult run = RunBootstrand(root, {"--max-workers", "8"});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(Order(), (std::vector<std::string>{"--name=early-start", "--name=restore", "--name=late-profile"}));
  EXPECT_NE(root.ReadFile("/var/log/bootstrand-cormcli-stdout.log")
                .find("Plugin tries to execute before host profile requirement.\n"),
            std::string::npos);
  std::vector<std::string> kernel = root.Channel("kernel");
  EXPECT_GE(IndexOf(kernel, "Applying apply_host_profile on plugin late"), 0);
  // One worker only: no two plugins were ever active together.
  for (const std::string& status : root.Channel("status")) {
    EXPECT_EQ(status.find('\n'), status.empty() ? std::string::npos : status.size() - 1) << status;
  }
}

TEST_F(Activation, EndAutoconfReportsEachStoreFailureAndStillSucceeds) {
  RunResult run = RunBootstrand(root, {}, {{"BOOTSTRAND_CONFIGSTORE_FAIL", "EndAutoConf,EnablePalladNotification"}});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(root.Channel("kernel"),
            (std::vector<std::string>{
                "Activating Bootstrand plugin end-autoconf.",
                "Failed to end autoconf: EndAutoConf refused by the configuration store",
                "Error settingup configstore pallad notifications: EnablePalladNotification refused by the "
                "configuration store",
                "Bootstrand plugin end-autoconf activated.",
            }));
  EXPECT_EQ(root.ReadFile("/var/lib/configstore/calls.log"), "CleanupBootState\n");
}

TEST_F(Activation, ADryRunShowsThePluginsAndExecutesNothing) {
  root.WritePlugin("a.json", JsonPlugin({"a"}, {}, {Mark("a"), "unbalanced 'quote"}));
  root.WritePlugin("b.json", JsonPlugin({"b"}, {}, {Mark("b")}));
  root.WritePlugin("q.json", JsonPlugin({"q"}, {}, {Mark("q")}));
  RunResult run = RunBootstrand(root, {"--dry", "--disable", "q", "--max-workers", "1"});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.out.find("a: start\n") != std::string::npos && run.out.find("b: start\n") != std::string::npos,
            true)
      << run.out;
  // Dry-run workers share standard output: each line must leave in one write.
  for (const std::string& write : run.outWrites) EXPECT_EQ(write.find('\n'), write.size() - 1) << write;
  EXPECT_TRUE(Order().empty());
  EXPECT_FALSE(root.Exists("/var/lib/configstore/calls.log"));
  // The command that does not parse still fails the plugin in a dry run.
  EXPECT_EQ(root.Channel("alert"), std::vector<std::string>{"Bootstrand plugin a activation failed."});
  std::vector<std::string> timing = root.Lines("/var/log/sysboot.log");
  ASSERT_EQ(timing.size(), 5u);  // start line, the passed-over q, summary
  EXPECT_NE(timing[1].find("] sysboot: q"), std::string::npos);
  EXPECT_EQ(timing[2], "=== Bootstrand configuration info ===");
}

TEST_F(Activation, TheTimingLogHasOneLinePerPluginAndASummary) {
  root.WritePlugin("p.json", JsonPlugin({"p"}, {}, {Mark("p")}));
  RunResult run = RunBootstrand(root, {"--plugin", "p.json", "--time-ops"});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  std::vector<std::string> timing = root.Lines("/var/log/sysboot.log");
  ASSERT_EQ(timing.size(), 5u);
  EXPECT_EQ(timing[0].rfind("Ondrik Initialization Time: ", 0), 0u);
  EXPECT_NE(timing[1].find("] sysboot: p"), std::string::npos);
  EXPECT_EQ(timing[2], "=== Bootstrand configuration info ===");
  EXPECT_EQ(timing[3].rfind(" Start: ", 0), 0u);
  EXPECT_EQ(timing[4].rfind(" End: ", 0), 0u);
  std::string log = root.ReadFile("/var/log/bootstrand-cormcli-stdout.log");
  EXPECT_NE(log.find(" cormcli mark --name p\n"), std::string::npos) << log;
}

TEST_F(Activation, AnEmptyPluginListStartsNoWorker) {
  RunResult run = RunBootstrand(root, {"--plugin", "/nowhere.json"});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(root.Channel("progress"),
            (std::vector<std::string>{"Activating Bootstrand Plugins: ", "All bootstrand plugins activated"}));
  EXPECT_EQ(root.Channel("status"), std::vector<std::string>{""});
  EXPECT_FALSE(root.Exists("/var/log/sysboot.log"));
}

TEST_F(Activation, LoggingSetUpFailures) {
  RunResult thrown = RunBootstrand(root, {}, {{"BOOTSTRAND_LOG_FAIL", "InitThrow"}});
  EXPECT_EQ(thrown.exitStatus, 1);
  EXPECT_NE(thrown.err.find("Failed to initialize bootstrand: syslog connection refused (forced)"), std::string::npos)
      << thrown.err;
  RunResult other = RunBootstrand(root, {}, {{"BOOTSTRAND_LOG_FAIL", "InitThrowOther"}});
  EXPECT_EQ(other.exitStatus, 1);
  EXPECT_NE(other.err.find("Failed to initialize bootstrand\n"), std::string::npos) << other.err;
  EXPECT_FALSE(root.Exists("/var/log/sysboot.log"));

  // Failures that the set-up reports itself do not stop the boot.
  const std::pair<std::string, std::string> reported[] = {
      {"Syslog", "Failed to initialize logging to syslog.\n"},
      {"Stdio", "Failed creating standard out logging interface.\n"},
      {"AddOutput", "Failed adding standard out logging interface.\n"},
  };
  for (const auto& [failure, message] : reported) {
    RunResult run = RunBootstrand(root, {}, {{"BOOTSTRAND_LOG_FAIL", failure}});
    EXPECT_EQ(run.exitStatus, 0) << failure;
    EXPECT_EQ(run.err, message);
  }
}

}  // namespace
}  // namespace bootstrand::testing
