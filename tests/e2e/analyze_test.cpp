// bootstrand-analyze on real boots: two boots of the example tree by the real
// activator, the second with one command slowed, analysed and compared; a boot whose
// wall clock was stepped; its exit statuses; damaged inputs reported and skipped; a
// boot's metrics served by a real node_exporter, and those of a boot whose activator
// did not run.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/unique_fd.h"
#include "support/host_root.h"

#ifdef BOOTSTRAND_ANALYZE_BINARY

namespace bootstrand::testing {
namespace {

using nlohmann::json;

const std::string kPlugins = "/usr/libexec/bootstrand/plugins";
const std::string kRecord = "/var/lib/bootstrand/boot-record.jsonl";

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++found;
  return found;
}

// The samples named bootstrand_... of an exposition, by series as written.
std::map<std::string, double> BootSeries(const std::string& exposition) {
  std::map<std::string, double> series;
  std::istringstream lines(exposition);
  for (std::string line; std::getline(lines, line);) {
    std::size_t space = line.rfind(' ');
    if (line.starts_with("bootstrand_")) series[line.substr(0, space)] = std::stod(line.substr(space));
  }
  return series;
}

class Analyzer : public ::testing::Test {
 protected:
  RunResult Analyze(const std::vector<std::string>& arguments) {
    return RunProgram(BOOTSTRAND_ANALYZE_BINARY, root, arguments);
  }
  // The boot step's script that publishes the metrics, with the analyzer on its PATH.
  RunResult PublishMetrics() {
    std::string path = std::filesystem::path(BOOTSTRAND_ANALYZE_BINARY).parent_path().string() + ":" + getenv("PATH");
    return RunProgram(BOOTSTRAND_PACKAGING_DIR "/boot-metrics", root, {}, {{"PATH", path}});
  }
  HostRoot root;
  HostRoot scratch;
};

// The second boot alone, from its record and from its timing log and channel sinks,
// then against the first. Neither writes to the root. The orders of the lists and of
// the timeline's bars are the analyzer's unit tests.
TEST_F(Analyzer, ReportsAndComparesBootsOfTheExampleTree) {
  HostRoot older;
  for (const HostRoot* host : {&older, &root}) host->CopyExampleTree();
  root.WriteCommand("system time sync", "sleep 0.3");
  for (const HostRoot* host : {&older, &root}) ASSERT_EQ(RunBootstrand(*host, {}).exitStatus, 0);
  // Damage that is reported and skipped: the record's last line cut off, a line of the
  // timing log, a sink record, a plugin file that does not load (left out of the chain).
  std::ofstream(root.Path(kRecord), std::ios::app) << "{\"event\":\"outc";
  std::ofstream(root.Path("/var/log/sysboot.log"), std::ios::app) << "garbage\n";
  std::ofstream(root.Path("/var/run/trove/system.log.log"), std::ios::app) << "Bootstrand plugin \\x\n";
  root.WritePlugin("broken.json", JsonPlugin({}, {}, {"x"}, {{"version", "1"}}));
  auto before = Snapshot(root.Root());
  RunResult run = Analyze({"--json", "--top", "0", "--plugins", kPlugins});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  Lines timing = root.ReadLines("/var/log/sysboot.log"), kernel = root.ReadLines("/var/run/trove/system.log.log"),
        record = root.ReadLines(kRecord);
  const std::string prefix = "bootstrand-analyze: ",
                    recordLine = prefix + root.Path(kRecord) + ":" + std::to_string(record.size()) +
                                 ": the last line is cut off; skipped\n",
                    timingLine = prefix + root.Path("/var/log/sysboot.log") + ":" + std::to_string(timing.size()) +
                                 ": unrecognised line, skipped\n",
                    sinkLine = prefix + root.Path("/var/run/trove/system.log.log") + ":" +
                               std::to_string(kernel.size()) + ": broken escape in channel message, skipped\n",
                    pluginLine = prefix + kPlugins + "/broken.json: not loaded, left out of the chain: "
                                 "'meta[\"version\"]' is not a 'JsonNumber'\n";
  EXPECT_EQ(run.err, recordLine + pluginLine);
  json report = json::parse(run.out);
  EXPECT_EQ(report["kernel_to_activation_us"], json::parse(record.front())["at"]["boottime_us"]);
  EXPECT_EQ(report["boot_id"], HostRoot::kBootId);
  EXPECT_GT(report["activation_us"].get<long long>(), 300000);
  // Each plugin's outcome, the failure from the alert sink; the chain runs through
  // the slowed command.
  ASSERT_EQ(report["plugins"].size(), 13u);
  for (const json& plugin : report["plugins"]) {
    EXPECT_EQ(plugin["outcome"], plugin["name"] == "40-syslog-forward" ? "failed" : "activated") << plugin;
  }
  EXPECT_EQ(report["untimed"], json::parse(R"([{"name": "30-static-ip", "outcome": "skipped"}])"));
  EXPECT_EQ(report["blame"][0]["name"], "40-time");
  Lines chain;
  for (const json& link : report["critical_chain"]) chain.push_back(link["name"]);
  EXPECT_EQ(chain, (Lines{"10-devices", "20-network-drivers", "30-dhcp", "40-time", "80-management-agent",
                          "end-autoconf"}));
  // The timing log and the sinks of the same boot tell the same outcomes and chain.
  run = Analyze({root.Path("/var/log/sysboot.log"), "--json", "--top", "0", "--plugins", kPlugins});
  EXPECT_EQ(run.err, timingLine + sinkLine + pluginLine);
  json fromLog = json::parse(run.out);
  ASSERT_EQ(timing.size(), 18u);
  EXPECT_EQ("Ondrik Initialization Time: " + fromLog["kernel_to_activation_us"].dump(), timing.front());
  for (const char* list : {"plugins", "critical_chain"}) {
    std::map<std::string, json> outcomes, logged;
    for (const json& plugin : report[list]) outcomes[plugin["name"]] = plugin["outcome"];
    for (const json& plugin : fromLog[list]) logged[plugin["name"]] = plugin["outcome"];
    EXPECT_EQ(logged, outcomes) << list;
  }

  run = Analyze({"--plugins", kPlugins, "--svg", scratch.Path("/timeline.svg")});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(Count(scratch.ReadFile("/timeline.svg"), "<rect class=\"bar "), 13u);
  for (const char* part : {"Plugins timed: 13 (12 activated, 1 failed)\n",
                           "  end-autoconf (activated)\n  The chain ran for ",
                           "\n\nRecorded but not timed: 30-static-ip (skipped)\n"}) {
    EXPECT_NE(run.out.find(part), std::string::npos) << part << run.out;
  }

  // Against the first boot's timing log: 40-time first among the slower plugins; one
  // row per plugin holding its bar of each boot, 40-time's later bar a slower one.
  run = Analyze({"--compare", older.Path("/var/log/sysboot.log"), "--svg", scratch.Path("/compare.svg"),
                 "--plugins", kPlugins});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.err, recordLine + pluginLine);  // a comparison reads no channel sinks
  std::string slower = "\nSlower plugins:\n       before        after       change  plugin\n";
  std::size_t at = run.out.find(slower);
  ASSERT_NE(at, std::string::npos) << run.out;
  EXPECT_EQ(run.out.substr(at + slower.size() + 41, 8), "40-time\n") << run.out;
  EXPECT_NE(run.out.find("\nAdded plugins: none\nRemoved plugins: none\n\nCritical chain "), std::string::npos);
  std::string svg = scratch.ReadFile("/compare.svg");
  EXPECT_EQ(Count(svg, "<rect class=\"bar before\""), 13u);
  EXPECT_EQ(Count(svg, "<rect class=\"bar after "), 13u);
  std::size_t row = svg.find(">40-time</text><rect class=\"bar before\"");
  ASSERT_NE(row, std::string::npos);
  EXPECT_EQ(svg.find("<rect class=\"bar after slower\"", row), svg.find("<rect class=\"bar after ", row));
  EXPECT_EQ(Snapshot(root.Root()), before);
}

