// bootstrand-lint through the real binary on real plugin files: each finding, the
// waves, the exit statuses, and that it leaves the host root exactly as it was. Where
// the activator can say the same, the test asks it too.
#include <gtest/gtest.h>

#include <filesystem>

#include "main/startup.h"
#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

const std::string kFirst = "/usr/libexec/bootstrand/plugins/";

struct LintRun : RunResult {
  nlohmann::json Json() const { return nlohmann::json::parse(out); }
};

LintRun RunLint(const HostRoot& root, const std::vector<std::string>& arguments) {
  return {RunProgram(BOOTSTRAND_LINT_BINARY, root, arguments)};
}

nlohmann::json Preemptive() { return {{"version", 5}, {"run_once", false}, {"preemptive_provider", true}}; }

// The plugins that the activator handed to a worker, in order.
std::vector<std::string> Activated(const HostRoot& root) {
  std::vector<std::string> names;
  const std::string prefix = "Activating Bootstrand plugin ";
  for (const std::string& line : root.Channel("kernel")) {
    if (line.rfind(prefix, 0) == 0) names.push_back(line.substr(prefix.size(), line.size() - prefix.size() - 1));
  }
  return names;
}

// The plugins of every wave that need a worker, in order.
std::vector<std::string> WaveOrder(const nlohmann::json& report) {
  std::vector<std::string> names;
  for (const nlohmann::json& wave : report["waves"]) {
    for (const nlohmann::json& name : wave["run"]) names.push_back(name);
  }
  return names;
}

// Runs the linter and checks that it created, removed and emptied nothing in the
// root: no run-once marker, no channel sink, no log.
LintRun LintIn(const HostRoot& root, const std::vector<std::string>& arguments) {
  root.WriteFile("/.runonce", "bootstrand.run-once=earlier-boot");
  auto before = Snapshot(root.Root());
  LintRun run = RunLint(root, arguments);
  EXPECT_EQ(Snapshot(root.Root()), before);
  EXPECT_EQ(root.ReadFile("/.runonce"), "bootstrand.run-once=earlier-boot");
  return run;
}

void CopyTestPlugin(const HostRoot& root, const std::string& file) {
  std::filesystem::copy_file(std::string(BOOTSTRAND_TEST_PLUGIN_DIR) + "/" + file, root.Path(kFirst + file));
}

TEST(Lint, ReportsTheExampleTreeInWaves) {
  HostRoot root;
  std::filesystem::copy(std::string(BOOTSTRAND_EXAMPLES_DIR) + "/tree", root.Root(),
                        std::filesystem::copy_options::recursive | std::filesystem::copy_options::overwrite_existing);
  LintRun run = LintIn(root, {});
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
  for (const std::vector<std::string>& disable : {std::vector<std::string>{}, {"--disable", "30-dhcp,remote-syslog"}}) {
    std::vector<std::string> arguments = {"--json", "--workers", "1"};
    arguments.insert(arguments.end(), disable.begin(), disable.end());
    nlohmann::json report = LintIn(root, arguments).Json();
    std::filesystem::remove_all(root.Path("/var/run"));
    arguments = {"--max-workers", "1"};
    arguments.insert(arguments.end(), disable.begin(), disable.end());
    ASSERT_EQ(RunBootstrand(root, arguments).exitStatus, 0);
    EXPECT_EQ(WaveOrder(report), Activated(root));
    EXPECT_EQ(WaveOrder(report).size(), disable.empty() ? 13u : 12u);
  }
}

TEST(Lint, ReportsSkippedFilesWithTheActivatorsMessages) {
  HostRoot root;
  root.WriteFile(kFirst + "README", "not a plugin");
  root.WriteFile(kFirst + "broken.json", "{ nope");
  root.WritePlugin("future.json", JsonPlugin({"x"}, {}, {}, {{"version", 6}}));
  root.WritePlugin("typo.json", JsonPlugin({"x"}, {}, {}, {{"requires", "net"}}));
  CopyTestPlugin(root, "version6.so");
  CopyTestPlugin(root, "no_metadata.so");
  CopyTestPlugin(root, "api5.so");
  LintRun run = LintIn(root, {"--json"});
  EXPECT_EQ(run.exitStatus, 0);
  nlohmann::json report = run.Json();
  EXPECT_EQ(report["plugins"], 2);  // end-autoconf and api5
  std::string messages;
  for (const nlohmann::json& skipped : report["skipped_files"])
    messages += skipped["message"].get<std::string>() + "\n";
  EXPECT_EQ(report["skipped_files"][0], (nlohmann::json{{"path", kFirst + "README"},
                                                        {"reason", "unknown type"},
                                                        {"message", "Skipping " + kFirst + "README: unknown type"}}));

  // The same lines, in the same order, as the activator prints when it loads them.
  RunResult activator = RunBootstrand(root, {"--tags"});
  EXPECT_EQ(messages, activator.err);
  EXPECT_EQ(report["skipped_files"].size(), 6u);
  EXPECT_EQ(LintIn(root, {}).out.substr(0, messages.size()), messages);
}

