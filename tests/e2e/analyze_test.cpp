// bootstrand-analyze on real boots: two boots of the example tree by the real
// activator, the second with one command slowed, analysed and compared; its exit
// statuses; damaged inputs reported and skipped.
#include <gtest/gtest.h>

#include <fstream>

#include "support/host_root.h"

#ifdef BOOTSTRAND_ANALYZE_BINARY

namespace bootstrand::testing {
namespace {

using nlohmann::json;

const std::string kPlugins = "/usr/libexec/bootstrand/plugins";

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++found;
  return found;
}

class Analyzer : public ::testing::Test {
 protected:
  RunResult Analyze(const std::vector<std::string>& arguments) {
    return RunProgram(BOOTSTRAND_ANALYZE_BINARY, root, arguments);
  }
  HostRoot root;
  HostRoot scratch;
};

// The second boot alone, then against the first. Neither writes to the root. The
// orders of the lists and of the timeline's bars are the analyzer's unit tests.
TEST_F(Analyzer, ReportsAndComparesBootsOfTheExampleTree) {
  HostRoot older;
  for (const HostRoot* host : {&older, &root}) host->CopyExampleTree();
  root.WriteCommand("system time sync", "sleep 0.3");
  for (const HostRoot* host : {&older, &root}) ASSERT_EQ(RunBootstrand(*host, {}).exitStatus, 0);
  // Damage that is reported and skipped: a line of the timing log, a sink record, a
  // plugin file that does not load (left out of the chain).
  std::ofstream(root.Path("/var/log/sysboot.log"), std::ios::app) << "garbage\n";
  std::ofstream(root.Path("/var/run/trove/system.log.log"), std::ios::app) << "Bootstrand plugin \\x\n";
  root.WritePlugin("broken.json", JsonPlugin({}, {}, {"x"}, {{"version", "1"}}));
  auto before = Snapshot(root.Root());
  RunResult run = Analyze({"--json", "--top", "0", "--plugins", kPlugins});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  Lines timing = root.ReadLines("/var/log/sysboot.log"), kernel = root.ReadLines("/var/run/trove/system.log.log");
  const std::string prefix = "bootstrand-analyze: ",
                    timingLine = prefix + root.Path("/var/log/sysboot.log") + ":" + std::to_string(timing.size()) +
                                 ": unrecognised line, skipped\n",
                    sinkLine = prefix + root.Path("/var/run/trove/system.log.log") + ":" +
                               std::to_string(kernel.size()) + ": broken escape in channel message, skipped\n",
                    pluginLine = prefix + kPlugins + "/broken.json: not loaded, left out of the chain: "
                                 "'meta[\"version\"]' is not a 'JsonNumber'\n";
  EXPECT_EQ(run.err, timingLine + sinkLine + pluginLine);
  json report = json::parse(run.out);
  ASSERT_EQ(timing.size(), 18u);
  EXPECT_EQ("Ondrik Initialization Time: " + report["kernel_to_activation_us"].dump(), timing.front());
  EXPECT_EQ(timing[timing.size() - 3], " Start: " + report["activation_start"].get<std::string>());
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

  run = Analyze({"--plugins", kPlugins, "--svg", scratch.Path("/timeline.svg")});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(Count(scratch.ReadFile("/timeline.svg"), "<rect class=\"bar "), 13u);
  for (const char* part : {"Plugins timed: 13 (12 activated, 1 failed)\n",
                           "  end-autoconf (activated)\n  The chain ran for ",
                           "\n\nReported on the channels but not timed: 30-static-ip (skipped)\n"}) {
    EXPECT_NE(run.out.find(part), std::string::npos) << part << run.out;
  }

  // Against the first boot: 40-time first among the slower plugins; one row per
  // plugin holding its bar of each boot, 40-time's later bar a slower one.
  run = Analyze({"--compare", older.Path("/var/log/sysboot.log"), "--svg", scratch.Path("/compare.svg"),
                 "--plugins", kPlugins});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.err, timingLine + pluginLine);  // a comparison reads no channel sinks
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
           {"--compare", "old.log", "--kernel-log", "k.log"}}) {
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

}  // namespace
}  // namespace bootstrand::testing

#endif  // BOOTSTRAND_ANALYZE_BINARY
