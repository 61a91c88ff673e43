// The boot analyzer's readers (timing log, channel sinks, plugin files), its blame
// order and critical chain, the bars of its SVG timeline, and the comparison of two
// boots.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "analyze/analysis.h"
#include "analyze/comparison.h"
#include "analyze/dependency_graph.h"
#include "analyze/plugin_outcomes.h"
#include "analyze/timeline_svg.h"
#include "analyze/timing_log.h"
#include "plugin/plugin.h"
#include "support/test_plugin.h"

namespace bootstrand::analyze {
namespace {

using bootstrand::testing::ScopedRoot;

// 2026-11-16 12:05:09 UTC in microseconds since the epoch.
constexpr Microseconds kBase = 1794830709LL * 1000000;

TimingLog Read(const std::string& text, Problems& problems) {
  std::istringstream input(text);
  return ReadTimingLog(input, "sysboot.log", problems);
}

std::string PluginLine(Microseconds start, Microseconds end, const std::string& name) {
  return "[" + FormatTimestamp(start) + " - " + FormatTimestamp(end) + "] sysboot: " + name + "\n";
}

std::vector<std::size_t> ProblemLines(const Problems& problems) {
  std::vector<std::size_t> lines;
  for (const Problem& problem : problems) lines.push_back(problem.line);
  return lines;
}

TEST(AnalyzeTimingLogTest, TimestampsRoundTripThroughTheActivatorsFormat) {
  EXPECT_EQ(FormatTimestamp(kBase + 4210), "2026-11-16 12:05:09.004210");
  EXPECT_EQ(ParseTimestamp("2026-11-16 12:05:09.004210"), kBase + 4210);
  EXPECT_EQ(ParseTimestamp("1970-01-01 00:00:00.000000"), 0);
  // Leap day, and the first microsecond of a year.
  for (Microseconds time : {Microseconds{1709164800LL * 1000000 + 999999}, Microseconds{1735689600LL * 1000000}}) {
    EXPECT_EQ(ParseTimestamp(FormatTimestamp(time)), time) << FormatTimestamp(time);
  }
  for (const char* bad : {"2026-13-16 12:05:09.004210", "2026-11-16 24:05:09.004210", "2026-11-16 12:05:09.0042",
                          "2026-11-16 12:05:09.0042100", "26-11-16 12:05:09.004210", "2026-11-16T12:05:09.004210",
                          "2026-11-16 12:05:09.004210 ", ""}) {
    EXPECT_EQ(ParseTimestamp(bad), std::nullopt) << bad;
  }
}

TEST(AnalyzeTimingLogTest, ReadsStartLinePluginLinesAndSummary) {
  Problems problems;
  TimingLog log = Read("Ondrik Initialization Time: 61000000\n" + PluginLine(kBase + 10, kBase + 500, "10-devices") +
                           PluginLine(kBase + 20, kBase + 20, "volume scratch ] sysboot: x") +
                           "=== Bootstrand configuration info ===\n Start: " + FormatTimestamp(kBase) +
                           "\n End: " + FormatTimestamp(kBase + 900) + "\n",
                       problems);
  EXPECT_TRUE(problems.empty());
  EXPECT_EQ(log.kernelTime, 61000000);
  EXPECT_EQ(log.activationStart, kBase);
  EXPECT_EQ(log.activationEnd, kBase + 900);
  ASSERT_EQ(log.plugins.size(), 2u);
  EXPECT_EQ(log.plugins[0].name, "10-devices");
  EXPECT_EQ(log.plugins[0].start, kBase + 10);
  EXPECT_EQ(log.plugins[0].end, kBase + 500);
  EXPECT_EQ(log.plugins[1].name, "volume scratch ] sysboot: x");
  EXPECT_EQ(log.plugins[1].line, 3u);
}

TEST(AnalyzeTimingLogTest, ReportsAndSkipsLinesThatDoNotFit) {
  Problems problems;
  TimingLog log = Read("Ondrik Initialization Time: 12x\n"                                   // 1
                       "\n"                                                                  // 2
                       "[2026-11-16 12:05:09.000000 - 2026-11-16 12:05:08.000000] sysboot: backwards\n"  // 3
                       "[2026-11-16 12:05:09.000000 - 2026-11-16 12:05:10.000000] sysbot: typo\n"        // 4
                       "[2026-02-30x12:05:09.000000 - 2026-11-16 12:05:10.000000] sysboot: date\n"       // 5
                       + PluginLine(kBase, kBase + 1, "good") +                              // 6
                       " Start: 2026-11-16 12:05:09.000000\n"                                // 7: no summary header
                       "[2026-11-16 12:05:09.000000 - 2026-11-16 12:0",                      // 8: cut off
                       problems);
  EXPECT_EQ(ProblemLines(problems), (std::vector<std::size_t>{1, 2, 3, 4, 5, 7, 8}));
  EXPECT_EQ(Describe(problems.back()), "sysboot.log:8: truncated line (no end of line), skipped");
  EXPECT_EQ(log.kernelTime, std::nullopt);
  EXPECT_EQ(log.activationStart, std::nullopt);
  ASSERT_EQ(log.plugins.size(), 1u);
  EXPECT_EQ(log.plugins[0].name, "good");
}

TEST(AnalyzeTimingLogTest, JoinedLogsKeepTheLatestBoot) {
  Problems problems;
  TimingLog log = Read("Ondrik Initialization Time: 1000000\n" + PluginLine(kBase, kBase + 5, "old") +
                           "Ondrik Initialization Time: 2000000\n" + PluginLine(kBase + 9, kBase + 10, "new"),
                       problems);
  EXPECT_EQ(ProblemLines(problems), std::vector<std::size_t>{3});
  EXPECT_EQ(log.kernelTime, 2000000);
  ASSERT_EQ(log.plugins.size(), 1u);
  EXPECT_EQ(log.plugins[0].name, "new");
}

class AnalyzeOutcomesTest : public ::testing::Test {
 protected:
  void ReadSinks(const std::string& kernel, const std::string& alert) {
    std::istringstream kernelInput(kernel);
    outcomes.ReadKernelSink(kernelInput, "system.log.log", problems);
    std::istringstream alertInput(alert);
    outcomes.ReadAlertSink(alertInput, "system.sysAlert.log", problems);
  }
  std::string Of(const std::string& name, std::size_t index = 0, std::size_t count = 1) const {
    return std::string(OutcomeName(outcomes.Of(name, index, count)));
  }

