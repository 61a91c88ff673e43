// bootstrand-lint through the real binary on real plugin files: each finding, the
// waves, the exit statuses, and that it leaves the host root exactly as it was. Where
// the activator can say the same, the test asks it too.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "main/startup.h"
#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

using nlohmann::json;

const json kPreemptive = {{"version", 5}, {"run_once", false}, {"preemptive_provider", true}};

// Runs the linter, which must create, remove or empty nothing in the root.
RunResult Lint(const HostRoot& root, const std::vector<std::string>& arguments) {
  root.WriteFile("/.runonce", "bootstrand.run-once=earlier-boot");
  auto before = Snapshot(root.Root());
  RunResult run = RunProgram(BOOTSTRAND_LINT_BINARY, root, arguments);
  EXPECT_EQ(Snapshot(root.Root()), before);
  EXPECT_EQ(root.ReadFile("/.runonce"), "bootstrand.run-once=earlier-boot");
  return run;
}

// The plugins of the linter's waves with one worker, against the order in which a
// serial boot of the activator handed them to workers. Returns the boot.
RunResult ExpectTheActivatorsSerialOrder(const HostRoot& root, const std::vector<std::string>& disable = {}) {
  std::vector<std::string> lint = {"--json", "--workers", "1"}, boot = {"--max-workers", "1"}, waves, activated;
  lint.insert(lint.end(), disable.begin(), disable.end());
  boot.insert(boot.end(), disable.begin(), disable.end());
  json report = json::parse(Lint(root, lint).out);
  for (const json& wave : report["waves"]) {
    for (const json& name : wave["run"]) waves.push_back(name);
  }
  std::filesystem::remove_all(root.Path("/var/run/trove"));
  RunResult run = RunBootstrand(root, boot);
  EXPECT_EQ(run.exitStatus, 0);
  const std::string prefix = "Activating Bootstrand plugin ";
  for (const std::string& line : root.Channel("kernel")) {
    if (line.starts_with(prefix)) activated.push_back(line.substr(prefix.size(), line.size() - prefix.size() - 1));
  }
  EXPECT_EQ(waves, activated);
  return run;
}

// With one worker the waves are the activator's own order, with plugins passed over
// (here disabled) settled while the worker runs.
TEST(Lint, WavesOfTheExampleTreeAreTheActivatorsSerialOrder) {
  HostRoot root;
  root.CopyExampleTree();
  EXPECT_EQ(ExpectTheActivatorsSerialOrder(root, {"--disable=30-dhcp,remote-syslog"}).err, "");
  EXPECT_GE(IndexOf(root.Channel("kernel"), "Bootstrand plugin 30-static-ip activated."), 0);
  EXPECT_TRUE(root.Channel("alert").empty());
}

