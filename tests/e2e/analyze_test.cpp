// bootstrand-analyze on real boots: two boots of the example tree by the real
// activator, the second with one command slowed, analysed and compared; its exit
// statuses; damaged inputs; and, when asked for, the timeline rendered by a headless
// browser.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>

#include "support/host_root.h"

#ifdef BOOTSTRAND_ANALYZE_BINARY

namespace bootstrand::testing {
namespace {

using nlohmann::json;

constexpr const char* kChromium = "/usr/bin/chromium";
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

  // Boots the example tree in `host`; `slowed`, a command path, then takes 0.3 s.
  static void Boot(const HostRoot& host, const std::string& slowed = "") {
    host.CopyExampleTree();
    if (!slowed.empty()) host.WriteCommand(slowed, "sleep 0.3");
    RunResult boot = RunBootstrand(host, {});
    ASSERT_EQ(boot.exitStatus, 0) << boot.err;
  }

  HostRoot root;
  HostRoot scratch;
};

// The second boot alone, then against the first. Neither writes to the root.
TEST_F(Analyzer, ReportsAndComparesBootsOfTheExampleTree) {
  HostRoot older;
  Boot(older);
  Boot(root, "system time sync");
  auto before = Snapshot(root.Root());
  RunResult run = Analyze({"--json", "--top", "0", "--svg", scratch.Path("/timeline.svg"), "--plugins", kPlugins});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.err, "");
  json report = json::parse(run.out);
  std::vector<std::string> timing = root.Lines("/var/log/sysboot.log");
  ASSERT_EQ(timing.size(), 17u);
  EXPECT_EQ("Ondrik Initialization Time: " + report["kernel_to_activation_us"].dump(), timing.front());
  EXPECT_EQ(timing[timing.size() - 2], " Start: " + report["activation_start"].get<std::string>());
  EXPECT_GT(report["activation_us"].get<long long>(), 300000);

  // Each plugin's outcome, the failure from the alert sink; the orders of the lists
  // and of the timeline's bars are the analyzer's unit tests.
  ASSERT_EQ(report["plugins"].size(), 13u);
  for (const json& plugin : report["plugins"]) {
    EXPECT_EQ(plugin["outcome"], plugin["name"] == "40-syslog-forward" ? "failed" : "activated") << plugin;
  }
  EXPECT_EQ(report["untimed"], json::parse(R"([{"name": "30-static-ip", "outcome": "skipped"}])"));
  EXPECT_EQ(report["blame"][0]["name"], "40-time");
  // The chain runs through the slowed command.
  std::vector<std::string> chain;
  for (const json& link : report["critical_chain"]) chain.push_back(link["name"]);
  EXPECT_EQ(chain, (std::vector<std::string>{"10-devices", "20-network-drivers", "30-dhcp", "40-time",
                                             "80-management-agent", "end-autoconf"}));
  EXPECT_EQ(Count(scratch.ReadFile("/timeline.svg"), "<rect class=\"bar "), 13u);

