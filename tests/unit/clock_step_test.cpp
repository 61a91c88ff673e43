// A wall clock stepped during a boot: from a boot record the analyzer measures on the
// monotonic clock and names the step; from a timing log alone it names the step it
// can see and never uses a negative time.
#include <gtest/gtest.h>

#include <sstream>

#include "analyze/analysis.h"
#include "analyze/comparison.h"

namespace bootstrand::analyze {
namespace {

// 2026-11-16 12:05:09 UTC in microseconds since the epoch.
constexpr Microseconds kBase = 1794830709LL * 1000000;
constexpr Microseconds kSecond = 1000000;

// A serial boot that started 5 s after the kernel: 10-devices 10 ms, 40-time 200 ms,
// 80-management-agent 10 ms, activation 230 ms. The wall clock moves `step` at
// `stepAt` microseconds after activation start.
std::string Record(Microseconds step, Microseconds stepAt) {
  auto moment = [&](Microseconds since) {
    return "{\"wall_us\":" + std::to_string(kBase + since + (since > stepAt ? step : 0)) +
           ",\"boottime_us\":" + std::to_string(5 * kSecond + since) + "}";
  };
  std::string text = "{\"event\":\"start\",\"version\":\"1\",\"boot_id\":\"b\",\"pid\":1,\"dry_run\":false,"
                     "\"disabled\":[],\"worker_limit\":null,\"at\":" + moment(0) + "}\n";
  const std::tuple<const char*, int, int> plugins[] = {
      {"10-devices", 1000, 11000}, {"40-time", 12000, 212000}, {"80-management-agent", 213000, 223000}};
  for (const auto& [name, start, end] : plugins) {
    text += "{\"event\":\"outcome\",\"index\":0,\"name\":\"" + std::string(name) +
            "\",\"outcome\":\"activated\",\"status\":0,\"start\":" + moment(start) + ",\"end\":" + moment(end) + "}\n";
  }
  return text + "{\"event\":\"end\",\"outcome\":\"completed\",\"status\":0,\"at\":" + moment(230000) + "}\n";
}

Analysis AnalyzedText(const std::string& text) {
  Problems problems;
  Analysis analysis = Analyze(ReadBootInput(text, "input", problems), PluginOutcomes(), nullptr);
  EXPECT_TRUE(problems.empty());
  return analysis;
}

std::string Report(const Analysis& analysis) {
  std::ostringstream report;
  PrintReport(report, analysis, 0);
  return report.str();
}

TEST(ClockStep, ARecordMeasuresOnTheMonotonicClockAndNamesTheStep) {
  const std::tuple<Microseconds, Microseconds, std::string> cases[] = {
      {7200 * kSecond, 100000, "the wall clock moved +2 h 0 min during 40-time"},
      {-10800 * kSecond, 100000, "the wall clock moved -3 h 0 min during 40-time"},
      {90 * kSecond, 212500, "the wall clock moved +1 min 30 s between the end of 40-time and the start of "
                             "80-management-agent"},
      {-kSecond * 9 / 10, 100000, ""},  // drift, not a step
  };
  for (const auto& [step, stepAt, named] : cases) {
    Analysis analysis = AnalyzedText(Record(step, stepAt));
    EXPECT_EQ(analysis.activation, 230000) << named;
    EXPECT_EQ(analysis.timing.kernelTime, 5 * kSecond);
    std::vector<std::pair<std::string, Microseconds>> durations;
    for (const TimedPlugin& plugin : analysis.timing.plugins) {
      durations.emplace_back(plugin.name, plugin.end - plugin.start);
    }
    EXPECT_EQ(durations,
              (decltype(durations){{"10-devices", 10000}, {"40-time", 200000}, {"80-management-agent", 10000}}));
    std::string report = Report(analysis);
    if (named.empty()) {
      EXPECT_TRUE(analysis.clockSteps.empty()) << report;
      continue;
    }
    EXPECT_TRUE(report.ends_with("\n\nClock step: " + named + "; times above are measured on the monotonic clock\n"))
        << report;
    EXPECT_EQ(ReportJson(analysis, 0)["clock_steps"][0]["amount_us"], step);
  }
}

// The same boot set back 3 h inside 40-time, as its timing log shows it: 40-time's line
// ends before it starts, and so does the summary. Both are named, neither is a time;
// compared with a boot before, 40-time is neither removed nor compared.
TEST(ClockStep, ATimingLogNamesALineThatEndsBeforeItStarts) {
  Analysis analysis = AnalyzedText(
      "Ondrik Initialization Time: 5000000\n"
      "[2026-11-16 12:05:09.001000 - 2026-11-16 12:05:09.011000] sysboot: 10-devices\n"
      "[2026-11-16 12:05:09.012000 - 2026-11-16 09:05:09.212000] sysboot: 40-time\n"
      "[2026-11-16 09:05:09.213000 - 2026-11-16 09:05:09.223000] sysboot: 80-management-agent\n"
      "=== Bootstrand configuration info ===\n Start: 2026-11-16 12:05:09.000000\n End: 2026-11-16 09:05:09.230000\n");
  EXPECT_EQ(analysis.activation, std::nullopt);
  std::string report = Report(analysis);
  EXPECT_NE(report.find("\nActivation: the summary in the timing log ends before it starts (the wall clock was set "
                        "back)\n"),
            std::string::npos)
      << report;
  EXPECT_TRUE(report.ends_with("\nClock step: the wall clock was set back 3 h 0 min or more during 40-time, whose "
                               "timing line ends before it starts; the timing log has only wall-clock times, so its "
                               "time is unknown\n"))
      << report;
  const nlohmann::json json = ReportJson(analysis, 0);
  for (const nlohmann::json& plugin : json["plugins"]) EXPECT_GE(plugin["duration_us"], 0);

  Analysis before = AnalyzedText(Record(0, 0));
  Comparison comparison = Compare(before, analysis, Threshold());
  EXPECT_EQ(comparison.removed, std::vector<std::string>());
  EXPECT_EQ(comparison.timeUnknown, std::vector<std::string>{"40-time"});
  EXPECT_EQ(comparison.plugins.size(), 2u);
}

}  // namespace
}  // namespace bootstrand::analyze
