// Whole boots of the real binary: what the worker processes add to the scheduler's
// orders and outcomes, the host-profile barrier in the plugins, the deadlock stop,
// end-autoconf, dry runs, the timing log and the logging set-up.
#include <gtest/gtest.h>

#include <regex>

#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

std::string Mark(const std::string& name) { return "mark --name " + name; }

// The timing log of a whole run that timed `plugins`, in this order.
std::regex TimingLog(const Lines& plugins) {
  const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}";
  std::string pattern = "Ondrik Initialization Time: [0-9]+\n";
  for (const std::string& name : plugins) pattern += "\\[" + stamp + " - " + stamp + "\\] sysboot: " + name + "\n";
  return std::regex(pattern + "=== Bootstrand configuration info ===\n Start: " + stamp + "\n End: " + stamp + "\n");
}

// The whole transcript of a serial boot through real workers: a failing command,
// whose plugin runs its next one and whose dependants still run, and a preemptive
// plugin that its worker skips since preemption is disabled.
TEST(Activation, ASerialBootThroughRealWorkers) {
  HostRoot root;
  root.WriteCommand("fail", "echo \"disk missing\" >&2\necho \"second line\" >&2\nexit 4");
  root.WritePlugins({{"a", {"app"}, {"storage"}, {Mark("a")}}, {"b", {"storage"}, {"net"}, {"fail", Mark("b")}},
                     {"c", {"net"}, {}, {Mark("c")}}, {"p", {"dhcp"}, {}, {Mark("p")}, {{"preemptive_provider", true}}},
                     {"q", {"dhcp"}, {}, {Mark("q")}}});
  RunResult run = RunBootstrand(root, {"--max-workers", "1", "--time-ops", "--disable-preemptive-plugins"});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(root.Marks(), (Lines{"--name=c", "--name=b", "--name=a", "--name=q"}));
  EXPECT_EQ(root.Channel("kernel"),
            (Lines{"Activating Bootstrand plugin c.", "Applying start on plugin c", "Bootstrand plugin c activated.",
                   "Activating Bootstrand plugin b.", "Applying start on plugin b", "Activating Bootstrand plugin a.",
                   "Applying start on plugin a", "Bootstrand plugin a activated.", "Activating Bootstrand plugin p.",
                   "Applying start on plugin p", "Plugin p skipped.", "Bootstrand plugin p opportunistic skipped.",
                   "Activating Bootstrand plugin q.", "Applying start on plugin q", "Bootstrand plugin q activated.",
                   "Activating Bootstrand plugin end-autoconf.", "Bootstrand plugin end-autoconf activated."}));
  EXPECT_EQ(root.Channel("alert"), Lines{"Bootstrand plugin b activation failed."});
  EXPECT_EQ(root.Channel("progress"), (Lines{"Activating Bootstrand Plugins: ", "All bootstrand plugins activated"}));
  EXPECT_EQ(root.Channel("status"), (Lines{"activating: c\n", "activating: b\n", "activating: a\n", "activating: p\n",
                                           "activating: q\n", "activating: end-autoconf\n", ""}));
  EXPECT_EQ(root.ReadFile("/var/lib/configstore/calls.log"),
            "EndAutoConf\nCleanupBootState\nEnablePalladNotification(true)\n");
  std::string log = root.ReadFile("/var/log/bootstrand-cormcli-stdout.log");
  for (const char* line : {"Method invocation failed: execute fail failed\n", "b: disk missing\n",
                           "b: second line\n", " cormcli mark --name c\n"}) {
    EXPECT_NE(log.find(line), std::string::npos) << line << log;
  }
  EXPECT_TRUE(std::regex_match(root.ReadFile("/var/log/sysboot.log"), TimingLog({"c", "b", "a", "p", "q",
                                                                                 "end-autoconf"})));
}

// The cycle search passes over a1 and a2, preemptive providers of one tag that hold
// each other back, and reports b and c; d, free to run, ran. No summary in the
// timing log: the process did not take the normal way out.
TEST(Activation, UnmetDependenciesStopTheRunAtOnceWithTheCycle) {
  HostRoot root;
  nlohmann::json preemptive = {{"version", 5}, {"run_once", false}, {"preemptive_provider", true}};
  root.WritePlugins({{"a1", {"ip"}, {}, {Mark("a1")}, preemptive}, {"a2", {"ip"}, {}, {Mark("a2")}, preemptive},
                     {"b", {"x"}, {"y"}, {Mark("b")}}, {"c", {"y"}, {"x"}, {Mark("c")}}, {"d", {}, {}, {Mark("d")}}});
  RunResult run = RunBootstrand(root, {"--plugin", "a1.json,a2.json,b.json,c.json,d.json"});
  EXPECT_EQ(run.exitStatus, 3);
  EXPECT_EQ(root.Channel("alert"), Lines{"Bootstrand has unmet dependencies!"});
  Lines kernel = root.Channel("kernel");
  EXPECT_EQ(kernel.empty() ? "" : kernel.back(), "b c b ");
  EXPECT_EQ(root.Marks(), Lines{"--name=d"});
  EXPECT_EQ(root.Channel("progress"), Lines{"Activating Bootstrand Plugins: "});
  EXPECT_EQ(root.ReadFile("/var/log/sysboot.log").find("=== Bootstrand configuration info ==="), std::string::npos);
}

