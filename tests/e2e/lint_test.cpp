// bootstrand-lint through the real binary on real plugin files: each finding, the
// waves, the exit statuses, and that it leaves the host root exactly as it was. Where
// the activator can say the same, the test asks it too.
#include <gtest/gtest.h>

#include <filesystem>

#include "main/startup.h"
#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

using nlohmann::json;

const std::string kFirst = "/usr/libexec/bootstrand/plugins/";

json Preemptive() { return {{"version", 5}, {"run_once", false}, {"preemptive_provider", true}}; }

// Runs the linter and checks that it created, removed and emptied nothing in the
// root: no run-once marker, no channel sink, no log.
RunResult Lint(const HostRoot& root, const std::vector<std::string>& arguments) {
  root.WriteFile("/.runonce", "bootstrand.run-once=earlier-boot");
  auto before = Snapshot(root.Root());
  RunResult run = RunProgram(BOOTSTRAND_LINT_BINARY, root, arguments);
  EXPECT_EQ(Snapshot(root.Root()), before);
  EXPECT_EQ(root.ReadFile("/.runonce"), "bootstrand.run-once=earlier-boot");
  return run;
}

// The linter's order with one worker, the plugins of every wave that need a worker,
// against the order in which a serial boot of the activator handed them to workers.
void ExpectTheActivatorsSerialOrder(const HostRoot& root, const std::string& disable = "") {
  std::vector<std::string> lint = {"--json", "--workers", "1"}, boot = {"--max-workers", "1"};
  if (!disable.empty()) {
    lint.push_back("--disable=" + disable);
    boot.push_back("--disable=" + disable);
  }
  std::vector<std::string> waves;
  json report = json::parse(Lint(root, lint).out);
  for (const json& wave : report["waves"]) {
    for (const json& name : wave["run"]) waves.push_back(name);
  }
  std::filesystem::remove_all(root.Path("/var/run/trove"));
  ASSERT_EQ(RunBootstrand(root, boot).exitStatus, 0);
  std::vector<std::string> activated;
  const std::string prefix = "Activating Bootstrand plugin ";
  for (const std::string& line : root.Channel("kernel")) {
    if (line.starts_with(prefix)) activated.push_back(line.substr(prefix.size(), line.size() - prefix.size() - 1));
  }
  EXPECT_EQ(waves, activated);
}

TEST(Lint, ReportsTheExampleTreeInWaves) {
  HostRoot root;
  root.CopyExampleTree();
  RunResult run = Lint(root, {});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out,
            "activation order, no worker limit:\n"
            "  wave 1: 10-devices\n"
            "  wave 2: 20-network-drivers, 20-storage\n"
            "  wave 3: 30-dhcp, 50-host-keys, restore-configuration\n"
            "    30-static-ip preempted by 30-dhcp\n"
            "  wave 4: 40-firewall, 40-syslog-forward, 40-time\n"
            "  wave 5: 60-ssh, 70-vm-autostart\n"
            "  wave 6: 80-management-agent\n"
            "  wave 7: end-autoconf\n"
            "14 plugins, 0 stops, 0 warnings: boot would complete in 7 waves\n");
  // One worker: the waves are the activator's own order, with plugins passed over
  // (here disabled) settled while the worker runs.
  ExpectTheActivatorsSerialOrder(root);
  ExpectTheActivatorsSerialOrder(root, "30-dhcp,remote-syslog");
  // Without the preemptive provider the static address runs.
  EXPECT_GE(IndexOf(root.Channel("kernel"), "Bootstrand plugin 30-static-ip activated."), 0);
  EXPECT_TRUE(root.Channel("alert").empty());
}