  run = Analyze({"--plugins", kPlugins});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_NE(run.out.find("Plugins timed: 13 (12 activated, 1 failed)\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("  end-autoconf (activated)\n  The chain ran for "), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("\n\nReported on the channels but not timed: 30-static-ip (skipped)\n"), std::string::npos);

  // Against the first boot: 40-time first among the slower plugins.
  std::string olderLog = older.Path("/var/log/sysboot.log");
  run = Analyze({"--compare", olderLog, "--svg", scratch.Path("/compare.svg"), "--plugins", kPlugins});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.err, "");
  std::string slower = "\nSlower plugins:\n       before        after       change  plugin\n";
  std::size_t at = run.out.find(slower);
  ASSERT_NE(at, std::string::npos) << run.out;
  EXPECT_EQ(run.out.substr(at + slower.size() + 41, 8), "40-time\n") << run.out;
  EXPECT_NE(run.out.find("\nAdded plugins: none\nRemoved plugins: none\n\nCritical chain "), std::string::npos);
  run = Analyze({"--compare", olderLog, "--json", "--plugins", kPlugins});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  const json compare = json::parse(run.out)["compare"];
  ASSERT_FALSE(compare["slower"].empty());
  EXPECT_EQ(compare["slower"][0]["name"], "40-time");
  EXPECT_GE(compare["slower"][0]["delta_us"].get<long long>(), 250000);
  ASSERT_EQ(compare["plugins"].size(), 13u);
  EXPECT_EQ(compare["plugins"][0], compare["slower"][0]);
  EXPECT_EQ(compare["added"], json::array());
  EXPECT_EQ(compare["removed"], json::array());
  EXPECT_EQ(compare["critical_chain"]["after"], json(chain));
  // One row per plugin holding its bar of each boot; 40-time's later bar is a slower one.
  std::string svg = scratch.ReadFile("/compare.svg");
  EXPECT_EQ(Count(svg, "<rect class=\"bar before\""), 13u);
  EXPECT_EQ(Count(svg, "<rect class=\"bar after "), 13u);
  std::size_t row = svg.find(">40-time</text><rect class=\"bar before\"");
  ASSERT_NE(row, std::string::npos);
  EXPECT_EQ(svg.find("<rect class=\"bar after slower\"", row), svg.find("<rect class=\"bar after ", row));
  EXPECT_EQ(Snapshot(root.Root()), before);
}

TEST_F(Analyzer, ExitStatusesForUsageAndUnreadableInputs) {
  RunResult run = Analyze({});
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_EQ(run.err, "bootstrand-analyze: cannot read " + root.Path("/var/log/sysboot.log") +
                         ": No such file or directory\n");
  run = Analyze({"--help"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out.rfind("Usage: bootstrand-analyze [options] [TIMING-LOG]\n", 0), 0u);
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {"--bogus"}, {"--top", "many"}, {"--top=-1"}, {"--svg"}, {"--json=yes"}, {"one.log", "two.log"},
           {"--compare"}, {"--threshold", "5ms"}, {"--compare", "old.log", "--threshold", "5"},
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

TEST_F(Analyzer, DamagedInputsAreReportedAndTheRestAnalysedWithoutTouchingTheHost) {
  root.WriteFile("/var/log/sysboot.log",
                 "Ondrik Initialization Time: 42000000\n"
                 "garbage\n"
                 "[2026-11-16 12:05:09.000000 - 2026-11-16 12:05:09.250000] sysboot: slow\n"
                 "[2026-11-16 12:05:09.300000 - 2026-11-16 12:05:09.310000] sysboot: quick\n"
                 "[2026-11-16 12:05:09.3");
  root.WriteFile("/var/run/trove/system.log.log", "Bootstrand plugin slow activated.\nBootstrand plugin \\x\n");
  auto before = Snapshot(root.Root());
  RunResult run = Analyze({});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  std::string timingLog = root.Path("/var/log/sysboot.log");
  EXPECT_EQ(run.err, "bootstrand-analyze: " + timingLog + ":2: unrecognised line, skipped\n" +
                         "bootstrand-analyze: " + timingLog + ":5: truncated line (no end of line), skipped\n" +
                         "bootstrand-analyze: " + root.Path("/var/run/trove/system.log.log") +
                         ":2: broken escape in channel message, skipped\n");
  EXPECT_NE(run.out.find("Kernel start to activation start: 42 s\n"
                         "Activation: no summary in the timing log (the run did not end normally); "
                         "the timed plugins span 310.0 ms\n\n"
                         "Slowest plugins:\n     250.0 ms  slow (activated)\n      10.0 ms  quick (unknown)\n"),
            std::string::npos)
      << run.out;
  EXPECT_EQ(Snapshot(root.Root()), before);
}

// Opt-in: BOOTSTRAND_RENDER_TEST=1 and a Chromium at /usr/bin/chromium. The browser
// loads the timeline of a real boot: its document must parse as SVG with one bar per
// plugin, and its screenshot must be a picture of the page's size with more in it
// than a blank page.
TEST_F(Analyzer, TimelineRendersInAHeadlessBrowser) {
  const char* wanted = std::getenv("BOOTSTRAND_RENDER_TEST");
  if (wanted == nullptr || std::string(wanted) != "1" || access(kChromium, X_OK) != 0) {
    GTEST_SKIP() << "set BOOTSTRAND_RENDER_TEST=1 and install " << kChromium << " to render the timeline";
  }
  Boot(root);
  ASSERT_EQ(Analyze({"--svg", scratch.Path("/timeline.svg")}).exitStatus, 0);
  scratch.WriteFile("/blank.svg", "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"600\" height=\"300\"/>\n");
  // Each run gets a new, empty profile directory; file names need no quoting here.
  auto chromium = [&](const std::string& what, const std::string& svg, const std::string& output) {
    static int runs = 0;
    std::string command = std::string(kChromium) +
                          " --headless --no-sandbox --disable-gpu --disable-quic --no-first-run"
                          " --disable-background-networking --disable-component-update --disable-sync"
                          " --user-data-dir=" + scratch.Path("/profile-" + std::to_string(++runs)) + " " + what +
                          " file://" + scratch.Path(svg) + " >" + output + " 2>/dev/null";
    return std::system(command.c_str());
  };
  ASSERT_EQ(chromium("--dump-dom", "/timeline.svg", scratch.Path("/dom.txt")), 0);
  std::string document = scratch.ReadFile("/dom.txt");
  EXPECT_EQ(document.find("parsererror"), std::string::npos) << document.substr(0, 2000);
  EXPECT_EQ(Count(document, "class=\"bar "), 13u);
  for (const char* page : {"/timeline", "/blank"}) {
    std::string screenshot = " --window-size=600,300 --screenshot=" + scratch.Path(page + std::string(".png"));
    ASSERT_EQ(chromium(screenshot, page + std::string(".svg"), "/dev/null"), 0);
  }
  std::string picture = scratch.ReadFile("/timeline.png");
  ASSERT_GT(picture.size(), 24u);
  EXPECT_EQ(picture.substr(0, 8), "\x89PNG\r\n\x1a\n");
  // The header chunk: width and height, big-endian, at bytes 16 and 20.
  EXPECT_EQ(picture.substr(16, 8), std::string("\0\0\x02\x58\0\0\x01\x2c", 8));
  EXPECT_GT(picture.size(), 4 * scratch.ReadFile("/blank.png").size());
}

}  // namespace
}  // namespace bootstrand::testing

#endif  // BOOTSTRAND_ANALYZE_BINARY