// Trees that deadlock the activator, and what the linter says stops them.
struct StopCase {
  const char* name;
  std::vector<std::pair<std::string, nlohmann::json>> plugins;
  nlohmann::json stops;
  const char* line;  // the first line of the text report
};

TEST(Lint, ReportsWhatWouldStopABoot) {
  const std::vector<StopCase> cases = {
      {"cycle, and the plugins waiting on it",
       {{"a.json", JsonPlugin({"ta"}, {"tc"}, {})},
        {"b.json", JsonPlugin({"tb"}, {"ta"}, {})},
        {"c.json", JsonPlugin({"tc"}, {"tb"}, {})},
        {"d.json", JsonPlugin({"td"}, {"tb"}, {})},
        {"e.json", JsonPlugin({"te"}, {}, {})}},
       {{{"kind", "cycle"},
         {"plugins", {"a", "b", "c"}},
         {"cycle",
          {{{"plugin", "a"}, {"waits_for", "c"}, {"tag", "tc"}, {"held_back", false}},
           {{"plugin", "c"}, {"waits_for", "b"}, {"tag", "tb"}, {"held_back", false}},
           {{"plugin", "b"}, {"waits_for", "a"}, {"tag", "ta"}, {"held_back", false}}}}},
        {{"kind", "blocked"}, {"plugins", {"end-autoconf", "d"}}}},
       "stop: dependency cycle a -> c -> b -> a (a requires \"tc\" from c; c requires \"tb\" from b; b requires \"ta\" "
       "from a)"},
      {"a preemptive provider waiting for the rival it holds back",
       {{"dhcp.json", JsonPlugin({"ip"}, {"link"}, {}, Preemptive())},
        {"link.json", JsonPlugin({"ip", "link"}, {}, {})}},
       {{{"kind", "cycle"},
         {"plugins", {"dhcp", "link"}},
         {"cycle",
          {{{"plugin", "dhcp"}, {"waits_for", "link"}, {"tag", "link"}, {"held_back", false}},
           {{"plugin", "link"}, {"waits_for", "dhcp"}, {"tag", "ip"}, {"held_back", true}}}}},
        {{"kind", "blocked"}, {"plugins", {"end-autoconf"}}}},
       "stop: dependency cycle dhcp -> link -> dhcp (dhcp requires \"link\" from link; link is held back by dhcp, a "
       "preemptive provider of \"ip\")"},
      {"a plugin requiring its own tag",
       {{"loop.json", JsonPlugin({"loop", "other"}, {"loop", "other", "net"}, {})},
        {"net.json", JsonPlugin({"net"}, {}, {})}},
       {{{"kind", "self_requirement"}, {"plugin", "loop"}, {"tags", {"loop", "other"}}},
        {{"kind", "blocked"}, {"plugins", {"end-autoconf"}}}},
       "stop: plugin loop requires \"loop\", \"other\", which it provides itself"},
      {"a JSON plugin requiring the JSON kind tag",
       {{"last.json", JsonPlugin({}, {"json plugins"}, {})}},
       {{{"kind", "self_requirement"}, {"plugin", "last"}, {"tags", {"json plugins"}}},
        {{"kind", "blocked"}, {"plugins", {"end-autoconf"}}}},
       "stop: plugin last requires \"json plugins\", which it provides itself"},
      {"two preemptive providers of one tag",
       {{"dhcp.json", JsonPlugin({"ip"}, {}, {}, Preemptive())},
        {"static.json", JsonPlugin({"ip"}, {}, {})},
        {"zeroconf.json", JsonPlugin({"ip", "mdns"}, {}, {}, Preemptive())}},
       {{{"kind", "preemptive_conflict"}, {"tag", "ip"}, {"plugins", {"dhcp", "zeroconf"}}},
        {{"kind", "blocked"}, {"plugins", {"end-autoconf", "static"}}}},
       "stop: preemptive providers dhcp, zeroconf share the tag \"ip\" and hold each other back"},
  };
  for (const StopCase& each : cases) {
    SCOPED_TRACE(each.name);
    HostRoot root;
    for (const auto& [file, plugin] : each.plugins) root.WritePlugin(file, plugin);
    LintRun json = LintIn(root, {"--json"});
    EXPECT_EQ(json.exitStatus, 1);
    EXPECT_EQ(json.Json()["stops"], each.stops);
    EXPECT_FALSE(json.Json()["boot_completes"].get<bool>());
    LintRun text = LintIn(root, {});
    EXPECT_EQ(text.exitStatus, 1);
    EXPECT_EQ(text.out.substr(0, text.out.find('\n')), each.line);
    EXPECT_EQ(RunBootstrand(root, {}).exitStatus, kUnmetDependenciesStatus);
  }
}