// One tree with every finding, in text and in JSON. Stops: a cycle through a rival
// that a preemptive provider holds back and a plugin waiting on it, a plugin requiring
// its own tag, a JSON plugin requiring the JSON kind tag, two preemptive providers of
// one tag. An error: a run-once key that is another plugin's tag. Warnings: tags
// nobody provides, a tag shared without a preemptive provider, a run-once plugin
// without a version, each way to disable. Disabled plugins are
// passed over without a worker; the disabled preemptive dhcp4 holds its rival back
// until then, and preempts nobody.
TEST(Lint, ReportsStopsAndWarnings) {
  HostRoot root;
  root.WriteFile("/usr/libexec/bootstrand/plugins/README", "not a plugin");
  root.WritePlugins({{"a", {"ta", "ip"}, {"tc"}, {}, kPreemptive}, {"b", {"tb", "ip"}, {}}, {"c", {"tc"}, {"tb"}},
                     {"d", {"td"}, {"tb"}}, {"loop", {"loop", "other"}, {"loop", "other", "net"}},
                     {"last", {}, {"json plugins"}}, {"p1", {"addr"}, {}, {}, kPreemptive}, {"static", {"addr"}, {}},
                     {"zeroconf", {"addr", "mdns"}, {}, {}, kPreemptive},
                     {"app", {"frontend"}, {"net", "missing-tag"}, {"ok"}},
                     {"cert", {"cert"}, {}, {"ok"}, {{"version", 3}, {"run_once", true}, {"plugin_version", "2"}}},
                     {"keys", {"hostkeys"}, {}, {"ok"}, {{"version", 3}, {"run_once", true}}},
                     {"log1", {"syslog"}, {}, {"ok"}}, {"log2", {"syslog", "keys"}, {}, {"ok"}},
                     {"net", {"net"}, {"missing-tag", "native plugins"}, {"ok"}},
                     {"dhcp4", {"ip4"}, {}, {"ok"}, kPreemptive}, {"static4", {"ip4"}, {}, {"ok"}},
                     {"ntp", {"time"}, {}, {"ok"}, kPreemptive}, {"chrony", {"time"}, {}, {"ok"}}});
  const std::vector<std::string> asJson = {"--json", "--workers", "2", "--disable", "cert2,app",
                                           "--disable=syslog,dhcp4,ghost"};
  RunResult run = Lint(root, {asJson.begin() + 1, asJson.end()});
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_EQ(run.out,
            "Skipping /usr/libexec/bootstrand/plugins/README: unknown type\n"
            "stop: dependency cycle a -> c -> b -> a (a requires \"tc\" from c; c requires \"tb\" from b; b is held "
            "back by a, a preemptive provider of \"ip\")\n"
            "stop: plugin last requires \"json plugins\", which it provides itself\n"
            "stop: plugin loop requires \"loop\", \"other\", which it provides itself\n"
            "stop: preemptive providers p1, zeroconf share the tag \"addr\" and hold each other back\n"
            "stop: 3 plugins would never start, waiting on the above: end-autoconf, d, static\n"
            "error: run-once key \"keys\" of plugin keys is also the name or a tag of log2, which --disable would "
            "turn off with it; give keys a plugin version\n"
            "warning: tag \"missing-tag\" is required by app, net but no plugin provides it\n"
            "warning: tag \"syslog\" is provided by log1, log2, none of them preemptive\n"
            "warning: run-once plugin keys has no plugin version, so its run-once key is its name alone\n"
            "warning: plugin app would be disabled by --disable \"app\" (its name)\n"
            "warning: plugin cert would be disabled by --disable \"cert2\" (its run-once key)\n"
            "warning: plugin dhcp4 would be disabled by --disable \"dhcp4\" (its name)\n"
            "warning: plugin log1 would be disabled by --disable \"syslog\" (a tag it provides)\n"
            "warning: plugin log2 would be disabled by --disable \"syslog\" (a tag it provides)\n"
            "warning: --disable \"ghost\" matches no plugin name, provided tag or run-once key\n"
            "activation order, at most 2 workers:\n"
            "  wave 1: keys, net; passed over: cert, dhcp4, log1, log2\n"
            "  wave 2: ntp, static4; passed over: app\n"
            "    chrony preempted by ntp\n"
            "20 plugins, 1 skipped file, 5 stops, 1 error, 9 warnings: boot would stop after 2 waves\n");
  run = Lint(root, asJson);
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_EQ(json::parse(run.out), json::parse(R"({"boot_completes": false, "plugins": 20, "workers": 2,
      "skipped_files": [{"path": "/usr/libexec/bootstrand/plugins/README", "reason": "unknown type",
                         "message": "Skipping /usr/libexec/bootstrand/plugins/README: unknown type"}],
      "stops": [{"kind": "cycle", "plugins": ["a", "b", "c"], "cycle": [
          {"plugin": "a", "waits_for": "c", "tag": "tc", "held_back": false},
          {"plugin": "c", "waits_for": "b", "tag": "tb", "held_back": false},
          {"plugin": "b", "waits_for": "a", "tag": "ip", "held_back": true}]},
        {"kind": "self_requirement", "plugin": "last", "tags": ["json plugins"]},
        {"kind": "self_requirement", "plugin": "loop", "tags": ["loop", "other"]},
        {"kind": "preemptive_conflict", "tag": "addr", "plugins": ["p1", "zeroconf"]},
        {"kind": "blocked", "plugins": ["end-autoconf", "d", "static"]}],
      "errors": [{"kind": "run_once_key_collision", "plugin": "keys", "key": "keys", "plugins": ["log2"]}],
      "warnings": [{"kind": "unprovided_tag", "tag": "missing-tag", "plugins": ["app", "net"]},
        {"kind": "shared_tag", "tag": "syslog", "plugins": ["log1", "log2"]},
        {"kind": "run_once_without_version", "plugin": "keys"},
        {"kind": "disabled", "plugin": "app", "by": [{"entry": "app", "as": "name"}]},
        {"kind": "disabled", "plugin": "cert", "by": [{"entry": "cert2", "as": "run-once key"}]},
        {"kind": "disabled", "plugin": "dhcp4", "by": [{"entry": "dhcp4", "as": "name"}]},
        {"kind": "disabled", "plugin": "log1", "by": [{"entry": "syslog", "as": "tag"}]},
        {"kind": "disabled", "plugin": "log2", "by": [{"entry": "syslog", "as": "tag"}]},
        {"kind": "unmatched_disable", "entry": "ghost"}], "trust": [],
      "waves": [{"run": ["keys", "net"], "passed_over": ["cert", "dhcp4", "log1", "log2"]},
                {"run": ["ntp", "static4"], "passed_over": ["app"]}],
      "preempted": [{"plugin": "chrony", "by": "ntp", "wave": 2}]})"));
  EXPECT_EQ(RunBootstrand(root, {}).exitStatus, kUnmetDependenciesStatus);
}