// The middle plugin of a serial boot sets the wall clock 2 h forward (through the test
// offset file, as `date -s` would): the analyzer, its metrics and the linter's
// prediction take the boot's real times from the record, and the report names the step
// and the plugin; the timing log alone shows an hours-long line, named as a step too.
TEST_F(Analyzer, AClockStepDuringAPluginIsNamedAndLeftOutOfItsTime) {
  root.WriteCommand("nap", "sleep 0.1");
  root.WriteCommand("set clock", "sleep 0.1; echo 7200 >\"$BOOTSTRAND_ROOT/offset\"; sleep 0.1");
  root.WritePlugins({{"a", {"a"}, {}, {"nap"}}, {"settime", {"time"}, {"a"}, {"set clock"}},
                     {"b", {"b"}, {"time"}, {"nap"}}});
  ASSERT_EQ(RunBootstrand(root, {}, {{"BOOTSTRAND_WALL_CLOCK_OFFSET_FILE", root.Path("/offset")}}).exitStatus, 0);
  json report = json::parse(Analyze({"--json"}).out);
  EXPECT_GT(report["activation_us"], 400000);
  EXPECT_LT(report["activation_us"], 5000000);
  EXPECT_EQ(report["clock_steps"].size(), 1u);
  const std::string step = "\n\nClock step: the wall clock moved +2 h 0 min during settime; times above are measured "
                           "on the monotonic clock\n",
                    logStep = "\n\nClock step: the wall clock probably moved about +2 h 0 min during settime, whose "
                              "timing line is that long; the timing log has only wall-clock times, so times above "
                              "include the step\n";
  EXPECT_TRUE(Analyze({}).out.ends_with(step)) << Analyze({}).out;
  EXPECT_TRUE(Analyze({root.Path("/var/log/sysboot.log")}).out.ends_with(logStep));
  EXPECT_LT(BootSeries(Analyze({"--openmetrics"}).out)["bootstrand_activation_duration_seconds"], 5);
  RunResult lint = RunProgram(BOOTSTRAND_LINT_BINARY, root, {"--json", "--predict", root.Path(kRecord)});
  ASSERT_EQ(lint.exitStatus, 0) << lint.err;
  EXPECT_LT(json::parse(lint.out)["predicted"]["activation_us"], 5000000);
}