TEST(Lint, ReportsWhatLooksWrongWithoutStoppingTheBoot) {
  HostRoot root;
  nlohmann::json runOnce = {{"version", 3}, {"run_once", true}};
  root.WritePlugin("app.json", JsonPlugin({"frontend"}, {"net", "missing-tag"}, {"ok"}));
  root.WritePlugin("cert.json",
                   JsonPlugin({"cert"}, {}, {"ok"}, {{"version", 3}, {"run_once", true}, {"plugin_version", "2"}}));
  root.WritePlugin("dhcp.json", JsonPlugin({"ip"}, {}, {"ok"}, Preemptive()));
  root.WritePlugin("keys.json", JsonPlugin({"keys"}, {}, {"ok"}, runOnce));
  root.WritePlugin("log1.json", JsonPlugin({"syslog"}, {}, {"ok"}));
  root.WritePlugin("log2.json", JsonPlugin({"syslog"}, {}, {"ok"}));
  root.WritePlugin("net.json", JsonPlugin({"net"}, {"missing-tag", "native plugins"}, {"ok"}));
  root.WritePlugin("static.json", JsonPlugin({"ip"}, {}, {"ok"}));
  LintRun run = LintIn(root, {"--json", "--workers", "2", "--disable", "cert2,app", "--disable=syslog,dhcp,ghost"});
  EXPECT_EQ(run.exitStatus, 0);
  nlohmann::json report = run.Json();
  EXPECT_EQ(report["stops"], nlohmann::json::array());
  EXPECT_EQ(report["warnings"],
            (nlohmann::json{
                {{"kind", "unprovided_tag"}, {"tag", "missing-tag"}, {"plugins", {"app", "net"}}},
                {{"kind", "shared_tag"}, {"tag", "syslog"}, {"plugins", {"log1", "log2"}}},
                {{"kind", "run_once_without_version"}, {"plugin", "keys"}},
                {{"kind", "disabled"}, {"plugin", "app"}, {"by", {{{"entry", "app"}, {"as", "name"}}}}},
                {{"kind", "disabled"}, {"plugin", "cert"}, {"by", {{{"entry", "cert2"}, {"as", "run-once key"}}}}},
                {{"kind", "disabled"}, {"plugin", "dhcp"}, {"by", {{{"entry", "dhcp"}, {"as", "name"}}}}},
                {{"kind", "disabled"}, {"plugin", "log1"}, {"by", {{{"entry", "syslog"}, {"as", "tag"}}}}},
                {{"kind", "disabled"}, {"plugin", "log2"}, {"by", {{{"entry", "syslog"}, {"as", "tag"}}}}},
                {{"kind", "unmatched_disable"}, {"entry", "ghost"}},
            }));
  // Disabled plugins are passed over without a worker; the disabled preemptive
  // provider holds its rival back until then, and preempts nobody.
  EXPECT_EQ(report["waves"], (nlohmann::json{
                                 {{"run", {"keys", "net"}}, {"passed_over", {"cert", "dhcp", "log1", "log2"}}},
                                 {{"run", {"static"}}, {"passed_over", {"app"}}},
                                 {{"run", {"end-autoconf"}}, {"passed_over", nlohmann::json::array()}},
                             }));
  EXPECT_EQ(report["preempted"], nlohmann::json::array());

  EXPECT_EQ(LintIn(root, {"--workers=2", "--disable", "cert2,app,syslog,dhcp,ghost"}).out,
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
  for (const char* name : {"a1", "a2", "a3", "a4"})
    root.WritePlugin(std::string(name) + ".json", JsonPlugin({name}, {}, {"ok"}));
  root.WritePlugin("after.json", JsonPlugin({"after"}, {"time"}, {"ok"}));
  root.WritePlugin("ntp.json", JsonPlugin({"time"}, {}, {"ok"}));
  CopyTestPlugin(root, "api3.so");  // a run-once provider of "time" with a version
  CopyTestPlugin(root, "api5.so");  // the preemptive provider of "time"

  nlohmann::json report = LintIn(root, {"--json", "--workers", "2"}).Json();
  EXPECT_EQ(report["workers"], 2);
  EXPECT_EQ(report["warnings"], nlohmann::json::array());
  nlohmann::json none = nlohmann::json::array();
  EXPECT_EQ(report["waves"], (nlohmann::json{
                                 {{"run", {"a1", "a2"}}, {"passed_over", none}},
                                 {{"run", {"a3", "a4"}}, {"passed_over", none}},
                                 {{"run", {"api5"}}, {"passed_over", none}},
                                 {{"run", {"after"}}, {"passed_over", none}},
                                 {{"run", {"end-autoconf"}}, {"passed_over", none}},
                             }));
  EXPECT_EQ(report["preempted"], (nlohmann::json{{{"plugin", "api3"}, {"by", "api5"}, {"wave", 3}},
                                                 {{"plugin", "ntp"}, {"by", "api5"}, {"wave", 3}}}));

  LintRun unlimited = LintIn(root, {});
  EXPECT_EQ(unlimited.exitStatus, 0);
  EXPECT_EQ(unlimited.out,
            "activation order, no worker limit:\n"
            "  wave 1: a1, a2, a3, a4, api5\n"
            "    api3 preempted by api5\n"
            "    ntp preempted by api5\n"
            "  wave 2: after\n"
            "  wave 3: end-autoconf\n"
            "9 plugins, 0 stops, 0 warnings: boot would complete in 3 waves\n");

  nlohmann::json serial = LintIn(root, {"--json", "--workers", "1"}).Json();
  ASSERT_EQ(RunBootstrand(root, {"--max-workers", "1"}).exitStatus, 0);
  EXPECT_EQ(WaveOrder(serial), Activated(root));
}

TEST(Lint, ReadsTheFilesAndDirectoriesItIsGiven) {
  HostRoot root;
  root.WriteFile("/opt/plugins/x.json", JsonPlugin({"x"}, {"y"}, {"ok"}).dump());
  root.WriteFile("/opt/plugins/.hidden.json", JsonPlugin({"hidden"}, {}, {"ok"}).dump());
  root.WriteFile("/opt/plugins/nested/n.json", JsonPlugin({"n"}, {}, {"ok"}).dump());
  root.WriteFile("/srv/y.json", JsonPlugin({"y"}, {}, {"ok"}).dump());
  root.WritePlugin("z.json", JsonPlugin({"z"}, {}, {"ok"}), 2);
  root.WritePlugin("-odd.json", JsonPlugin({"odd"}, {}, {"ok"}));

  // Host paths, under the root; a bare name is looked up in the plugin directories;
  // no built-in plugin, as when the activator is given plugins.
  LintRun run = LintIn(root, {"--json", "/opt/plugins/", "/srv/y.json", "z.json", "--", "-odd.json"});
  EXPECT_EQ(run.exitStatus, 0) << run.err;
  nlohmann::json report = run.Json();
  EXPECT_EQ(report["plugins"], 4);
  EXPECT_EQ(report["waves"], (nlohmann::json{{{"run", {"y", "-odd", "z"}}, {"passed_over", nlohmann::json::array()}},
                                             {{"run", {"x"}}, {"passed_over", nlohmann::json::array()}}}));

  LintRun missing = LintIn(root, {"/srv/y.json", "/nowhere.json"});
  EXPECT_EQ(missing.exitStatus, 2);
  EXPECT_EQ(missing.out, "");
  EXPECT_EQ(missing.err.substr(0, missing.err.find('\n')),
            "bootstrand-lint: cannot read /nowhere.json: No such file or directory");
}

TEST(Lint, RejectsBadArgumentsWithStatus2) {
  HostRoot root;
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--bogus"}, "unknown option --bogus"},
      {{"-w", "2"}, "unknown option -w"},
      {{"--workers"}, "missing value for --workers"},
      {{"--workers", "many"}, "--workers needs a whole number of at least 1, not 'many'"},
      {{"--workers=0"}, "--workers needs a whole number of at least 1, not '0'"},
      {{"--workers", "-3"}, "--workers needs a whole number of at least 1, not '-3'"},
      {{"--workers", "2x"}, "--workers needs a whole number of at least 1, not '2x'"},
      {{"--workers", "99999999999"}, "--workers needs a whole number of at least 1, not '99999999999'"},
      {{"--workers="}, "--workers needs a whole number of at least 1, not ''"},
      {{"--json", "--disable"}, "missing value for --disable"},
      {{""}, "an empty path names no plugin"},
  };
  std::string usage = LintIn(root, {"--help"}).out;
  EXPECT_EQ(usage.substr(0, usage.find('\n')),
            "usage: bootstrand-lint [--json] [--workers N] [--disable a,b] [PATH...]");
  for (const auto& [arguments, message] : cases) {
    SCOPED_TRACE(arguments.front());
    LintRun run = LintIn(root, arguments);
    EXPECT_EQ(run.exitStatus, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "bootstrand-lint: " + message + "\n" + usage);
  }
}

}  // namespace
}  // namespace bootstrand::testing