TEST(Lint, ReportsSkippedFilesWithTheActivatorsMessages) {
  HostRoot root;
  root.WriteFile(kFirst + "README", "not a plugin");
  root.WriteFile(kFirst + "broken.json", "{ nope");
  root.WritePlugin("future.json", JsonPlugin({"x"}, {}, {}, {{"version", 6}}));
  root.WritePlugin("typo.json", JsonPlugin({"x"}, {}, {}, {{"requires", "net"}}));
  for (const char* plugin : {"version6.so", "no_metadata.so", "api5.so"}) root.CopyTestPlugin(plugin);
  RunResult run = Lint(root, {"--json"});
  EXPECT_EQ(run.exitStatus, 0);
  json report = json::parse(run.out);
  EXPECT_EQ(report["plugins"], 2);  // end-autoconf and api5
  ASSERT_EQ(report["skipped_files"].size(), 6u);
  EXPECT_EQ(report["skipped_files"][0], (json{{"path", kFirst + "README"},
                                              {"reason", "unknown type"},
                                              {"message", "Skipping " + kFirst + "README: unknown type"}}));
  // The same lines, in the same order, as the activator prints when it loads them.
  std::string messages;
  for (const json& skipped : report["skipped_files"]) messages += skipped["message"].get<std::string>() + "\n";
  EXPECT_EQ(messages, RunBootstrand(root, {"--tags"}).err);
  EXPECT_EQ(Lint(root, {}).out.substr(0, messages.size()), messages);
}

// One tree with every way to deadlock the activator: a cycle and a plugin waiting on
// it, a preemptive provider waiting for the rival it holds back, a plugin requiring
// its own tag, a JSON plugin requiring the JSON kind tag, and two preemptive
// providers of one tag.
TEST(Lint, ReportsWhatWouldStopABoot) {
  HostRoot root;
  const std::vector<std::tuple<const char*, std::vector<std::string>, std::vector<std::string>, json>> plugins = {
      {"a", {"ta"}, {"tc"}, {}}, {"b", {"tb"}, {"ta"}, {}}, {"c", {"tc"}, {"tb"}, {}}, {"d", {"td"}, {"tb"}, {}},
      {"dhcp", {"ip"}, {"link"}, Preemptive()}, {"link", {"ip", "link"}, {}, {}},
      {"loop", {"loop", "other"}, {"loop", "other", "net"}, {}}, {"net", {"net"}, {}, {}},
      {"last", {}, {"json plugins"}, {}},
      {"p1", {"addr"}, {}, Preemptive()}, {"static", {"addr"}, {}, {}},
      {"zeroconf", {"addr", "mdns"}, {}, Preemptive()}};
  for (const auto& [name, provides, requires_, metadata] : plugins) {
    root.WritePlugin(name + std::string(".json"), JsonPlugin(provides, requires_, {}, metadata));
  }
  RunResult run = Lint(root, {"--json"});
  EXPECT_EQ(run.exitStatus, 1);
  json report = json::parse(run.out);
  EXPECT_FALSE(report["boot_completes"].get<bool>());
  EXPECT_EQ(report["stops"], json::parse(R"([
      {"kind": "cycle", "plugins": ["a", "b", "c"], "cycle": [
          {"plugin": "a", "waits_for": "c", "tag": "tc", "held_back": false},
          {"plugin": "c", "waits_for": "b", "tag": "tb", "held_back": false},
          {"plugin": "b", "waits_for": "a", "tag": "ta", "held_back": false}]},
      {"kind": "cycle", "plugins": ["dhcp", "link"], "cycle": [
          {"plugin": "dhcp", "waits_for": "link", "tag": "link", "held_back": false},
          {"plugin": "link", "waits_for": "dhcp", "tag": "ip", "held_back": true}]},
      {"kind": "self_requirement", "plugin": "last", "tags": ["json plugins"]},
      {"kind": "self_requirement", "plugin": "loop", "tags": ["loop", "other"]},
      {"kind": "preemptive_conflict", "tag": "addr", "plugins": ["p1", "zeroconf"]},
      {"kind": "blocked", "plugins": ["end-autoconf", "d", "static"]}])"));
  run = Lint(root, {});
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_EQ(run.out,
            "stop: dependency cycle a -> c -> b -> a (a requires \"tc\" from c; c requires \"tb\" from b; b requires "
            "\"ta\" from a)\n"
            "stop: dependency cycle dhcp -> link -> dhcp (dhcp requires \"link\" from link; link is held back by dhcp, "
            "a preemptive provider of \"ip\")\n"
            "stop: plugin last requires \"json plugins\", which it provides itself\n"
            "stop: plugin loop requires \"loop\", \"other\", which it provides itself\n"
            "stop: preemptive providers p1, zeroconf share the tag \"addr\" and hold each other back\n"
            "stop: 3 plugins would never start, waiting on the above: end-autoconf, d, static\n"
            "activation order, no worker limit:\n"
            "  wave 1: passed over: net\n"
            "13 plugins, 6 stops, 0 warnings: boot would stop after 1 wave\n");
  EXPECT_EQ(RunBootstrand(root, {}).exitStatus, kUnmetDependenciesStatus);
}