// One usage error per check of the command line, then one input per way to fail.
TEST_F(Analyzer, ExitStatusesForUsageAndUnreadableInputs) {
  RunResult run = Analyze({});
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_EQ(run.err, "bootstrand-analyze: cannot read " + root.Path("/var/log/sysboot.log") +
                         ": No such file or directory\n");
  run = Analyze({"--help"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out.rfind("Usage: bootstrand-analyze [options] [TIMING-LOG]\n", 0), 0u);
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {"--bogus"}, {"--top", "many"}, {"--svg"}, {"--json=yes"}, {"one.log", "two.log"},
           {"--threshold", "5ms"}, {"--compare", "old.log", "--threshold", "5"},
           {"--compare", "old.log", "--kernel-log", "k.log"}, {"--openmetrics", "--top", "3"}}) {
    run = Analyze(arguments);
    EXPECT_EQ(run.exitStatus, 2) << arguments.front();
    EXPECT_NE(run.err.find("\n\nUsage: bootstrand-analyze"), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
  }
  root.WriteFile("/var/log/sysboot.log", "Ondrik Initialization Time: 3000000\n");
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {"--kernel-log", root.Path("/missing.log")}, {"--alert-log", root.Path("/var/log")},
           {"--plugins", "/missing"}, {"--compare", root.Path("/missing.log")},
           {"--svg", root.Path("/no/such/directory/timeline.svg")}}) {
    run = Analyze(arguments);
    EXPECT_EQ(run.exitStatus, 1) << arguments.front() << run.err;
    EXPECT_NE(run.err.find(arguments.back()), std::string::npos) << run.err;
  }
}

constexpr const char* kPromtool = "/usr/bin/promtool";
constexpr const char* kNodeExporter = "/usr/bin/prometheus-node-exporter";

// A loopback port that nothing listens on, as the kernel picks one.
int FreeLoopbackPort() {
  UniqueFd probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  bool bound = bind(probe.Get(), reinterpret_cast<sockaddr*>(&address), length) == 0 &&
               getsockname(probe.Get(), reinterpret_cast<sockaddr*>(&address), &length) == 0;
  return bound ? ntohs(address.sin_port) : -1;
}