  PluginOutcomes outcomes;
  Problems problems;
};

TEST_F(AnalyzeOutcomesTest, EveryWayAPluginEnds) {
  ReadSinks(
      "Activating Bootstrand plugin ok.\n"
      "Applying start on plugin ok\n"
      "Bootstrand plugin ok activated.\n"
      "Activating Bootstrand plugin broken.\n"
      "Activating Bootstrand plugin dhcp.\n"
      "Bootstrand plugin static skipped.\n"          // preempted, once per shared tag
      "Bootstrand plugin static skipped.\n"
      "Bootstrand plugin dhcp activated.\n"
      "Bootstrand plugin off skipped.\n"             // disabled: worker layer, then scheduler
      "Bootstrand plugin off skipped.\n"
      "Bootstrand plugin empty skipped.\n"           // no operations: passed over, then "activated"
      "Bootstrand plugin empty activated.\n"
      "Activating Bootstrand plugin pre.\n"
      "Plugin pre skipped.\n"
      "Bootstrand plugin pre opportunistic skipped.\n"
      "Activating Bootstrand plugin try.\n"
      "Bootstrand plugin try opportunistic activation failed.\n"
      "Activating Bootstrand plugin back\\\\slash.\n"
      "Bootstrand plugin back\\\\slash activated.\n"
      "Activating Bootstrand plugin hung.\n",
      "Bootstrand plugin broken activation failed.\n"
      "Bootstrand has unmet dependencies!\n");
  EXPECT_TRUE(problems.empty());
  EXPECT_EQ(Of("ok"), "activated");
  EXPECT_EQ(Of("broken"), "failed");
  EXPECT_EQ(Of("dhcp"), "activated");
  EXPECT_EQ(Of("static"), "skipped");
  EXPECT_EQ(Of("off"), "skipped");
  EXPECT_EQ(Of("empty"), "skipped");
  EXPECT_EQ(Of("pre"), "opportunistic skipped");
  EXPECT_EQ(Of("try"), "opportunistic failed");
  EXPECT_EQ(Of("back\\slash"), "activated");
  EXPECT_EQ(Of("hung"), "unknown");
  EXPECT_EQ(Of("never seen"), "unknown");
}

TEST_F(AnalyzeOutcomesTest, SinksOfSeveralBootsGiveTheLatestOutcomes) {
  // Boot 1: a fails, b activated, c disabled. Boot 2: a activated, b fails, c runs.
  // Boot 2 also has two plugins named d (one per plugin directory): one fails.
  ReadSinks(
      "Activating Bootstrand plugin a.\nActivating Bootstrand plugin b.\nBootstrand plugin b activated.\n"
      "Bootstrand plugin c skipped.\nBootstrand plugin c skipped.\n"
      "Activating Bootstrand plugin a.\nBootstrand plugin a activated.\nActivating Bootstrand plugin b.\n"
      "Activating Bootstrand plugin c.\nBootstrand plugin c activated.\n"
      "Activating Bootstrand plugin d.\nBootstrand plugin d activated.\nActivating Bootstrand plugin d.\n",
      "Bootstrand plugin a activation failed.\nBootstrand plugin b activation failed.\n"
      "Bootstrand plugin d activation failed.\n");
  EXPECT_EQ(Of("a"), "activated");
  EXPECT_EQ(Of("b"), "failed");
  EXPECT_EQ(Of("c"), "activated");
  EXPECT_EQ(Of("d", 0, 2), "activated");
  EXPECT_EQ(Of("d", 1, 2), "failed");
  EXPECT_EQ(Of("d", 0, 3), "unknown");  // a third timed d has no outcome of its own
}

TEST_F(AnalyzeOutcomesTest, BrokenEscapesAreReportedAndSkipped) {
  ReadSinks("Bootstrand plugin x\\q activated.\nBootstrand plugin y activated.\nBootstrand plugin z activated.\\\n",
            "Bootstrand plugin w activation failed.");
  EXPECT_EQ(ProblemLines(problems), (std::vector<std::size_t>{1, 3, 1}));
  EXPECT_EQ(Of("y"), "activated");
  EXPECT_EQ(Of("z"), "unknown");
  EXPECT_EQ(Of("w"), "unknown");
}

// Plugin files in a temporary host root, read with the activator's loaders, and a
// boot timed from them.
class AnalyzeChainTest : public ::testing::Test {
 protected:
  void SetUp() override { Plugin::ResetRegistries(); }
  void TearDown() override { Plugin::ResetRegistries(); }

