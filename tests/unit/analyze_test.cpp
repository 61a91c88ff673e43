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
#include "support/test_plugin.h"

namespace bootstrand::analyze {
namespace {

using Names = std::vector<std::string>;
// Plugins as (name, start, end) in milliseconds after kBase.
using Timed = std::vector<std::tuple<std::string, int, int>>;

// 2026-11-16 12:05:09 UTC in microseconds since the epoch.
constexpr Microseconds kBase = 1794830709LL * 1000000;

TimingLog Read(const std::string& text, Problems& problems) {
  std::istringstream input(text);
  return ReadTimingLog(input, "sysboot.log", problems);
}

std::string PluginLine(Microseconds start, Microseconds end, const std::string& name) {
  return "[" + FormatTimestamp(start) + " - " + FormatTimestamp(end) + "] sysboot: " + name + "\n";
}

std::string Summary(Microseconds start, Microseconds end) {
  return "=== Bootstrand configuration info ===\n Start: " + FormatTimestamp(start) + "\n End: " +
         FormatTimestamp(end) + "\n";
}

std::vector<std::size_t> ProblemLines(const Problems& problems) {
  std::vector<std::size_t> lines;
  for (const Problem& problem : problems) lines.push_back(problem.line);
  return lines;
}

TEST(AnalyzeTimingLog, TimestampsRoundTripThroughTheActivatorsFormat) {
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

TEST(AnalyzeTimingLog, KeepsTheLatestBootAndReportsAndSkipsLinesThatDoNotFit) {
  Problems problems;
  TimingLog log = Read("Ondrik Initialization Time: 1000000\n" + PluginLine(kBase, kBase + 5, "old") +  // 1-2
                           "Ondrik Initialization Time: 12x\n"                                             // 3
                           "Ondrik Initialization Time: 61000000\n"                                        // 4
                           "\n" +                                                                          // 5
                           PluginLine(kBase + 10, kBase + 500, "10-devices") +                             // 6
                           PluginLine(kBase + 20, kBase + 20, "volume scratch ] sysboot: x") +             // 7
                           "[2026-11-16 12:05:09.000000 - 2026-11-16 12:05:08.000000] sysboot: backwards\n"
                           "[2026-11-16 12:05:09.000000 - 2026-11-16 12:05:10.000000] sysbot: typo\n"
                           "[2026-02-30x12:05:09.000000 - 2026-11-16 12:05:10.000000] sysboot: date\n"
                           " Start: 2026-11-16 12:05:09.000000\n" +  // 11: before the summary's header
                           Summary(kBase, kBase + 900) +             // 12-14
                           "[2026-11-16 12:05:09.000000 - 2026-11-16 12:0",
                       problems);
  EXPECT_EQ(ProblemLines(problems), (std::vector<std::size_t>{3, 4, 5, 8, 9, 10, 11, 15}));
  EXPECT_EQ(Describe(problems[1]), "sysboot.log:4: a later boot starts here; the lines before it are left out");
  EXPECT_EQ(Describe(problems.back()), "sysboot.log:15: truncated line (no end of line), skipped");
  EXPECT_EQ(log.kernelTime, 61000000);
  EXPECT_EQ(log.activationStart, kBase);
  EXPECT_EQ(log.activationEnd, kBase + 900);
  std::vector<std::tuple<std::string, Microseconds, Microseconds, std::size_t>> plugins;
  for (const TimedPlugin& each : log.plugins) plugins.emplace_back(each.name, each.start, each.end, each.line);
  EXPECT_EQ(plugins, (decltype(plugins){{"10-devices", kBase + 10, kBase + 500, 6},
                                        {"volume scratch ] sysboot: x", kBase + 20, kBase + 20, 7}}));
}

// Plain outcomes, the ways a plugin is passed over, several boots in one sink (the
// latest counts), two plugins of one name, and broken lines.
TEST(AnalyzeOutcomes, EachPluginGetsItsLatestOutcome) {
  std::istringstream kernel(
      "Activating Bootstrand plugin ok.\nApplying start on plugin ok\nBootstrand plugin ok activated.\n"
      "Activating Bootstrand plugin broken.\nActivating Bootstrand plugin dhcp.\n"
      "Bootstrand plugin static skipped.\nBootstrand plugin static skipped.\n"  // preempted, once per shared tag
      "Bootstrand plugin dhcp activated.\n"
      "Bootstrand plugin off skipped.\nBootstrand plugin off skipped.\n"  // disabled: worker layer, then scheduler
      "Bootstrand plugin empty skipped.\nBootstrand plugin empty activated.\n"  // no operations
      "Activating Bootstrand plugin pre.\nPlugin pre skipped.\nBootstrand plugin pre opportunistic skipped.\n"
      "Activating Bootstrand plugin try.\nBootstrand plugin try opportunistic activation failed.\n"
      "Activating Bootstrand plugin back\\\\slash.\nBootstrand plugin back\\\\slash activated.\n"
      "Activating Bootstrand plugin hung.\n"
      // Boot 1: a fails, b activated, c disabled. Boot 2: a activated, b fails, c runs,
      // and two plugins named d (one per plugin directory), one of which fails.
      "Activating Bootstrand plugin a.\nActivating Bootstrand plugin b.\nBootstrand plugin b activated.\n"
      "Bootstrand plugin c skipped.\nBootstrand plugin c skipped.\n"
      "Activating Bootstrand plugin a.\nBootstrand plugin a activated.\nActivating Bootstrand plugin b.\n"
      "Activating Bootstrand plugin c.\nBootstrand plugin c activated.\n"
      "Activating Bootstrand plugin d.\nBootstrand plugin d activated.\nActivating Bootstrand plugin d.\n"
      "Bootstrand plugin x\\q activated.\nBootstrand plugin y activated.\nBootstrand plugin z activated.\\\n");
  std::istringstream alert(
      "Bootstrand plugin broken activation failed.\nBootstrand has unmet dependencies!\n"
      "Bootstrand plugin a activation failed.\nBootstrand plugin b activation failed.\n"
      "Bootstrand plugin d activation failed.\nBootstrand plugin w activation failed.");
  PluginOutcomes outcomes;
  Problems problems;
  outcomes.ReadKernelSink(kernel, "system.log.log", problems);
  outcomes.ReadAlertSink(alert, "system.sysAlert.log", problems);
  EXPECT_EQ(ProblemLines(problems), (std::vector<std::size_t>{34, 36, 6}));
  const std::tuple<std::string, std::size_t, std::size_t, std::string_view> cases[] = {
      {"ok", 0, 1, "activated"}, {"broken", 0, 1, "failed"}, {"dhcp", 0, 1, "activated"},
      {"static", 0, 1, "skipped"}, {"off", 0, 1, "skipped"}, {"empty", 0, 1, "skipped"},
      {"pre", 0, 1, "opportunistic skipped"}, {"try", 0, 1, "opportunistic failed"},
      {"back\\slash", 0, 1, "activated"}, {"hung", 0, 1, "unknown"}, {"never seen", 0, 1, "unknown"},
      {"a", 0, 1, "activated"}, {"b", 0, 1, "failed"}, {"c", 0, 1, "activated"},
      {"d", 0, 2, "activated"}, {"d", 1, 2, "failed"}, {"d", 0, 3, "unknown"},  // a third d has no outcome of its own
      {"y", 0, 1, "activated"}, {"z", 0, 1, "unknown"}, {"w", 0, 1, "unknown"},
  };
  for (const auto& [name, index, count, outcome] : cases) {
    EXPECT_EQ(OutcomeName(outcomes.Of(name, index, count)), outcome) << name << " " << index << " of " << count;
  }
}

// Plugin files in a temporary host root, read with the activator's loaders, and boots
// timed from them.
using AnalyzeChain = testing::PluginTest;

TEST_F(AnalyzeChain, FollowsWhatEachPluginWaitedOnThatEndedLast) {
  for (const auto& [name, provides, requires_] : std::vector<std::tuple<std::string, Names, Names>>{
           {"devices", {"devices"}, {}}, {"drivers", {"nic"}, {"devices"}}, {"storage", {"disk"}, {"devices"}},
           {"restore", {"config"}, {"disk", "nic"}}, {"vms", {"vms"}, {"config", "disk"}},
           {"later", {"unrelated"}, {}}, {"dhcp", {"ip"}, {}}, {"static-ip", {"ip"}, {}}, {"net", {"net"}, {}},
           {"rules", {"rules"}, {"firewall"}}}) {
    nlohmann::json metadata = {{"version", 1}, {"provides", provides}, {"requires", requires_}};
    if (name == "dhcp") metadata["preemptive_provider"] = true;
    std::ofstream(root_.Path("/" + name + ".json")) << nlohmann::json{{"metadata", metadata},
                                                                      {"operations", {{"start", {"x"}}}}};
  }
  // The native api2 plugin requires "net" and provides "firewall".
  std::filesystem::copy_file(BOOTSTRAND_TEST_PLUGIN_DIR "/api2.so", root_.Path("/api2.so"));
  std::ofstream(root_.Path("/broken.json")) << R"({"metadata": {"provides": [1], "requires": []}})";
  std::ofstream(root_.Path("/empty.so")).flush();
  Problems problems;
  DependencyGraph graph;
  graph.Load({"/"}, problems);
  ASSERT_EQ(problems.size(), 2u);
  EXPECT_EQ(problems[0].file, "/broken.json");
  EXPECT_NE(problems[0].text.find("left out of the chain"), std::string::npos);
  EXPECT_EQ(problems[1].file, "/empty.so");
  EXPECT_THROW(DependencyGraph().Load({"/missing.json"}, problems), std::runtime_error);

  auto chain = [&graph](const Timed& timed) {
    std::vector<TimedPlugin> plugins;
    for (const auto& [name, start, end] : timed) plugins.push_back({name, kBase + start * 1000, kBase + end * 1000});
    Names names;
    for (std::size_t index : CriticalChain(plugins, graph)) names.push_back(plugins[index].name);
    return names;
  };
  EXPECT_EQ(chain({{"devices", 0, 10}, {"drivers", 11, 15}, {"storage", 11, 40}, {"later", 50, 60},
                   {"restore", 41, 60}, {"vms", 61, 70}}),
            (Names{"devices", "storage", "restore", "vms"}));
  // A preemptive provider holds its rivals back; the built-in end-autoconf waits
  // for every JSON plugin.
  EXPECT_EQ(chain({{"dhcp", 0, 30}, {"later", 0, 35}, {"static-ip", 31, 50}, {"end-autoconf", 51, 52}}),
            (Names{"dhcp", "static-ip", "end-autoconf"}));
  EXPECT_EQ(chain({{"net", 0, 5}, {"api2", 6, 7}, {"rules", 8, 9}}), (Names{"net", "api2", "rules"}));
  // A plugin that no file declares ends the chain where it stands.
  EXPECT_EQ(chain({{"net", 0, 5}, {"ghost", 6, 7}}), Names{"ghost"});
}

// An analysis of plugins in log order, without plugin files.
Analysis Analyzed(const Timed& timed, const std::string& kernelSink) {
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

Names NamesOf(const Analysis& analysis, const std::vector<std::size_t>& order) {
  Names names;
  for (std::size_t index : order) names.push_back(analysis.timing.plugins[index].name);
  return names;
}

// The blame list puts the longest first, ties by start; the timeline has one bar per
// plugin in start order, coloured by outcome and marked when on the chain.
TEST(AnalyzeReport, BlameAndTimelineOrderThePlugins) {
  Analysis analysis = Analyzed({{"late", 50, 90}, {"early", 0, 40}, {"x<&\"y\x01\xff", 10, 10}, {"middle", 20, 30}},
                               "Activating Bootstrand plugin late.\nBootstrand plugin late activated.\n"
                               "Bootstrand plugin middle skipped.\nBootstrand plugin middle skipped.\n");
  EXPECT_EQ(NamesOf(analysis, analysis.blame), (Names{"early", "late", "middle", "x<&\"y\x01\xff"}));
  std::ostringstream report;
  PrintReport(report, analysis, 2);
  EXPECT_NE(report.str().find("Slowest plugins:\n      40.0 ms  early (unknown)\n      40.0 ms  late (activated)\n\n"),
            std::string::npos)
      << report.str();
  EXPECT_NE(report.str().find("not worked out: no plugin files given"), std::string::npos);

  analysis.chain = std::vector<std::size_t>{1, 0};
  std::ostringstream output;
  WriteTimelineSvg(output, analysis);
  const std::string svg = output.str();
  // Each bar as "class label", in document order, each further right and lower.
  std::regex bar(R"re(text-anchor="end">([^<]*)</text><rect class="bar ([^"]*)" x="([0-9.]+)" y="([0-9]+)")re");
  Names bars;
  double x = -1, y = -1;
  for (std::sregex_iterator each(svg.begin(), svg.end(), bar), end; each != end; ++each) {
    bars.push_back((*each)[2].str() + " " + (*each)[1].str());
    EXPECT_LT(x, std::stod((*each)[3]));
    EXPECT_LT(y, std::stod((*each)[4]));
    x = std::stod((*each)[3]);
    y = std::stod((*each)[4]);
  }
  EXPECT_EQ(bars, (Names{"unknown chain early", "unknown x&lt;&amp;&quot;y??", "skipped middle",
                         "activated chain late"}));
  EXPECT_EQ(svg.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\"", 0), 0u);
  EXPECT_EQ(svg.substr(svg.size() - 7), "</svg>\n");
  // Ticks every 10 ms over the 100 ms of activation, each labelled above and below.
  EXPECT_NE(svg.find(">100 ms</text><text"), std::string::npos);
  EXPECT_EQ(svg.find(">110 ms<"), std::string::npos);
}

// Before: d 10 ms, a 50, b 60, e 50, c 40, dup 10 + 10 (two plugins, one name), gone 5.
// After: d 30, b 65, a 55, e 54, c 35, dup 10, new 1.
TEST(AnalyzeComparison, SortsByChangeAndListsOnlyChangesPastBothThresholds) {
  Analysis before = Analyzed({{"d", 0, 10}, {"a", 0, 50}, {"gone", 0, 5}, {"b", 0, 60}, {"e", 0, 50}, {"c", 0, 40},
                              {"dup", 0, 10}, {"dup", 20, 30}}, "");
  Analysis after = Analyzed(
      {{"new", 0, 1}, {"b", 0, 65}, {"a", 0, 55}, {"c", 0, 35}, {"d", 0, 30}, {"e", 0, 54}, {"dup", 40, 50}}, "");
  const std::tuple<const char*, Names, Names> cases[] = {
      {"5ms,10%", {"d", "a"}, {"dup", "c"}},  // a: +5 ms is exactly 10 %; b: +5 ms is 8 %
      {"0us,0%", {"d", "a", "b", "e"}, {"dup", "c"}},
      {"20ms", {"d"}, {}},
      {"1ms,50%", {"d"}, {"dup"}},  // dup: 20 ms to 10 ms is exactly 50 %
  };
  for (const auto& [threshold, slower, faster] : cases) {
    Comparison comparison = Compare(before, after, ParseThreshold(threshold).value());
    Names order, slowerNames, fasterNames;
    for (const PluginChange& change : comparison.plugins) order.push_back(change.name);
    for (std::size_t index : comparison.slower) slowerNames.push_back(order[index]);
    for (std::size_t index : comparison.faster) fasterNames.push_back(order[index]);
    EXPECT_EQ(order, (Names{"d", "a", "b", "e", "c", "dup"})) << threshold;
    EXPECT_EQ(comparison.plugins.back().before, 20000);
    EXPECT_EQ(slowerNames, slower) << threshold;
    EXPECT_EQ(fasterNames, faster) << threshold;
    EXPECT_EQ(comparison.added, Names{"new"});
    EXPECT_EQ(comparison.removed, Names{"gone"});
  }
}

TEST(AnalyzeComparison, ThresholdsParseAsDurationPercentageOrBoth) {
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

TEST(AnalyzeComparison, ReportsTotalsALogWithoutSummaryAndTheChains) {
  Problems problems;
  auto analyze = [&problems](const std::string& text) { return Analyze(Read(text, problems), {}, nullptr); };
  Analysis before = analyze("Ondrik Initialization Time: 61000000\n" + PluginLine(kBase, kBase + 8000, "a") +
                            PluginLine(kBase + 9000, kBase + 10000, "b") + Summary(kBase, kBase + 100000));
  // A boot that did not end: its plugins span 2 ms to 32 ms.
  Analysis after = analyze("Ondrik Initialization Time: 64000000\n" + PluginLine(kBase + 2000, kBase + 20000, "a") +
                           PluginLine(kBase + 20000, kBase + 32000, "c"));
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
  EXPECT_EQ(ComparisonJson(comparison, 0)["activation"],
            nlohmann::json::parse(R"({"before_us": 100000, "after_us": 30000, "delta_us": -70000,
                                     "before_has_summary": true, "after_has_summary": false})"));
}

}  // namespace
}  // namespace bootstrand::analyze
