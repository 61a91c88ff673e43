// The boot analyzer's readers (timing log, channel sinks, plugin files), its blame
// order and critical chain, the bars of its SVG timeline, its metrics, and the
// comparison of two boots.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "analyze/analysis.h"
#include "analyze/comparison.h"
#include "analyze/openmetrics.h"
#include "analyze/plugin_outcomes.h"
#include "analyze/timeline_svg.h"
#include "analyze/timing_log.h"
#include "support/test_plugin.h"

namespace bootstrand::analyze {
namespace {

using testing::Joined;

using Names = std::vector<std::string>;
// Plugins as (name, start, end) in milliseconds after kBase.
using Timed = std::vector<std::tuple<std::string, int, int>>;

// 2026-11-16 12:05:09 UTC in microseconds since the epoch.
constexpr Microseconds kBase = 1794830709LL * 1000000;

std::vector<std::size_t> ProblemLines(const Problems& problems) {
  std::vector<std::size_t> lines;
  for (const Problem& problem : problems) lines.push_back(problem.line);
  return lines;
}

TEST(AnalyzeTimingLog, TimestampsRoundTripThroughTheActivatorsFormat) {
  EXPECT_EQ(FormatTimestamp(kBase + 4210), "2026-11-16 12:05:09.004210");
  // The epoch, the last microsecond of a leap day and the first of a year.
  for (Microseconds time : std::vector<Microseconds>{kBase + 4210, 0, 1709164800999999, 1735689600000000}) {
    EXPECT_EQ(ParseTimestamp(FormatTimestamp(time)), time) << FormatTimestamp(time);
  }
  for (const char* bad : {"2026-13-16 12:05:09.004210", "2026-11-16 24:05:09.004210", "2026-11-16 12:05:09.0042",
                          "2026-11-16 12:05:09.0042100", "26-11-16 12:05:09.004210", "2026-11-16T12:05:09.004210",
                          "2026-11-16 12:05:09.004210 "}) {
    EXPECT_EQ(ParseTimestamp(bad), std::nullopt) << bad;
  }
}

TEST(AnalyzeTimingLog, KeepsTheLatestBootAndReportsAndSkipsLinesThatDoNotFit) {
  std::istringstream input(
      "Ondrik Initialization Time: 1000000\n"
      "[2026-11-16 12:05:09.000000 - 2026-11-16 12:05:09.005000] sysboot: old\n"
      "Ondrik Initialization Time: 12x\n"       // 3
      "Ondrik Initialization Time: 61000000\n"  // 4: the latest boot
      "\n"
      "[2026-11-16 12:05:09.010000 - 2026-11-16 12:05:09.500000] sysboot: 10-devices\n"
      "[2026-11-16 12:05:09.020000 - 2026-11-16 12:05:09.020000] sysboot: volume scratch ] sysboot: x\n"
      "[2026-11-16 12:05:09.000000 - 2026-11-16 12:05:08.000000] sysboot: backwards\n"  // 8: a clock step
      "[2026-11-16 12:05:09.000000 - 2026-11-16 12:05:10.000000] sysbot: typo\n"
      "[2026-02-30x12:05:09.000000 - 2026-11-16 12:05:10.000000] sysboot: date\n"
      " Start: 2026-11-16 12:05:09.000000\n"  // 11: before the summary's header
      "=== Bootstrand configuration info ===\n Start: 2026-11-16 12:05:09.000000\n End: 2026-11-16 12:05:09.900000\n"
      "[2026-11-16 12:05:09.000000 - 2026-11-16 12:0");  // 15
  Problems problems;
  TimingLog log = ReadTimingLog(input, "sysboot.log", problems);
  EXPECT_EQ(ProblemLines(problems), (std::vector<std::size_t>{3, 4, 5, 9, 10, 11, 15}));
  EXPECT_EQ(Describe(problems[1]), "sysboot.log:4: a later boot starts here; the lines before it are left out");
  EXPECT_EQ(Describe(problems.back()), "sysboot.log:15: truncated line (no end of line), skipped");
  EXPECT_EQ(log.kernelTime, 61000000);
  EXPECT_EQ(log.activationStart, kBase);
  EXPECT_EQ(log.activationEnd, kBase + 900000);
  std::vector<std::tuple<std::string, Microseconds, Microseconds, std::size_t>> plugins;
  for (const TimedPlugin& each : log.plugins) plugins.emplace_back(each.name, each.start, each.end, each.line);
  EXPECT_EQ(plugins, (decltype(plugins){{"10-devices", kBase + 10000, kBase + 500000, 6},
                                        {"volume scratch ] sysboot: x", kBase + 20000, kBase + 20000, 7}}));
  ASSERT_EQ(log.endsBeforeStart.size(), 1u);  // kept apart, for the clock step it shows
  EXPECT_EQ(log.endsBeforeStart[0].line, 8u);
}

// Plain outcomes, the ways a plugin is passed over, several boots in one sink (the
// latest counts), two plugins of one name, and broken lines.
TEST(AnalyzeOutcomes, EachPluginGetsItsLatestOutcome) {
  std::istringstream kernel(
      "Activating Bootstrand plugin ok.\nApplying start on plugin ok\nBootstrand plugin ok activated.\n"
      "Activating Bootstrand plugin broken.\n"
      "Bootstrand plugin static skipped.\nBootstrand plugin static skipped.\n"  // preempted, once per shared tag
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
  EXPECT_EQ(ProblemLines(problems), (std::vector<std::size_t>{32, 34, 6}));
  Names latest;
  for (const auto& [name, outcome] : outcomes.Latest()) {
    latest.push_back(name + "=" + std::string(OutcomeName(outcome)));
  }
  EXPECT_EQ(Joined(latest, ", "), "ok=activated, broken=failed, static=skipped, off=skipped, empty=skipped, "
                                  "pre=opportunistic skipped, try=opportunistic failed, back\\slash=activated, "
                                  "hung=unknown, a=activated, b=failed, c=activated, d=failed, y=activated");
  // The two plugins named d; a third has no outcome of its own.
  EXPECT_EQ(OutcomeName(outcomes.Of("d", 0, 2)), "activated");
  EXPECT_EQ(OutcomeName(outcomes.Of("d", 0, 3)), "unknown");
  EXPECT_EQ(OutcomeName(outcomes.Of("never seen", 0, 1)), "unknown");
}

std::vector<TimedPlugin> Plugins(const Timed& timed) {
  std::vector<TimedPlugin> plugins;
  std::size_t line = 2;
  for (const auto& [name, start, end] : timed) {
    plugins.push_back({name, kBase + start * 1000, kBase + end * 1000, line++});
  }
  return plugins;
}

// An analysis of plugins in log order, without plugin files; `summary`: the boot ended
// 100 ms after kBase.
Analysis Analyzed(const Timed& timed, const std::string& kernelSink = "", bool summary = true) {
  TimingLog log;
  if (summary) log.activationStart = kBase, log.activationEnd = kBase + 100000;
  log.plugins = Plugins(timed);
  PluginOutcomes outcomes;
  Problems problems;
  std::istringstream sink(kernelSink);
  outcomes.ReadKernelSink(sink, "sink", problems);
  BootInput input;
  input.timing = std::move(log);
  return Analyze(std::move(input), outcomes, nullptr);
}

// The blame list puts the longest first, ties by start; the timeline has one bar per
// plugin in start order, coloured by outcome and marked when on the chain. (The
// report's text is the end-to-end tests'.)
TEST(AnalyzeReport, BlameAndTimelineOrderThePlugins) {
  Analysis analysis = Analyzed({{"late", 50, 90}, {"early", 0, 40}, {"x<&\"y\x01\xff", 10, 10}, {"middle", 20, 30}},
                               "Activating Bootstrand plugin late.\nBootstrand plugin late activated.\n"
                               "Bootstrand plugin middle skipped.\nBootstrand plugin middle skipped.\n");
  Names blame;
  for (std::size_t index : analysis.blame) blame.push_back(analysis.timing.plugins[index].name);
  EXPECT_EQ(blame, (Names{"early", "late", "middle", "x<&\"y\x01\xff"}));
  analysis.chain = std::vector<std::size_t>{1, 0};
  std::ostringstream output;
  WriteTimelineSvg(output, analysis);
  const std::string svg = output.str();
  // Each bar as "class label", in document order.
  std::regex bar(R"re(text-anchor="end">([^<]*)</text><rect class="bar ([^"]*)")re");
  Names bars;
  for (std::sregex_iterator each(svg.begin(), svg.end(), bar), end; each != end; ++each) {
    bars.push_back((*each)[2].str() + " " + (*each)[1].str());
  }
  EXPECT_EQ(bars, (Names{"unknown chain early", "unknown x&lt;&amp;&quot;y??", "skipped middle",
                         "activated chain late"}));
  EXPECT_EQ(svg.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\"", 0), 0u);
  EXPECT_EQ(svg.substr(svg.size() - 7), "</svg>\n");
}

// The metrics' samples (their HELP and TYPE lines are promtool's, end to end): names
// escaped, bytes not UTF-8 (stray, overlong, a surrogate, past U+10FFFF) replaced,
// names that make the same label one series; then a boot that did not end.
TEST(AnalyzeReport, MetricsHoldOneSeriesPerLabelValue) {
  auto samples = [](const Analysis& analysis) {
    std::ostringstream output;
    WriteOpenMetrics(output, analysis);
    std::istringstream lines(output.str());
    std::string text;
    for (std::string line; std::getline(lines, line);) text += line.starts_with("# ") ? "" : line + "\n";
    return text;
  };
  Analysis analysis = Analyzed({{"a\"b\\c\nd", 0, 40}, {"dup", 10, 20}, {"x\xff", 20, 25}, {"dup", 30, 60},
                                {"x\xfe", 50, 51},
                                {"\xc0\xaf\xed\xa0\x80\xf4\x90\x80\x80\xf0\x9f\x98\x80\xc3", 60, 60}},
                               "Activating Bootstrand plugin dup.\nBootstrand plugin dup activated.\n"
                               "Activating Bootstrand plugin dup.\nBootstrand plugin dup activation failed.\n"
                               "Activating Bootstrand plugin x\xff.\nBootstrand plugin x\xff activated.\n"
                               "Bootstrand plugin pre skipped.\n");
  analysis.timing.kernelTime = 61000000;
  const std::string fffd = "\xef\xbf\xbd", x = "{plugin=\"x" + fffd + "\"}",
                    odd = "{plugin=\"" + fffd + fffd + fffd + fffd + fffd + fffd + fffd + fffd + fffd +
                          "\xf0\x9f\x98\x80" + fffd + "\"}";
  EXPECT_EQ(samples(analysis),
            "bootstrand_activation_start_timestamp_seconds 1794830709\n"
            "bootstrand_activation_duration_seconds 0.1\nbootstrand_activation_completed 1\n"
            "bootstrand_kernel_to_activation_seconds 61\n"
            "bootstrand_plugins{outcome=\"activated\"} 2\nbootstrand_plugins{outcome=\"failed\"} 1\n"
            "bootstrand_plugins{outcome=\"skipped\"} 1\nbootstrand_plugins{outcome=\"opportunistic_skipped\"} 0\n"
            "bootstrand_plugins{outcome=\"opportunistic_failed\"} 0\nbootstrand_plugins{outcome=\"unknown\"} 3\n"
            "bootstrand_plugin_duration_seconds{plugin=\"a\\\"b\\\\c\\nd\"} 0.04\n"
            "bootstrand_plugin_duration_seconds{plugin=\"dup\"} 0.04\nbootstrand_plugin_duration_seconds" + x +
                " 0.006\nbootstrand_plugin_duration_seconds" + odd + " 0\n"
                "bootstrand_plugin_failed{plugin=\"a\\\"b\\\\c\\nd\"} 0\nbootstrand_plugin_failed{plugin=\"dup\"} 1\n"
                "bootstrand_plugin_failed" + x + " 0\nbootstrand_plugin_failed" + odd + " 0\n"
                "bootstrand_plugin_failed{plugin=\"pre\"} 0\n");
  std::string unended = samples(Analyzed({{"late", 1500, 2750}, {"early", 1250, 1300}}, "", false));
  EXPECT_EQ(unended.substr(0, unended.find("bootstrand_plugins")),
            "bootstrand_activation_start_timestamp_seconds 1794830710.25\n"
            "bootstrand_activation_duration_seconds 1.5\nbootstrand_activation_completed 0\n");
}

// Thresholds are a duration, a percentage or both; a change must pass both. Before:
// d 10 ms, a 50, b 60, e 50, c 40, dup 10 + 10 (two plugins, one name), gone 5.
// After (a boot that did not end, so its plugins' span counts): d 30, b 65, a 55,
// e 54, c 35, dup 10, new 1.
TEST(AnalyzeComparison, SortsByChangeListsOnlyChangesPastBothThresholdsAndReportsTheTotals) {
  for (const char* bad : {"5", "5m", "5ms,", ",10%", "5ms,6ms", "10%,20%", "-5ms", "1.5us", "10.125%", ".5ms",
                          "5.ms", "10%%", "9999999999s"}) {
    EXPECT_EQ(ParseThreshold(bad), std::nullopt) << bad;
  }

  Analysis before = Analyzed({{"d", 0, 10}, {"a", 0, 50}, {"gone", 0, 5}, {"b", 0, 60}, {"e", 0, 50}, {"c", 0, 40},
                              {"dup", 0, 10}, {"dup", 20, 30}});
  Analysis after = Analyzed(
      {{"new", 0, 1}, {"b", 0, 65}, {"a", 0, 55}, {"c", 0, 35}, {"d", 0, 30}, {"e", 0, 54}, {"dup", 40, 50}}, "",
      false);
  const std::tuple<const char*, Names, Names> cases[] = {
      {"5ms,10%", {"d", "a"}, {"dup", "c"}},  // a: +5 ms is exactly 10 %; b: +5 ms is 8 %
      {"0us,0%", {"d", "a", "b", "e"}, {"dup", "c"}},
      {"0.25%", {"d", "a", "b"}, {"dup", "c"}},  // and 5 ms: e's +4 ms is not enough
      {"20ms", {"d"}, {}},
      {"2.5s", {}, {}},
      {"1ms,50%", {"d"}, {"dup"}},  // dup: 20 ms to 10 ms is exactly 50 %
  };
  for (const auto& [threshold, slower, faster] : cases) {
    Comparison comparison = Compare(before, after, ParseThreshold(threshold).value());
    Names order, slowerNames, fasterNames;
    for (const PluginChange& change : comparison.plugins) order.push_back(change.name);
    for (std::size_t index : comparison.slower) slowerNames.push_back(order[index]);
    for (std::size_t index : comparison.faster) fasterNames.push_back(order[index]);
    EXPECT_EQ(order, (Names{"d", "a", "b", "e", "c", "dup"})) << threshold;
    EXPECT_EQ(slowerNames, slower) << threshold;
    EXPECT_EQ(fasterNames, faster) << threshold;
  }

  before.timing.kernelTime = 61000000;
  after.timing.kernelTime = 64000000;
  for (Analysis* analysis : {&before, &after}) {
    analysis->chain = std::vector<std::size_t>{0, 1};
    analysis->chainNotes.clear();
  }
  std::ostringstream text;
  PrintComparison(text, Compare(before, after, Threshold()), 1);
  EXPECT_EQ(text.str(),
            "Activation: 100.0 ms -> 65.0 ms (-35.0 ms)\n"
            "  after: no summary in the timing log (the run did not end normally); "
            "the span of its timed plugins counts instead\n"
            "Kernel start to activation start: 61 s -> 64 s (+3 s)\n"
            "Plugins timed in both boots: 6; 2 slower, 2 faster by at least 5.0 ms and 10 %\n\n"
            "Slower plugins:\n       before        after       change  plugin\n"
            "      10.0 ms      30.0 ms     +20.0 ms  d\n  and 1 more\n\n"
            "Faster plugins:\n       before        after       change  plugin\n"
            "      20.0 ms      10.0 ms     -10.0 ms  dup\n  and 1 more\n\n"
            "Added plugins: new\nRemoved plugins: gone\n\n"
            "Critical chain changed:\n  before: d -> a\n  after:  new -> b\n");
  // The same in JSON, where an unknown time is null; past a threshold nothing passes.
  before.timing.kernelTime.reset();
  nlohmann::json json = ComparisonJson(Compare(before, after, Threshold()), 1);
  EXPECT_EQ(json["slower"].dump(), R"([{"after_us":30000,"before_us":10000,"delta_us":20000,"name":"d"}])");
  EXPECT_EQ(json["kernel_to_activation"].dump(), R"({"after_us":64000000,"before_us":null,"delta_us":null})");
  EXPECT_EQ(json["activation"]["after_has_summary"], false);
  EXPECT_EQ(json["critical_chain"].dump(), R"({"after":["new","b"],"before":["d","a"],"changed":true})");
  EXPECT_EQ(json["added"].dump() + json["removed"].dump(), R"(["new"]["gone"])");
  text.str("");
  PrintComparison(text, Compare(before, after, ParseThreshold("2.5s").value()), 1);
  EXPECT_NE(text.str().find("\n\nSlower plugins: none\n\nFaster plugins: none\n"), std::string::npos) << text.str();
}

}  // namespace
}  // namespace bootstrand::analyze