// Files neither tool can load are reported with the activator's very lines; the
// native api5 preempts both other providers of "time".
TEST(Lint, SplitsWavesByWorkerCountAndSkipsFilesAsTheActivatorDoes) {
  HostRoot root;
  const std::string first = "/usr/libexec/bootstrand/plugins/";
  root.WriteCommand("ok", "sleep 0.05");
  root.WritePlugins({{"a1", {"a1"}, {}, {"ok"}}, {"a2", {"a2"}, {}, {"ok"}}, {"a3", {"a3"}, {}, {"ok"}},
                     {"a4", {"a4"}, {}, {"ok"}}, {"after", {"after"}, {"time"}, {"ok"}}, {"ntp", {"time"}, {}, {"ok"}},
                     {"future", {"x"}, {}, {}, {{"version", 6}}}, {"typo", {"x"}, {}, {}, {{"requires", "net"}}}});
  root.WriteFile(first + "README", "not a plugin");
  root.WriteFile(first + "broken.json", "{ nope");
  // api3: a run-once provider of "time" with a version; api5: its preemptive provider.
  for (const char* plugin : {"api3.so", "api5.so", "version6.so", "no_metadata.so"}) root.CopyTestPlugin(plugin);
  const std::string skipped = "Skipping " + first + "README: unknown type\n" +
                              "Skipping " + first + "broken.json: 'value' is not a 'JsonObject'\n" +
                              "Skipping " + first + "future.json: Unsupported API version: 6\n" +
                              "Skipping " + first + "no_metadata.so: missing 'metadata'\n" +
                              "Skipping " + first + "typo.json: 'meta[\"requires\"]' is not a 'JsonArray'\n" +
                              "Skipping " + first + "version6.so: Unsupported API version: 6\n";
  RunResult run = Lint(root, {"--workers", "2"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out, skipped +
                         "activation order, at most 2 workers:\n"
                         "  wave 1: a1, a2\n  wave 2: a3, a4\n"
                         "  wave 3: api5\n    api3 preempted by api5\n    ntp preempted by api5\n"
                         "  wave 4: after\n  wave 5: end-autoconf\n"
                         "9 plugins, 6 skipped files, 0 stops, 0 warnings: boot would complete in 5 waves\n");
  EXPECT_EQ(ExpectTheActivatorsSerialOrder(root).err, skipped);
}

// A prediction against the boot it predicts. A serial boot of plugins that sleep known
// times predicts a boot with two workers, then that boot runs: the activation time
// within 10 %, the same critical chain as the analyzer finds in it. Shorter times for
// the chain's slowest plugin, or a longer one for a plugin without a line in the log,
// move the prediction by exactly the difference. The sleeps dwarf the time spent
// outside plugins; the whole test takes about 2.5 s.
TEST(Lint, PredictsABootWithTwoWorkersFromASerialBootsLog) {
  HostRoot root;
  root.WriteCommand("nap", "sleep \"${1#--for=}\"");
  root.WritePlugins({{"a", {"a"}, {}, {"nap --for 0.45"}}, {"b", {"b"}, {}, {"nap --for 0.15"}},
                     {"c", {"c"}, {}, {"nap --for 0.15"}}, {"d", {"d"}, {"a"}, {"nap --for 0.3"}},
                     {"e", {"e"}, {"b", "c"}, {"nap --for 0.225"}}, {"f", {"f"}, {"d", "e"}, {"nap --for 0.15"}}});
  ASSERT_EQ(RunBootstrand(root, {"--max-workers", "1"}).exitStatus, 0);
  std::string serial, withoutF;
  for (const std::string& line : root.ReadLines("/var/log/sysboot.log")) {
    serial += line + "\n";
    if (!line.ends_with(" sysboot: f")) withoutF += line + "\n";
  }
  root.WriteFile("/serial.log", serial);
  root.WriteFile("/without-f.log", withoutF);
  auto predict = [&](const std::string& log, std::vector<std::string> more) {
    more.insert(more.begin(), {"--json", "--workers", "2", "--predict", root.Path(log)});
    RunResult run = Lint(root, more);
    EXPECT_EQ(run.exitStatus, 0) << run.err;
    return json::parse(run.out);
  };
  json predicted = predict("/serial.log", {})["predicted"];

  ASSERT_EQ(RunBootstrand(root, {"--max-workers", "2"}).exitStatus, 0);
  json boot = json::parse(RunProgram(BOOTSTRAND_ANALYZE_BINARY, root, {"--json", "--plugins"}).out);
  double measured = boot["activation_us"].get<double>(), activation = predicted["activation_us"].get<double>();
  EXPECT_NEAR(activation, measured, measured / 10);
  Lines chain;
  for (const json& link : boot["critical_chain"]) chain.push_back(link["name"]);
  EXPECT_EQ(predicted["critical_chain"], json(chain));
  EXPECT_EQ(chain, (Lines{"a", "d", "f", "end-autoconf"}));

  std::map<std::string, long long> took;
  for (const json& plugin : predicted["plugins"]) {
    took[plugin["name"]] = plugin["end_us"].get<long long>() - plugin["start_us"].get<long long>();
  }
  ASSERT_EQ(took.size(), 7u);
  EXPECT_EQ(predict("/serial.log", {"--set-time", "a=0.3"})["predicted"]["activation_us"],
            activation - (took["a"] - 300000));
  json defaulted = predict("/without-f.log", {"--default-time=0.5"});
  EXPECT_EQ(defaulted["predicted"]["activation_us"], activation + (500000 - took["f"]));
  EXPECT_EQ(defaulted["defaulted"], json::array({"f"}));
}

// Host paths, under the root; a bare name is looked up in the plugin directories; no
// built-in plugin, as when the activator is given plugins.
TEST(Lint, ReadsTheFilesAndDirectoriesItIsGiven) {
  HostRoot root;
  root.WriteFile("/opt/plugins/x.json", JsonPlugin({"x"}, {"y"}, {"ok"}).dump());
  root.WriteFile("/opt/plugins/.hidden.json", JsonPlugin({"hidden"}, {}, {"ok"}).dump());
  root.WriteFile("/opt/plugins/nested/n.json", JsonPlugin({"n"}, {}, {"ok"}).dump());
  root.WriteFile("/srv/y.json", JsonPlugin({"y"}, {}, {"ok"}).dump());
  root.WritePlugins({{"z", {"z"}, {}, {"ok"}}}, 2);
  root.WritePlugins({{"-odd", {"odd"}, {}, {"ok"}}});
  EXPECT_EQ(Lint(root, {"/opt/plugins/", "/srv/y.json", "z.json", "--", "-odd.json"}).out,
            "activation order, no worker limit:\n  wave 1: y, -odd, z\n  wave 2: x\n"
            "4 plugins, 0 stops, 0 warnings: boot would complete in 2 waves\n");
}

TEST(Lint, RejectsBadArgumentsWithStatus2) {
  HostRoot root;
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--bogus"}, "unknown option --bogus"},
      {{"--json", "--disable"}, "missing value for --disable"},
      {{"--workers=0"}, "--workers needs a whole number of at least 1, not '0'"},
      {{"--workers", "2x"}, "--workers needs a whole number of at least 1, not '2x'"},
      {{""}, "an empty path names no plugin"},
      {{"/nowhere.json"}, "cannot read /nowhere.json: No such file or directory"},
      {{"--predict", "log", "--set-time", "a"}, "--set-time needs PLUGIN=SECONDS, not 'a'"},
      {{"--predict=log", "--set-time=a=b=-1"}, "--set-time needs a number of seconds, such as 0.25, not '-1'"},
      {{"--default-time", "1"}, "--set-time and --default-time need --predict"},
      {{"--strict", "--predict", "log"}, "--strict does not go with --predict"}};
  std::string usage = Lint(root, {"--help"}).out;
  EXPECT_EQ(usage.substr(0, usage.find('\n')),
            "usage: bootstrand-lint [--json] [--strict] [--workers N] [--disable a,b] [PATH...]");
  for (const auto& [arguments, message] : cases) {
    RunResult run = Lint(root, arguments);
    EXPECT_EQ(run.exitStatus, 2) << message;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "bootstrand-lint: " + message + "\n" + usage);
  }
}

