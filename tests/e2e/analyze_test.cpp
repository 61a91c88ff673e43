// bootstrand-analyze on real boots: the example tree booted by the real activator,
// then analysed; its exit statuses; and, when asked for, the timeline rendered by a
// headless browser.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "support/host_root.h"

#ifdef BOOTSTRAND_ANALYZE_BINARY

namespace bootstrand::testing {
namespace {

constexpr const char* kChromium = "/usr/bin/chromium";
const std::string kPluginDirectory = "/usr/libexec/bootstrand/plugins";

std::string Quote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

class Analyzer : public ::testing::Test {
 protected:
  RunResult Analyze(const std::vector<std::string>& arguments) {
    return RunProgram(BOOTSTRAND_ANALYZE_BINARY, root, arguments);
  }

  // Boots the example tree in `host`; `slowed`, a command path, then takes 0.3 s.
  static void BootExampleTree(const HostRoot& host, const std::string& slowed = "") {
    std::filesystem::copy(std::string(BOOTSTRAND_EXAMPLES_DIR) + "/tree", host.Root(),
                          std::filesystem::copy_options::recursive | std::filesystem::copy_options::overwrite_existing);
    if (!slowed.empty()) host.WriteCommand(slowed, "sleep 0.3");
    RunResult boot = RunBootstrand(host, {});
    ASSERT_EQ(boot.exitStatus, 0) << boot.err;
  }
  void BootExampleTree() { BootExampleTree(root); }

  // Tags of the example plugins, as their files declare them.
  std::set<std::string> Tags(const std::string& plugin, const char* key) const {
    if (plugin == "end-autoconf") {
      return key == std::string("requires") ? std::set<std::string>{"json plugins"} : std::set<std::string>{};
    }
    nlohmann::json file = nlohmann::json::parse(root.ReadFile(kPluginDirectory + "/" + plugin + ".json"));
    std::set<std::string> tags = file["metadata"][key].get<std::set<std::string>>();
    if (key == std::string("provides")) tags.insert("json plugins");
    return tags;
  }