  void WritePlugin(const std::string& file, const std::string& contents) {
    std::ofstream(root.Path("/" + file)) << contents;
  }
  void WritePlugin(const std::string& name, const std::vector<std::string>& provides,
                   const std::vector<std::string>& requires_, bool preemptive = false) {
    nlohmann::json metadata = {{"version", 1}, {"provides", provides}, {"requires", requires_}};
    if (preemptive) metadata["preemptive_provider"] = true;
    WritePlugin(name + ".json", nlohmann::json{{"metadata", metadata}, {"operations", {{"start", {"x"}}}}}.dump());
  }
  // Plugins as (name, start, end) in milliseconds; the plugin files are read once.
  std::vector<std::string> Chain(const std::vector<std::tuple<std::string, int, int>>& timed) {
    if (!loaded) graph.Load({"/"}, problems);
    loaded = true;
    std::vector<TimedPlugin> plugins;
    for (const auto& [name, start, end] : timed) plugins.push_back({name, kBase + start * 1000, kBase + end * 1000});
    std::vector<std::string> names;
    for (std::size_t index : CriticalChain(plugins, graph)) names.push_back(plugins[index].name);
    return names;
  }

  ScopedRoot root;
  DependencyGraph graph;
  bool loaded = false;
  Problems problems;
};

TEST_F(AnalyzeChainTest, FollowsTheProviderThatEndedLast) {
  WritePlugin("devices", {"devices"}, {});
  WritePlugin("drivers", {"nic"}, {"devices"});
  WritePlugin("storage", {"disk"}, {"devices"});
  WritePlugin("restore", {"config"}, {"disk", "nic"});
  WritePlugin("vms", {"vms"}, {"config", "disk"});
  WritePlugin("later", {"unrelated"}, {});
  EXPECT_EQ(Chain({{"devices", 0, 10}, {"drivers", 11, 15}, {"storage", 11, 40}, {"later", 50, 60},
                   {"restore", 41, 60}, {"vms", 61, 70}}),
            (std::vector<std::string>{"devices", "storage", "restore", "vms"}));
  EXPECT_TRUE(problems.empty());
}

TEST_F(AnalyzeChainTest, PreemptiveProvidersAndKindTagsHoldPluginsBack) {
  WritePlugin("dhcp", {"ip"}, {}, true);
  WritePlugin("static-ip", {"ip"}, {});
  WritePlugin("slow", {"other"}, {});
  // end-autoconf is built in and waits for every JSON plugin.
  EXPECT_EQ(Chain({{"dhcp", 0, 30}, {"slow", 0, 35}, {"static-ip", 31, 50}, {"end-autoconf", 51, 52}}),
            (std::vector<std::string>{"dhcp", "static-ip", "end-autoconf"}));
}

TEST_F(AnalyzeChainTest, NativePluginsAreReadAndUnloadableFilesReported) {
  // The native api2 plugin requires "net" and provides "firewall".
  std::filesystem::copy_file(std::string(BOOTSTRAND_TEST_PLUGIN_DIR) + "/api2.so", root.Path("/api2.so"));
  WritePlugin("net", {"net"}, {});
  WritePlugin("rules", {"rules"}, {"firewall"});
  WritePlugin("broken.json", "{\"metadata\": {\"provides\": [1], \"requires\": []}}");
  WritePlugin("empty.so", "");
  EXPECT_EQ(Chain({{"net", 0, 5}, {"api2", 6, 7}, {"rules", 8, 9}}),
            (std::vector<std::string>{"net", "api2", "rules"}));
  // A plugin that no file declares ends the chain where it stands.
  EXPECT_EQ(Chain({{"net", 0, 5}, {"ghost", 6, 7}}), (std::vector<std::string>{"ghost"}));
  ASSERT_EQ(problems.size(), 2u);
  EXPECT_EQ(problems[0].file, "/broken.json");
  EXPECT_EQ(problems[1].file, "/empty.so");
  EXPECT_NE(problems[0].text.find("left out of the chain"), std::string::npos);
  EXPECT_THROW(DependencyGraph().Load({"/missing.json"}, problems), std::runtime_error);
}

// An analysis of plugins given as (name, start, end) in milliseconds, in log order.
Analysis Analyzed(const std::vector<std::tuple<std::string, int, int>>& timed, const std::string& kernelSink) {
  TimingLog log;
  log.activationStart = kBase;
  log.activationEnd = kBase + 100000;
  std::size_t line = 2;
  for (const auto& [name, start, end] : timed) {
    log.plugins.push_back({name, kBase + start * 1000, kBase + end * 1000, line++});
  }
  PluginOutcomes outcomes;
  Problems problems;
  std::istringstream sink(kernelSink);
  outcomes.ReadKernelSink(sink, "sink", problems);
  return Analyze(std::move(log), outcomes, nullptr);
}

std::vector<std::string> Names(const Analysis& analysis, const std::vector<std::size_t>& order) {
  std::vector<std::string> names;
  for (std::size_t index : order) names.push_back(analysis.timing.plugins[index].name);
  return names;
}

TEST(AnalyzeReportTest, BlameListsTheLongestFirstAndTiesByStart) {
  Analysis analysis = Analyzed({{"c", 5, 25}, {"a", 0, 10}, {"b", 2, 22}, {"d", 30, 31}}, "");
  EXPECT_EQ(Names(analysis, analysis.byStart), (std::vector<std::string>{"a", "b", "c", "d"}));
  EXPECT_EQ(Names(analysis, analysis.blame), (std::vector<std::string>{"b", "c", "a", "d"}));
  std::ostringstream report;
  PrintReport(report, analysis, 2);
  EXPECT_NE(report.str().find("Slowest plugins:\n      20.0 ms  b (unknown)\n      20.0 ms  c (unknown)\n\n"),
            std::string::npos)
      << report.str();
  EXPECT_NE(report.str().find("not worked out: no plugin files given"), std::string::npos);
}

// The bars of the SVG in document order: (class, x, y, label) of each.
std::vector<std::tuple<std::string, double, int, std::string>> Bars(const std::string& svg) {
  std::vector<std::tuple<std::string, double, int, std::string>> bars;
  std::regex bar(R"re(text-anchor="end">([^<]*)</text><rect class="bar ([^"]*)" x="([0-9.]+)" y="([0-9]+)")re");
  for (std::sregex_iterator each(svg.begin(), svg.end(), bar), end; each != end; ++each) {
    bars.emplace_back((*each)[2], std::stod((*each)[3]), std::stoi((*each)[4]), (*each)[1]);
  }
  return bars;
}

TEST(AnalyzeTimelineSvgTest, OneBarPerPluginInStartOrderColouredByOutcome) {
  Analysis analysis = Analyzed({{"late", 50, 90}, {"early", 0, 40}, {"x<&\"y\x01\xff", 10, 10}, {"middle", 20, 30}},
                               "Activating Bootstrand plugin late.\nBootstrand plugin late activated.\n"
                               "Bootstrand plugin middle skipped.\nBootstrand plugin middle skipped.\n");
  analysis.chain = std::vector<std::size_t>{1, 0};
  std::ostringstream output;
  WriteTimelineSvg(output, analysis);
  std::string svg = output.str();
  auto bars = Bars(svg);
  ASSERT_EQ(bars.size(), 4u) << svg;
  EXPECT_EQ(std::get<3>(bars[0]), "early");
  EXPECT_EQ(std::get<3>(bars[1]), "x&lt;&amp;&quot;y??");
  EXPECT_EQ(std::get<3>(bars[2]), "middle");
  EXPECT_EQ(std::get<3>(bars[3]), "late");
  EXPECT_EQ(std::get<0>(bars[0]), "unknown chain");
  EXPECT_EQ(std::get<0>(bars[2]), "skipped");
  EXPECT_EQ(std::get<0>(bars[3]), "activated chain");
  for (std::size_t i = 1; i < bars.size(); ++i) {
    EXPECT_LT(std::get<1>(bars[i - 1]), std::get<1>(bars[i]));
    EXPECT_LT(std::get<2>(bars[i - 1]), std::get<2>(bars[i]));
  }
  EXPECT_EQ(svg.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\"", 0), 0u);
  EXPECT_EQ(svg.substr(svg.size() - 7), "</svg>\n");
  // Ticks every 10 ms over the 100 ms of activation, each labelled above and below.
  EXPECT_NE(svg.find(">100 ms</text><text"), std::string::npos);
  EXPECT_EQ(svg.find(">110 ms<"), std::string::npos);
}

// Two boots, plugins as (name, start, end) in milliseconds. Before: d 10 ms, a 50, b 60,
// e 50, c 40, dup 10 + 10 (two plugins, one name), gone 5. After: d 30, b 65, a 55,
// e 54, c 35, dup 10, new 1.
Comparison CompareExample(const std::string& threshold) {
  Analysis before = Analyzed({{"d", 0, 10}, {"a", 0, 50}, {"gone", 0, 5}, {"b", 0, 60}, {"e", 0, 50}, {"c", 0, 40},
                              {"dup", 0, 10}, {"dup", 20, 30}},
                             "");
  Analysis after = Analyzed(
      {{"new", 0, 1}, {"b", 0, 65}, {"a", 0, 55}, {"c", 0, 35}, {"d", 0, 30}, {"e", 0, 54}, {"dup", 40, 50}}, "");
  return Compare(before, after, ParseThreshold(threshold).value());
}

std::vector<std::string> ChangeNames(const Comparison& comparison, const std::vector<std::size_t>& listed) {
  std::vector<std::string> names;
  for (std::size_t index : listed) names.push_back(comparison.plugins[index].name);
  return names;
}

TEST(AnalyzeComparisonTest, SortsByChangeAndListsOnlyChangesPastBothThresholds) {
  using Names = std::vector<std::string>;
  struct Case {
    const char* threshold;
    Names slower;
    Names faster;
  };
  for (const Case& test : {
           Case{"5ms,10%", {"d", "a"}, {"dup", "c"}},  // a: +5 ms is exactly 10 %; b: +5 ms is 8 %
           Case{"0us,0%", {"d", "a", "b", "e"}, {"dup", "c"}},
           Case{"20ms", {"d"}, {}},
           Case{"1ms,50%", {"d"}, {"dup"}},  // dup: 20 ms to 10 ms is exactly 50 %
       }) {
    Comparison comparison = CompareExample(test.threshold);
    Names order;
    for (const PluginChange& change : comparison.plugins) order.push_back(change.name);
    EXPECT_EQ(order, (Names{"d", "a", "b", "e", "c", "dup"})) << test.threshold;
    EXPECT_EQ(comparison.plugins.back().before, 20000);
    EXPECT_EQ(ChangeNames(comparison, comparison.slower), test.slower) << test.threshold;
    EXPECT_EQ(ChangeNames(comparison, comparison.faster), test.faster) << test.threshold;
    EXPECT_EQ(comparison.added, Names{"new"});
    EXPECT_EQ(comparison.removed, Names{"gone"});
  }
}

TEST(AnalyzeComparisonTest, ThresholdsParseAsDurationPercentageOrBoth) {
  for (const auto& [text, absolute, basisPoints] : std::vector<std::tuple<std::string, Microseconds, int>>{
           {"5ms,10%", 5000, 1000}, {"10%,5ms", 5000, 1000}, {"2.5s", 2500000, 1000}, {"0.25%", 5000, 25},
           {"250us,0%", 250, 0}, {"0.001s", 1000, 1000}}) {
    std::optional<Threshold> threshold = ParseThreshold(text);
    ASSERT_TRUE(threshold) << text;
    EXPECT_EQ(threshold->absolute, absolute) << text;
    EXPECT_EQ(threshold->basisPoints, basisPoints) << text;
  }
  for (const char* bad : {"", "5", "5m", "5ms,", ",10%", "5ms,6ms", "10%,20%", "-5ms", "1.5us", "5 ms", "10.125%",
                          "1e3ms", ".5ms", "5.ms", "10%%", "9999999999s"}) {
    EXPECT_EQ(ParseThreshold(bad), std::nullopt) << bad;
  }
}

TEST(AnalyzeComparisonTest, ReportsTotalsALogWithoutSummaryAndTheChains) {
  Problems problems;
  std::string summary = "=== Bootstrand configuration info ===\n Start: " + FormatTimestamp(kBase) +
                        "\n End: " + FormatTimestamp(kBase + 100000) + "\n";
  Analysis before = Analyze(Read("Ondrik Initialization Time: 61000000\n" + PluginLine(kBase, kBase + 8000, "a") +
                                     PluginLine(kBase + 9000, kBase + 10000, "b") + summary,
                                 problems),
                            PluginOutcomes(), nullptr);
  // A boot that did not end: its plugins span 2 ms to 32 ms.
  Analysis after = Analyze(Read("Ondrik Initialization Time: 64000000\n" + PluginLine(kBase + 2000, kBase + 20000, "a") +
                                    PluginLine(kBase + 20000, kBase + 32000, "c"),
                                problems),
                           PluginOutcomes(), nullptr);
  EXPECT_TRUE(problems.empty());
  for (Analysis* analysis : {&before, &after}) {
    analysis->chain = std::vector<std::size_t>{0, 1};
    analysis->chainNotes.clear();
  }
  Comparison comparison = Compare(before, after, Threshold());
  std::ostringstream text;
  PrintComparison(text, comparison, 1);
  EXPECT_EQ(text.str(),
            "Activation: 100.0 ms -> 30.0 ms (-70.0 ms)\n"
            "  after: no summary in the timing log (the run did not end normally); "
            "the span of its timed plugins counts instead\n"
            "Kernel start to activation start: 61 s -> 64 s (+3 s)\n"
            "Plugins timed in both boots: 1; 1 slower, 0 faster by at least 5.0 ms and 10 %\n\n"
            "Slower plugins:\n       before        after       change  plugin\n"
            "       8.0 ms      18.0 ms     +10.0 ms  a\n\n"
            "Faster plugins: none\n\n"
            "Added plugins: c\nRemoved plugins: b\n\n"
            "Critical chain changed:\n  before: a -> b\n  after:  a -> c\n");
  nlohmann::json json = ComparisonJson(comparison, 0);
  EXPECT_EQ(json["activation"], nlohmann::json::parse(R"({"before_us": 100000, "after_us": 30000, "delta_us": -70000,
                                 "before_has_summary": true, "after_has_summary": false})"));
  EXPECT_EQ(json["plugins"], nlohmann::json::parse(R"([{"name": "a", "before_us": 8000, "after_us": 18000,
                                                        "delta_us": 10000}])"));
  EXPECT_EQ(json["slower"], json["plugins"]);
  EXPECT_EQ(json["kernel_to_activation"]["delta_us"], 3000000);
  EXPECT_EQ(json["critical_chain"]["changed"], true);
}

}  // namespace
}  // namespace bootstrand::analyze