TEST(Lint, ReportsWhatLooksWrongWithoutStoppingTheBoot) {
  HostRoot root;
  root.WritePlugin("app.json", JsonPlugin({"frontend"}, {"net", "missing-tag"}, {"ok"}));
  root.WritePlugin("cert.json",
                   JsonPlugin({"cert"}, {}, {"ok"}, {{"version", 3}, {"run_once", true}, {"plugin_version", "2"}}));
  root.WritePlugin("dhcp.json", JsonPlugin({"ip"}, {}, {"ok"}, Preemptive()));
  root.WritePlugin("keys.json", JsonPlugin({"keys"}, {}, {"ok"}, {{"version", 3}, {"run_once", true}}));
  root.WritePlugin("log1.json", JsonPlugin({"syslog"}, {}, {"ok"}));
  root.WritePlugin("log2.json", JsonPlugin({"syslog"}, {}, {"ok"}));
  root.WritePlugin("net.json", JsonPlugin({"net"}, {"missing-tag", "native plugins"}, {"ok"}));
  root.WritePlugin("static.json", JsonPlugin({"ip"}, {}, {"ok"}));
  RunResult run = Lint(root, {"--json", "--workers", "2", "--disable", "cert2,app", "--disable=syslog,dhcp,ghost"});
  EXPECT_EQ(run.exitStatus, 0);
  json report = json::parse(run.out);
  EXPECT_EQ(report["stops"], json::array());
  EXPECT_EQ(report["warnings"], json::parse(R"([
      {"kind": "unprovided_tag", "tag": "missing-tag", "plugins": ["app", "net"]},
      {"kind": "shared_tag", "tag": "syslog", "plugins": ["log1", "log2"]},
      {"kind": "run_once_without_version", "plugin": "keys"},
      {"kind": "disabled", "plugin": "app", "by": [{"entry": "app", "as": "name"}]},
      {"kind": "disabled", "plugin": "cert", "by": [{"entry": "cert2", "as": "run-once key"}]},
      {"kind": "disabled", "plugin": "dhcp", "by": [{"entry": "dhcp", "as": "name"}]},
      {"kind": "disabled", "plugin": "log1", "by": [{"entry": "syslog", "as": "tag"}]},
      {"kind": "disabled", "plugin": "log2", "by": [{"entry": "syslog", "as": "tag"}]},
      {"kind": "unmatched_disable", "entry": "ghost"}])"));
  EXPECT_EQ(report["preempted"], json::array());
  // Disabled plugins are passed over without a worker; the disabled preemptive
  // provider holds its rival back until then, and preempts nobody.
  EXPECT_EQ(Lint(root, {"--workers=2", "--disable", "cert2,app,syslog,dhcp,ghost"}).out,
            "warning: tag \"missing-tag\" is required by app, net but no plugin provides it\n"
            "warning: tag \"syslog\" is provided by log1, log2, none of them preemptive\n"
            "warning: run-once plugin keys has no plugin version, so its run-once key is its name alone\n"
            "warning: plugin app would be disabled by --disable \"app\" (its name)\n"
            "warning: plugin cert would be disabled by --disable \"cert2\" (its run-once key)\n"
            "warning: plugin dhcp would be disabled by --disable \"dhcp\" (its name)\n"
            "warning: plugin log1 would be disabled by --disable \"syslog\" (a tag it provides)\n"
            "warning: plugin log2 would be disabled by --disable \"syslog\" (a tag it provides)\n"
            "warning: --disable \"ghost\" matches no plugin name, provided tag or run-once key\n"
            "activation order, at most 2 workers:\n"
            "  wave 1: keys, net; passed over: cert, dhcp, log1, log2\n"
            "  wave 2: static; passed over: app\n"
            "  wave 3: end-autoconf\n"
            "9 plugins, 0 stops, 9 warnings: boot would complete in 3 waves\n");
}