// What a fleet's monitoring gets from a boot of the example tree: the boot step's
// script renames the metrics into node_exporter's textfile folder, promtool has nothing
// to say about them, and a real node_exporter serves each series with the analyzer's
// figures. One plugin's name needs escaping and holds a byte that is not UTF-8.
TEST_F(Analyzer, BootMetricsReachANodeExporterScrape) {
  for (const char* tool : {kPromtool, kNodeExporter}) {
    if (access(tool, X_OK) != 0) GTEST_SKIP() << tool << " is missing (tools/install-deps installs it)";
  }
  const std::string folder = root.Path("/var/lib/prometheus/node-exporter"), file = folder + "/bootstrand.prom";
  std::filesystem::create_directories(folder);
  root.CopyExampleTree();
  root.WritePlugin("say \"hi\\\" caf\xe9.json", JsonPlugin({}, {}, {"mark --name odd"}));
  double bootStart = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  ASSERT_EQ(RunBootstrand(root, {}).exitStatus, 0);
  RunResult run = PublishMetrics();
  EXPECT_EQ(std::to_string(run.exitStatus) + run.err, "0");
  EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0644));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);
  run = RunProgram("/bin/sh", root, {"-c", "\"$0\" check metrics <\"$1\"", kPromtool, file});
  EXPECT_EQ(std::to_string(run.exitStatus) + run.out + run.err, "0");

  // Started by the shell and ended with it (or with its process group, at the time
  // limit); fetched with bash's /dev/tcp once it listens.
  run = RunProgram("/bin/bash", root, {"-c", R"(
      "$0" --web.listen-address="127.0.0.1:$2" --collector.disable-defaults --collector.textfile \
        --web.disable-exporter-metrics --collector.textfile.directory="$1" 2>/dev/null &
      trap 'kill $!; wait' EXIT
      for _ in $(seq 100); do
        if exec 3<>"/dev/tcp/127.0.0.1/$2"; then
          printf 'GET /metrics HTTP/1.0\r\n\r\n' >&3 && cat <&3; exit
        fi 2>/dev/null
        sleep 0.1
      done)", kNodeExporter, folder, std::to_string(FreeLoopbackPort())}, {}, 30);
  ASSERT_NE(run.out.find("\nnode_textfile_scrape_error 0\n"), std::string::npos) << run.out;
  std::map<std::string, double> served = BootSeries(run.out);
  EXPECT_EQ(served, BootSeries(root.ReadFile("/var/lib/prometheus/node-exporter/bootstrand.prom")));
  json report = json::parse(Analyze({"--json"}).out);
  EXPECT_EQ(served["bootstrand_activation_duration_seconds"], report["activation_us"].get<double>() / 1e6);
  EXPECT_EQ(served["bootstrand_kernel_to_activation_seconds"], report["kernel_to_activation_us"].get<double>() / 1e6);
  EXPECT_EQ(served["bootstrand_activation_completed"], 1);
  EXPECT_EQ(served["bootstrand_boot_info{boot_id=\"" + std::string(HostRoot::kBootId) + "\"}"], 1);
  EXPECT_EQ(served["bootstrand_plugins{outcome=\"failed\"}"], 1);
  EXPECT_EQ(served["bootstrand_plugins{outcome=\"activated\"}"], 13);
  EXPECT_EQ(served["bootstrand_plugins{outcome=\"skipped\"}"], 1);
  EXPECT_NEAR(served["bootstrand_activation_start_timestamp_seconds"], bootStart, 30);
  const std::string odd = R"({plugin="say \"hi\\\" caf)" "\xef\xbf\xbd\"}";  // escaped, U+FFFD for \xe9
  for (const json& plugin : report["plugins"]) {
    std::string name = plugin["name"], label = name.starts_with("say ") ? odd : "{plugin=\"" + name + "\"}";
    EXPECT_EQ(served["bootstrand_plugin_duration_seconds" + label], plugin["duration_us"].get<double>() / 1e6) << name;
    EXPECT_EQ(served["bootstrand_plugin_failed" + label], name == "40-syslog-forward" ? 1 : 0) << name;
  }
  // The boot's, by outcome, by plugin (timed, and all), each looked up above.
  EXPECT_EQ(served.size(), 5u + 6u + 14u + 15u) << run.out;
}

// The metrics of a boot whose activator did not run say which boot and that activation
// did not complete, never what the boot before did: first without any record, then
// with the record of an earlier boot (the root's boot id changed after a boot).
TEST_F(Analyzer, MetricsOfABootWithoutARecordOfItsOwnSaySo) {
  std::filesystem::create_directories(root.Path("/var/lib/prometheus/node-exporter"));
  auto expected = [](const std::string& bootId) {
    return "# HELP bootstrand_boot_info The boot these metrics describe, by the kernel's boot id; always 1.\n"
           "# TYPE bootstrand_boot_info gauge\nbootstrand_boot_info{boot_id=\"" + bootId + "\"} 1\n"
           "# HELP bootstrand_activation_completed 1 when activation at the last boot ran to its end, 0 when it "
           "stopped before or did not run at all.\n"
           "# TYPE bootstrand_activation_completed gauge\nbootstrand_activation_completed 0\n";
  };
  const std::string later = "99999999-1111-4222-8333-444444444444", said = "bootstrand-analyze: " + root.Path(kRecord);
  const std::string tail = "; the metrics say only that activation did not complete\n";
  RunResult run = PublishMetrics();
  EXPECT_EQ(std::to_string(run.exitStatus) + run.err, "0" + said + ": is missing: the activator did not run at this "
                                                        "boot" + tail);
  EXPECT_EQ(root.ReadFile("/var/lib/prometheus/node-exporter/bootstrand.prom"), expected(HostRoot::kBootId));

  root.WritePlugins({{"a", {"a"}, {}, {"mark a"}}});
  ASSERT_EQ(RunBootstrand(root, {}).exitStatus, 0);
  EXPECT_EQ(BootSeries(Analyze({"--openmetrics"}).out)["bootstrand_activation_completed"], 1);
  root.WriteFile("/proc/sys/kernel/random/boot_id", later + "\n");
  run = PublishMetrics();
  EXPECT_EQ(std::to_string(run.exitStatus) + run.err,
            "0" + said + ": is of an earlier boot (boot id " + HostRoot::kBootId + ")" + tail);
  EXPECT_EQ(root.ReadFile("/var/lib/prometheus/node-exporter/bootstrand.prom"), expected(later));
}

}  // namespace
}  // namespace bootstrand::testing

#endif  // BOOTSTRAND_ANALYZE_BINARY