// Operator mistakes, each with its exit status and the one line that says what went
// wrong: on standard error for the analyzer, among the skipped files for the linter,
// which runs in the folder /work. Without --strict they keep the status of a boot
// that would complete.
TEST(Lint, OperatorMistakes) {
  HostRoot root;
  const std::string plugins = "/usr/libexec/bootstrand/plugins/", lint = BOOTSTRAND_LINT_BINARY;
  std::filesystem::create_directories(root.Path("/work"));
  std::filesystem::copy_file(BOOTSTRAND_TEST_PLUGIN_DIR "/api3.so", root.Path("/work/api3.so"));
  root.WriteFile("/work/broken.json", "{ nope");
  root.WriteFile(plugins + "empty.json", "");
  root.WritePlugins({{"a", {"a"}, {}}});
  std::filesystem::create_symlink("a.json", root.Path(plugins + "b.json"));
  root.WriteFile("/var/log/garbage.log", "garbage\n");
  const std::string link = "Skipping " + plugins + "b.json: symbolic link, which bootstrand passes over",
                    empty = "Skipping " + plugins + "empty.json: 'value' is not a 'JsonObject'";
  const struct {
    std::vector<std::string> command;
    int status;
    std::string line;
  } rows[] = {
      {{lint, "api3.so"}, 0, "1 plugin, 0 stops, 0 warnings: boot would complete in 1 wave"},
      {{lint, "--strict", "broken.json"}, 3, "Skipping ./broken.json: 'value' is not a 'JsonObject'"},
      {{lint, plugins}, 0, link},
      {{lint, "--strict"}, 3, link},
      {{lint, plugins + "empty.json"}, 0, empty},
      {{lint, "--strict", plugins + "empty.json"}, 3, empty},
      {{BOOTSTRAND_ANALYZE_BINARY, root.Path("/var/log/garbage.log")}, 1,
       "bootstrand-analyze: " + root.Path("/var/log/garbage.log") + " holds no timing record"},
      {{BOOTSTRAND_ANALYZE_BINARY, "--compare", "/dev/null"}, 1, "bootstrand-analyze: /dev/null holds no timing record"},
  };
  root.WriteFile("/var/log/sysboot.log", "Ondrik Initialization Time: 3000000\n");
  for (const auto& row : rows) {
    std::vector<std::string> arguments = {"-c", "cd \"$BOOTSTRAND_ROOT/work\" && exec \"$@\"", "sh"};
    arguments.insert(arguments.end(), row.command.begin(), row.command.end());
    RunResult run = RunProgram("/bin/sh", root, arguments);
    EXPECT_EQ(run.exitStatus, row.status) << row.line;
    bool analyzer = row.command.front() != lint;
    EXPECT_EQ(run.err, analyzer ? row.line + "\n" : "");
    EXPECT_TRUE(analyzer || run.out.find(row.line + "\n") != std::string::npos) << run.out;
  }
}