// One worker only: no two plugins active together. End-autoconf reports each
// failure of the configuration store and still succeeds.
TEST(Activation, AStatelessHostHoldsHostProfilesBackUntilTheConfigurationIsRestored) {
  HostRoot root;
  root.WriteFile("/stateless.tgz", "");
  root.WriteFile("/etc/tessary/hostprofile.xml.gz", "");
  nlohmann::json early = JsonPlugin({"early"}, {}, {Mark("early-start")}, {{"version", 2}});
  early["operations"]["apply_host_profile"] = {Mark("early-profile")};
  nlohmann::json late = JsonPlugin({"late"}, {"restored"}, {Mark("late-start")}, {{"version", 2}});
  late["operations"]["apply_host_profile"] = {Mark("late-profile")};
  root.WritePlugin("early.json", early);
  root.WritePlugin("late.json", late);
  root.WritePlugins({{"restore-configuration", {"restored"}, {"early"}, {Mark("restore")}}});
  RunResult run = RunBootstrand(root, {"--max-workers", "8"},
                                {{"BOOTSTRAND_CONFIGSTORE_FAIL", "EndAutoConf,EnablePalladNotification"}});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(root.Marks(), (Lines{"--name=early-start", "--name=restore", "--name=late-profile"}));
  EXPECT_NE(root.ReadFile("/var/log/bootstrand-cormcli-stdout.log")
                .find("Plugin tries to execute before host profile requirement.\n"),
            std::string::npos);
  Lines kernel = root.Channel("kernel");
  EXPECT_GE(IndexOf(kernel, "Applying apply_host_profile on plugin late"), 0);
  ASSERT_GE(kernel.size(), 4u);
  EXPECT_EQ(Lines(kernel.end() - 4, kernel.end()),
            (Lines{"Activating Bootstrand plugin end-autoconf.",
                   "Failed to end autoconf: EndAutoConf refused by the configuration store",
                   "Error settingup configstore pallad notifications: EnablePalladNotification refused by the "
                   "configuration store",
                   "Bootstrand plugin end-autoconf activated."}));
  EXPECT_EQ(root.ReadFile("/var/lib/configstore/calls.log"), "CleanupBootState\n");
  for (const std::string& status : root.Channel("status")) {
    EXPECT_EQ(status.find('\n'), status.empty() ? std::string::npos : status.size() - 1) << status;
  }
}

// Dry-run workers share standard output: each line must leave in one write. The
// command that does not parse still fails the plugin; the passed-over q alone is timed.
TEST(Activation, ADryRunShowsThePluginsAndExecutesNothing) {
  HostRoot root;
  root.WritePlugins({{"a", {"a"}, {}, {Mark("a"), "unbalanced 'quote"}}, {"b", {"b"}, {}, {Mark("b")}},
                     {"q", {"q"}, {}, {Mark("q")}}});
  RunResult run = RunBootstrand(root, {"--dry", "--disable", "q", "--max-workers", "1"});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  Lines dry;  // the stamped copies of the log's lines share the output
  for (const std::string& write : run.outWrites) {
    EXPECT_EQ(write.find('\n'), write.size() - 1) << write;
    if (write.ends_with(": start\n")) dry.push_back(write);
  }
  EXPECT_EQ(dry, (Lines{"a: start\n", "b: start\n"}));
  EXPECT_TRUE(root.Marks().empty());
  EXPECT_FALSE(root.Exists("/var/lib/configstore/calls.log"));
  EXPECT_EQ(root.Channel("alert"), Lines{"Bootstrand plugin a activation failed."});
  EXPECT_TRUE(std::regex_match(root.ReadFile("/var/log/sysboot.log"), TimingLog({"q"})));
}

// A failure that the logging set-up throws ends the run (where the leak checker of a
// sanitizer build may report after the message); those it reports itself do not.
TEST(Activation, LoggingSetUpFailures) {
  const std::tuple<const char*, int, std::string> cases[] = {
      {"InitThrow", 1, "error: Failed to initialize bootstrand: syslog connection refused (forced)\n"},
      {"InitThrowOther", 1, "error: Failed to initialize bootstrand\n"},
      {"Syslog", 0, "Failed to initialize logging to syslog.\n"},
      {"Stdio", 0, "Failed creating standard out logging interface.\n"},
      {"AddOutput", 0, "Failed adding standard out logging interface.\n"},
  };
  for (const auto& [failure, status, message] : cases) {
    HostRoot root;
    RunResult run = RunBootstrand(root, {}, {{"BOOTSTRAND_LOG_FAIL", failure}});
    EXPECT_EQ(run.exitStatus, status) << failure;
    EXPECT_EQ(status == 0 ? run.err : run.err.substr(0, message.size()), message);
    EXPECT_EQ(root.Exists("/var/log/sysboot.log"), status == 0) << failure;
  }
}

}  // namespace
}  // namespace bootstrand::testing