TEST(Lint, SplitsWavesByWorkerCountAndDropsPreemptedRivals) {
  HostRoot root;
  root.WriteCommand("ok", "sleep 0.05");
  for (const char* name : {"a1", "a2", "a3", "a4"}) {
    root.WritePlugin(name + std::string(".json"), JsonPlugin({name}, {}, {"ok"}));
  }
  root.WritePlugin("after.json", JsonPlugin({"after"}, {"time"}, {"ok"}));
  root.WritePlugin("ntp.json", JsonPlugin({"time"}, {}, {"ok"}));
  root.CopyTestPlugin("api3.so");  // a run-once provider of "time" with a version
  root.CopyTestPlugin("api5.so");  // the preemptive provider of "time"

  RunResult run = Lint(root, {"--workers", "2"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out,
            "activation order, at most 2 workers:\n"
            "  wave 1: a1, a2\n  wave 2: a3, a4\n"
            "  wave 3: api5\n    api3 preempted by api5\n    ntp preempted by api5\n"
            "  wave 4: after\n  wave 5: end-autoconf\n"
            "9 plugins, 0 stops, 0 warnings: boot would complete in 5 waves\n");
  EXPECT_EQ(json::parse(Lint(root, {"--json", "--workers", "2"}).out)["preempted"],
            json::parse(R"([{"plugin": "api3", "by": "api5", "wave": 3},
                            {"plugin": "ntp", "by": "api5", "wave": 3}])"));
  ExpectTheActivatorsSerialOrder(root);
}

// Host paths, under the root; a bare name is looked up in the plugin directories; no
// built-in plugin, as when the activator is given plugins.
TEST(Lint, ReadsTheFilesAndDirectoriesItIsGiven) {
  HostRoot root;
  root.WriteFile("/opt/plugins/x.json", JsonPlugin({"x"}, {"y"}, {"ok"}).dump());
  root.WriteFile("/opt/plugins/.hidden.json", JsonPlugin({"hidden"}, {}, {"ok"}).dump());
  root.WriteFile("/opt/plugins/nested/n.json", JsonPlugin({"n"}, {}, {"ok"}).dump());
  root.WriteFile("/srv/y.json", JsonPlugin({"y"}, {}, {"ok"}).dump());
  root.WritePlugin("z.json", JsonPlugin({"z"}, {}, {"ok"}), 2);
  root.WritePlugin("-odd.json", JsonPlugin({"odd"}, {}, {"ok"}));
  json report = json::parse(Lint(root, {"--json", "/opt/plugins/", "/srv/y.json", "z.json", "--", "-odd.json"}).out);
  EXPECT_EQ(report["plugins"], 4);
  EXPECT_EQ(report["waves"], json::parse(R"([{"run": ["y", "-odd", "z"], "passed_over": []},
                                             {"run": ["x"], "passed_over": []}])"));
  RunResult missing = Lint(root, {"/srv/y.json", "/nowhere.json"});
  EXPECT_EQ(missing.exitStatus, 2);
  EXPECT_EQ(missing.out, "");
  EXPECT_EQ(missing.err.substr(0, missing.err.find('\n')),
            "bootstrand-lint: cannot read /nowhere.json: No such file or directory");
}

TEST(Lint, RejectsBadArgumentsWithStatus2) {
  HostRoot root;
  std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--bogus"}, "unknown option --bogus"}, {{"-w", "2"}, "unknown option -w"},
      {{"--workers"}, "missing value for --workers"}, {{"--json", "--disable"}, "missing value for --disable"},
      {{""}, "an empty path names no plugin"}};
  for (const std::string value : {"many", "0", "-3", "2x", "99999999999", ""}) {
    std::string message = "--workers needs a whole number of at least 1, not '" + value + "'";
    cases.push_back({{"--workers=" + value}, message});
    if (!value.empty()) cases.push_back({{"--workers", value}, message});
  }
  std::string usage = Lint(root, {"--help"}).out;
  EXPECT_EQ(usage.substr(0, usage.find('\n')),
            "usage: bootstrand-lint [--json] [--workers N] [--disable a,b] [PATH...]");
  for (const auto& [arguments, message] : cases) {
    SCOPED_TRACE(arguments.front());
    RunResult run = Lint(root, arguments);
    EXPECT_EQ(run.exitStatus, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "bootstrand-lint: " + message + "\n" + usage);
  }
}

}  // namespace
}  // namespace bootstrand::testing