// Who besides root could change what a boot loads or runs: a plugin writable by its
// group, a folder above the plugins writable by everyone despite its sticky bit, the
// executable of a command two plugins run owned by another user, and the second
// plugin directory a link of that user's to a folder anyone may write. Each is
// reported once; only --strict fails on them. The tree was clean before.
TEST(Lint, ReportsPathsOthersCouldChange) {
  if (geteuid() != 0) GTEST_SKIP() << "giving files to another user needs root";
  HostRoot root;
  root.WriteCommand("net up", "true");
  root.WritePlugins({{"a", {"a"}, {}, {"net up"}}, {"b", {"b"}, {}, {"net up --fast"}}});
  EXPECT_EQ(Lint(root, {"--strict", "--json"}).exitStatus, 0);

  const passwd* user = getpwuid(65534);
  const std::string other = user != nullptr ? user->pw_name : "65534";
  ASSERT_EQ(chmod(root.Path("/usr/libexec/bootstrand/plugins/a.json").c_str(), 0664), 0);
  ASSERT_EQ(chmod(root.Path("/usr/libexec").c_str(), 01777), 0);
  ASSERT_EQ(chown(root.Path("/usr/lib/tessary/cormcli/net/up").c_str(), 65534, 0), 0);
  std::filesystem::create_directories(root.Path("/opt/plugins"));
  ASSERT_EQ(chmod(root.Path("/opt/plugins").c_str(), 0777), 0);
  std::filesystem::create_symlink("../../../opt/plugins", root.Path("/usr/libexec/bootstrand/plugins2"));
  ASSERT_EQ(lchown(root.Path("/usr/libexec/bootstrand/plugins2").c_str(), 65534, 0), 0);
  RunResult run = Lint(root, {"--json"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(json::parse(run.out)["trust"], json::parse(R"([
      {"path": "/opt/plugins", "owner": "root", "mode": "0777",
       "reason": "writable by its group and others; reached through the symbolic link /usr/libexec/bootstrand/plugins2"},
      {"path": "/usr/lib/tessary/cormcli/net/up", "owner": ")" + other + R"(", "mode": "0755",
       "reason": "not owned by root"},
      {"path": "/usr/libexec", "owner": "root", "mode": "1777",
       "reason": "writable by its group and others, who may add files despite the sticky bit"},
      {"path": "/usr/libexec/bootstrand/plugins/a.json", "owner": "root", "mode": "0664",
       "reason": "writable by its group"},
      {"path": "/usr/libexec/bootstrand/plugins2", "owner": ")" + other + R"(", "mode": "0777",
       "reason": "symbolic link not owned by root"}])"));
  run = Lint(root, {"--strict"});
  EXPECT_EQ(run.exitStatus, 3);
  EXPECT_NE(run.out.find("\nuntrusted: /usr/libexec/bootstrand/plugins/a.json (owner root, mode 0664): writable by "
                         "its group\n"),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find(", 0 stops, 0 warnings, 5 untrusted paths: boot would complete"), std::string::npos);
}

}  // namespace
}  // namespace bootstrand::testing