  HostRoot root;
  HostRoot scratch;
};

TEST_F(Analyzer, ReportsTheBootOfTheExampleTree) {
  BootExampleTree();
  auto before = Snapshot(root.Root());
  std::string svgPath = scratch.Path("/timeline.svg");
  RunResult run = Analyze({"--json", "--top", "0", "--svg", svgPath, "--plugins", kPluginDirectory});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(Snapshot(root.Root()), before);
  nlohmann::json report = nlohmann::json::parse(run.out);

  std::vector<std::string> timing = root.Lines("/var/log/sysboot.log");
  ASSERT_FALSE(timing.empty());
  EXPECT_EQ("Ondrik Initialization Time: " + report["kernel_to_activation_us"].dump(), timing.front());
  EXPECT_GT(report["activation_us"].get<long long>(), 0);
  EXPECT_EQ(timing[timing.size() - 2], " Start: " + report["activation_start"].get<std::string>());

  // Every timed plugin once, by start time; the failure comes from the alert sink.
  std::multiset<std::string> timed;
  for (std::size_t i = 1; i + 3 < timing.size(); ++i) {
    timed.insert(timing[i].substr(timing[i].find("] sysboot: ") + 11));
  }
  std::multiset<std::string> reported;
  long long previousStart = -1;
  for (const nlohmann::json& plugin : report["plugins"]) {
    reported.insert(plugin["name"].get<std::string>());
    EXPECT_GE(plugin["start_us"].get<long long>(), previousStart);
    previousStart = plugin["start_us"].get<long long>();
    EXPECT_EQ(plugin["outcome"], plugin["name"] == "40-syslog-forward" ? "failed" : "activated") << plugin;
  }
  EXPECT_EQ(reported, timed);
  EXPECT_EQ(reported.size(), 13u);
  EXPECT_EQ(report["untimed"], nlohmann::json::parse(R"([{"name": "30-static-ip", "outcome": "skipped"}])"));
  ASSERT_EQ(report["blame"].size(), 13u);
  for (std::size_t i = 1; i < report["blame"].size(); ++i) {
    EXPECT_GE(report["blame"][i - 1]["duration_us"], report["blame"][i]["duration_us"]);
  }

  // The chain runs from the only plugin without requirements to the built-in one,
  // and each link is a real dependency that ended before the next one started.
  const nlohmann::json& chain = report["critical_chain"];
  ASSERT_GE(chain.size(), 3u);
  EXPECT_EQ(chain.front()["name"], "10-devices");
  EXPECT_EQ(chain.back()["name"], "end-autoconf");
  for (std::size_t i = 1; i < chain.size(); ++i) {
    std::set<std::string> provided = Tags(chain[i - 1]["name"], "provides");
    std::set<std::string> required = Tags(chain[i]["name"], "requires");
    auto isProvided = [&](const std::string& tag) { return provided.contains(tag); };
    EXPECT_TRUE(std::any_of(required.begin(), required.end(), isProvided))
        << chain[i - 1]["name"] << " -> " << chain[i]["name"];
    EXPECT_LE(chain[i - 1]["start_us"].get<long long>() + chain[i - 1]["duration_us"].get<long long>(),
              chain[i]["start_us"].get<long long>());
  }

  // The timeline has one bar per plugin, in the same order.
  std::string svg = scratch.ReadFile("/timeline.svg");
  std::vector<std::string> labels;
  for (std::size_t at = svg.find("text-anchor=\"end\">"); at != std::string::npos;
       at = svg.find("text-anchor=\"end\">", at + 1)) {
    std::size_t start = at + 18;
    labels.push_back(svg.substr(start, svg.find('<', start) - start));
    EXPECT_EQ(svg.compare(svg.find("</text>", start) + 7, 17, "<rect class=\"bar "), 0);
  }
  std::vector<std::string> expected;
  for (const nlohmann::json& plugin : report["plugins"]) expected.push_back(plugin["name"]);
  EXPECT_EQ(labels, expected);

  // The text report of the same boot.
  run = Analyze({"--plugins", kPluginDirectory});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_NE(run.out.find("Plugins timed: 13 (12 activated, 1 failed)\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("  end-autoconf (activated)\n  The chain ran for "), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("\n\nReported on the channels but not timed: 30-static-ip (skipped)\n"), std::string::npos);
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
           {"--kernel-log", root.Path("/missing.log")},
           {"--alert-log", root.Path("/var/log")},
           {"--plugins", "/missing"},
           {"--compare", root.Path("/missing.log")},
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
  std::string kernelSink = root.Path("/var/run/trove/system.log.log");
  EXPECT_EQ(run.err, "bootstrand-analyze: " + timingLog + ":2: unrecognised line, skipped\n" +
                         "bootstrand-analyze: " + timingLog + ":5: truncated line (no end of line), skipped\n" +
                         "bootstrand-analyze: " + kernelSink + ":2: broken escape in channel message, skipped\n");
  EXPECT_NE(run.out.find("Kernel start to activation start: 42 s\n"
                         "Activation: no summary in the timing log (the run did not end normally); "
                         "the timed plugins span 310.0 ms\n\n"
                         "Slowest plugins:\n     250.0 ms  slow (activated)\n      10.0 ms  quick (unknown)\n"),
            std::string::npos)
      << run.out;
  // Nothing written: no run-once marker, no channel messages.
  EXPECT_EQ(Snapshot(root.Root()), before);
}

// Two boots of the example tree, the second with 40-time's command slowed by 0.3 s.
TEST_F(Analyzer, ComparesTwoBootsOfTheExampleTreeWithOneCommandSlowed) {
  HostRoot older;
  BootExampleTree(older);
  BootExampleTree(root, "system time sync");
  auto before = Snapshot(root.Root());
  std::string olderLog = older.Path("/var/log/sysboot.log");
  std::string svgPath = scratch.Path("/compare.svg");
  RunResult run = Analyze({"--compare", olderLog, "--svg", svgPath, "--plugins", kPluginDirectory});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.err, "");
  std::string slower = "\nSlower plugins:\n       before        after       change  plugin\n";
  std::size_t at = run.out.find(slower);
  ASSERT_NE(at, std::string::npos) << run.out;
  EXPECT_EQ(run.out.substr(at + slower.size() + 41, 8), "40-time\n") << run.out;
  EXPECT_NE(run.out.find("\nAdded plugins: none\nRemoved plugins: none\n\nCritical chain "), std::string::npos);

  run = Analyze({"--compare", olderLog, "--json", "--plugins", kPluginDirectory});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  const nlohmann::json report = nlohmann::json::parse(run.out)["compare"];
  ASSERT_FALSE(report["slower"].empty());
  EXPECT_EQ(report["slower"][0]["name"], "40-time");
  EXPECT_GE(report["slower"][0]["delta_us"].get<long long>(), 250000);
  ASSERT_EQ(report["plugins"].size(), 13u);
  EXPECT_EQ(report["plugins"][0], report["slower"][0]);
  for (std::size_t i = 1; i < report["plugins"].size(); ++i) {
    EXPECT_GE(report["plugins"][i - 1]["delta_us"], report["plugins"][i]["delta_us"]);
  }
  EXPECT_EQ(report["added"], nlohmann::json::array());
  EXPECT_EQ(report["removed"], nlohmann::json::array());
  std::vector<std::string> chain = report["critical_chain"]["after"];
  EXPECT_NE(std::find(chain.begin(), chain.end(), "40-time"), chain.end());

  // One row per plugin holding its bar of each boot; 40-time's later bar is a slower one.
  std::string svg = scratch.ReadFile("/compare.svg");
  auto count = [&](const std::string& text) {
    std::size_t found = 0;
    for (std::size_t i = svg.find(text); i != std::string::npos; i = svg.find(text, i + 1)) ++found;
    return found;
  };
  EXPECT_EQ(count("<rect class=\"bar before\""), 13u);
  EXPECT_EQ(count("<rect class=\"bar after "), 13u);
  std::size_t row = svg.find(">40-time</text><rect class=\"bar before\"");
  ASSERT_NE(row, std::string::npos);
  EXPECT_EQ(svg.find("<rect class=\"bar after slower\"", row), svg.find("<rect class=\"bar after ", row));
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
  BootExampleTree();
  std::string svgPath = scratch.Path("/timeline.svg");
  ASSERT_EQ(Analyze({"--svg", svgPath}).exitStatus, 0);
  std::string blankPath = scratch.Path("/blank.svg");
  std::ofstream(blankPath) << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"600\" height=\"300\"/>\n";

  int runs = 0;
  auto chromium = [&](const std::string& what, const std::string& svg, const std::string& output) {
    // Each run gets a new, empty profile directory.
    std::string profile = scratch.Path("/profile-" + std::to_string(++runs));
    std::string command = std::string(kChromium) +
                          " --headless --no-sandbox --disable-gpu --disable-quic --no-first-run"
                          " --disable-background-networking --disable-component-update --disable-sync"
                          " --user-data-dir=" + Quote(profile) + " " + what + " file://" + Quote(svg) + " >" +
                          Quote(output) + " 2>/dev/null";
    return std::system(command.c_str());
  };
  std::string dom = scratch.Path("/dom.txt");
  ASSERT_EQ(chromium("--dump-dom", svgPath, dom), 0);
  std::string document = scratch.ReadFile("/dom.txt");
  EXPECT_EQ(document.find("parsererror"), std::string::npos) << document.substr(0, 2000);
  std::size_t bars = 0;
  for (std::size_t at = document.find("class=\"bar "); at != std::string::npos;
       at = document.find("class=\"bar ", at + 1)) {
    ++bars;
  }
  EXPECT_EQ(bars, 13u);

  std::string png = scratch.Path("/timeline.png");
  std::string blankPng = scratch.Path("/blank.png");
  ASSERT_EQ(chromium("--window-size=600,300 --screenshot=" + Quote(png), svgPath, "/dev/null"), 0);
  ASSERT_EQ(chromium("--window-size=600,300 --screenshot=" + Quote(blankPng), blankPath, "/dev/null"), 0);
  std::string picture = scratch.ReadFile("/timeline.png");
  ASSERT_GT(picture.size(), 24u);
  EXPECT_EQ(picture.substr(0, 8), "\x89PNG\r\n\x1a\n");
  // The header chunk: width and height, big-endian, at bytes 16 and 20.
  auto number = [&](std::size_t at) {
    return (static_cast<unsigned char>(picture[at]) << 24) | (static_cast<unsigned char>(picture[at + 1]) << 16) |
           (static_cast<unsigned char>(picture[at + 2]) << 8) | static_cast<unsigned char>(picture[at + 3]);
  };
  EXPECT_EQ(number(16), 600u);
  EXPECT_EQ(number(20), 300u);
  EXPECT_GT(picture.size(), 4 * scratch.ReadFile("/blank.png").size());
}

}  // namespace
}  // namespace bootstrand::testing

#endif  // BOOTSTRAND_ANALYZE_BINARY
