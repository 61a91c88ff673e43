// bootstrand-analyze: reads the boot record of a boot (or its timing log and the
// message-channel sinks) and prints where the time went, or compares two boots;
// optionally draws the boot (or both) as an SVG timeline, or prints the boot's metrics
// for a fleet's monitoring. It only reads the host; the one file it writes is the SVG
// it is asked for.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "analyze/analysis.h"
#include "analyze/boot_input.h"
#include "analyze/comparison.h"
#include "analyze/comparison_svg.h"
#include "analyze/dependency_graph.h"
#include "analyze/openmetrics.h"
#include "analyze/plugin_outcomes.h"
#include "analyze/timeline_svg.h"
#include "analyze/timing_log.h"
#include "log/channels.h"
#include "platform/boot_id.h"
#include "platform/boot_record.h"
#include "platform/host_path.h"
#include "platform/trove.h"
#include "platform/unique_fd.h"

namespace {

using namespace bootstrand::analyze;

constexpr const char* kProgram = "bootstrand-analyze";
constexpr std::size_t kProblemsShown = 20;

constexpr const char* kUsage =
    "Usage: bootstrand-analyze [options] [TIMING-LOG]\n"
    "Reads the last boot's record (default /var/lib/bootstrand/boot-record.jsonl) or,\n"
    "without one, its timing log (/var/log/sysboot.log) and the kernel and alert\n"
    "channel sinks, and prints the time from kernel start to activation, the\n"
    "activation time, the slowest plugins, the critical chain and any step of the\n"
    "wall clock during the boot. TIMING-LOG may be a timing log or a boot record;\n"
    "a record's times are measured on the monotonic clock. Default paths lie under\n"
    "BOOTSTRAND_ROOT when it is set.\n"
    "\n"
    "  --kernel-log FILE    kernel-channel sink (default /var/run/trove/system.log.log),\n"
    "                       read with a timing log only: a record holds the outcomes\n"
    "  --alert-log FILE     alert-channel sink, which reports plain activation failures\n"
    "                       (default /var/run/trove/system.sysAlert.log)\n"
    "  --plugins [PATH...]  plugin files or directories, read as bootstrand reads them,\n"
    "                       for the critical chain; takes the arguments up to the next\n"
    "                       option; host paths, under BOOTSTRAND_ROOT; without a PATH,\n"
    "                       the host's two plugin directories\n"
    "  --svg FILE           also write the timeline as an SVG image to FILE\n"
    "  --top N              list the N slowest plugins (default 10, 0 for all)\n"
    "  --json               print the figures as one JSON object instead of text\n"
    "  --openmetrics        print the boot's metrics instead of the report, in the\n"
    "                       Prometheus text format that node_exporter's textfile\n"
    "                       collector reads; only with TIMING-LOG, --kernel-log and\n"
    "                       --alert-log. Without TIMING-LOG, from this boot's record\n"
    "                       alone: without one they say that activation did not\n"
    "                       complete, never what an earlier boot did\n"
    "  --compare OLD-LOG    compare with an earlier boot, whose timing log or boot\n"
    "                       record was kept as OLD-LOG: the change of the totals, the\n"
    "                       plugins that got slower or faster (as many of each as\n"
    "                       --top says), those added and removed and, with --plugins,\n"
    "                       whether the critical chain changed; --svg draws both\n"
    "                       boots. A plugin's time is its end minus its start (in a\n"
    "                       record, on the monotonic clock); plugins that share a\n"
    "                       name count with the sum of their times. The channel sinks\n"
    "                       are not read\n"
    "  --threshold ABS,REL% with --compare, the noise of a boot: a change counts as\n"
    "                       slower or faster only when it is at least ABS (a number\n"
    "                       with us, ms or s) and at least REL percent of the time\n"
    "                       before (default 5ms,10%; a part left out keeps its default)\n"
    "  --help               print this text\n"
    "  --version            print the version\n"
    "\n"
    "Exit status: 0 when the report was printed, 1 when an input cannot be read, a\n"
    "timing log holds no timing record or the SVG cannot be written, 2 for bad usage.\n";

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct InputError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Options {
  std::optional<std::string> timingLog;
  std::optional<std::string> kernelLog;
  std::optional<std::string> alertLog;
  std::optional<std::vector<std::string>> plugins;
  std::optional<std::string> svg;
  std::optional<std::string> compare;  // the timing log or boot record of the earlier boot
  std::optional<Threshold> threshold;
  std::size_t top = 10;
  bool topGiven = false;
  bool json = false;
  bool openMetrics = false;
  bool help = false;
  bool version = false;
};

Options ParseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    std::string argument = argv[i];
    if (!argument.starts_with("--")) {
      if (options.timingLog) throw UsageError("more than one timing log given: " + argument);
      options.timingLog = argument;
      continue;
    }
    std::optional<std::string> inlineValue;
    if (std::size_t equals = argument.find('='); equals != std::string::npos) {
      inlineValue = argument.substr(equals + 1);
      argument.resize(equals);
    }
    auto value = [&]() -> std::string {
      if (inlineValue) return *inlineValue;
      if (i + 1 >= argc) throw UsageError("missing value for " + argument);
      return argv[++i];
    };
    auto noValue = [&] {
      if (inlineValue) throw UsageError(argument + " takes no value");
    };
    if (argument == "--help") {
      noValue();
      options.help = true;
    } else if (argument == "--version") {
      noValue();
      options.version = true;
    } else if (argument == "--json") {
      noValue();
      options.json = true;
    } else if (argument == "--openmetrics") {
      noValue();
      options.openMetrics = true;
    } else if (argument == "--kernel-log") {
      options.kernelLog = value();
    } else if (argument == "--alert-log") {
      options.alertLog = value();
    } else if (argument == "--timing-log") {
      options.timingLog = value();
    } else if (argument == "--svg") {
      options.svg = value();
    } else if (argument == "--top") {
      std::string number = value();
      char* end = nullptr;
      errno = 0;
      unsigned long long top = std::strtoull(number.c_str(), &end, 10);
      if (number.empty() || *end != '\0' || errno != 0 || number.front() == '-') {
        throw UsageError("--top needs a count, not '" + number + "'");
      }
      options.top = static_cast<std::size_t>(top);
      options.topGiven = true;
    } else if (argument == "--compare") {
      options.compare = value();
    } else if (argument == "--threshold") {
      std::string text = value();
      options.threshold = ParseThreshold(text);
      if (!options.threshold) {
        throw UsageError("--threshold needs a duration, a percentage or both, such as 5ms,10%, not '" + text + "'");
      }
    } else if (argument == "--plugins") {
      if (!options.plugins) options.plugins.emplace();
      if (inlineValue) {
        options.plugins->push_back(*inlineValue);
      } else {
        while (i + 1 < argc && !std::string(argv[i + 1]).starts_with("--")) options.plugins->push_back(argv[++i]);
      }
    } else {
      throw UsageError("unknown option " + argument);
    }
  }
  if (options.threshold && !options.compare) throw UsageError("--threshold needs --compare");
  if (options.openMetrics && (options.json || options.svg || options.compare || options.plugins || options.topGiven)) {
    throw UsageError("--openmetrics prints the metrics alone: drop --json, --svg, --compare, --plugins and --top");
  }
  if (options.compare && (options.kernelLog || options.alertLog)) {
    throw UsageError("--compare reads no channel sinks: drop --kernel-log and --alert-log");
  }
  return options;
}

// The whole file, or nothing when it does not exist and `mayBeMissing`.
std::optional<std::string> ReadWholeFile(const std::string& path, bool mayBeMissing) {
  bootstrand::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.Valid()) {
    int error = errno;
    if (error == ENOENT && mayBeMissing) return std::nullopt;
    throw InputError("cannot read " + path + ": " + std::strerror(error));
  }
  std::string contents;
  char buffer[65536];
  for (;;) {
    ssize_t count = read(file.Get(), buffer, sizeof buffer);
    if (count == 0) return contents;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw InputError("cannot read " + path + ": " + std::strerror(errno));
    contents.append(buffer, static_cast<std::size_t>(count));
  }
}

void ReportProblems(const Problems& problems) {
  for (std::size_t i = 0; i < problems.size() && i < kProblemsShown; ++i) {
    std::cerr << kProgram << ": " << Describe(problems[i]) << '\n';
  }
  if (problems.size() > kProblemsShown) {
    std::cerr << kProgram << ": ... and " << problems.size() - kProblemsShown << " more problems\n";
  }
}

// A timing log or a boot record, whichever the file holds.
BootInput ReadBoot(const std::string& path, Problems& problems) {
  try {
    return ReadBootInput(*ReadWholeFile(path, false), path, problems);
  } catch (const std::runtime_error& error) {
    throw InputError(error.what());
  }
}

// The tags of the plugin files, when --plugins asks for the critical chain.
std::optional<DependencyGraph> LoadGraph(const Options& options, Problems& problems) {
  std::optional<DependencyGraph> graph;
  if (options.plugins) {
    // Nothing here writes to the message channels; this keeps it so should a loader
    // ever report through them.
    bootstrand::DeactivateKernelLog();
    try {
      graph.emplace().Load(*options.plugins, problems);
    } catch (const std::runtime_error& error) {
      throw InputError(error.what());
    }
  }
  return graph;
}

// False, after saying why, when the SVG that `draw` makes cannot be written.
bool WriteSvg(const std::string& path, const std::function<void(std::ostream&)>& draw) {
  std::ofstream svg(path, std::ios::trunc);
  draw(svg);
  svg.close();
  if (!svg) {
    std::cerr << kProgram << ": cannot write " << path << ": " << std::strerror(errno) << '\n';
    return false;
  }
  return true;
}

void PrintJson(nlohmann::json report, const Problems& problems) {
  report["problems"] = nlohmann::json::array();
  for (const Problem& problem : problems) report["problems"].push_back(Describe(problem));
  // Plugin names are file names: any bytes. Replace what is not UTF-8.
  std::cout << report.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

// The outcomes of a boot that has only a timing log: from the channel sinks.
PluginOutcomes ReadSinks(const Options& options, Problems& problems) {
  PluginOutcomes outcomes;
  std::string kernelPath = options.kernelLog.value_or(bootstrand::TroveSinkPath(Trove_NODE_system_log));
  if (std::optional<std::string> kernel = ReadWholeFile(kernelPath, !options.kernelLog)) {
    std::istringstream text(*kernel);
    outcomes.ReadKernelSink(text, kernelPath, problems);
  } else {
    problems.push_back({kernelPath, 0, "no kernel-channel sink, so every outcome is unknown"});
  }
  std::string alertPath = options.alertLog.value_or(bootstrand::TroveSinkPath(Trove_NODE_system_sysAlert));
  // Without any alert the boot never created the alert sink.
  if (std::optional<std::string> alert = ReadWholeFile(alertPath, !options.alertLog)) {
    std::istringstream text(*alert);
    outcomes.ReadAlertSink(text, alertPath, problems);
  }
  return outcomes;
}

// --openmetrics without TIMING-LOG: from this boot's record alone, so that a boot
// whose activator never ran (or stopped before its start line) never publishes the
// figures of the boot before it.
int RunThisBootsMetrics() {
  Problems problems;
  std::optional<std::string> bootId = bootstrand::CurrentBootId();
  std::string path = bootstrand::HostPath(bootstrand::BootRecord::kPath);
  std::optional<BootInput> boot;
  std::string missing;  // why this boot has no record
  if (std::optional<std::string> text = ReadWholeFile(path, true)) {
    try {
      boot = ReadBootInput(*text, path, problems);
    } catch (const std::runtime_error&) {
      // Not a line of a boot in it: no start line either, said below.
    }
    const auto* start = boot && boot->record && boot->record->start ? &*boot->record->start : nullptr;
    if (start == nullptr) {
      missing = "holds no start line";
    } else if (!bootId) {
      missing = "cannot be matched to this boot, whose boot id cannot be read";
    } else if (start->bootId != bootId) {
      missing = "is of an earlier boot (boot id " + start->bootId.value_or("unknown") + ")";
    }
  } else {
    missing = "is missing: the activator did not run at this boot";
  }
  if (!missing.empty()) {
    problems.push_back({path, 0, missing + "; the metrics say only that activation did not complete"});
  }
  ReportProblems(problems);
  if (missing.empty()) {
    WriteOpenMetrics(std::cout, Analyze(std::move(*boot), PluginOutcomes(), nullptr));
  } else {
    WriteNoBootMetrics(std::cout, bootId);
  }
  std::cout.flush();
  return std::cout ? 0 : 1;
}

int Run(const Options& options) {
  if (options.openMetrics && !options.timingLog) return RunThisBootsMetrics();
  Problems problems;
  BootInput boot = ReadBoot(options.timingLog.value_or(HostBootInputPath()), problems);
  const std::string path = boot.path;
  const bool fromRecord = boot.record.has_value();
  PluginOutcomes outcomes;
  if (!fromRecord) {
    outcomes = ReadSinks(options, problems);
  } else {
    for (const std::optional<std::string>* sink : {&options.kernelLog, &options.alertLog}) {
      if (*sink) problems.push_back({**sink, 0, "not read: the boot record holds the outcomes"});
    }
  }

  std::optional<DependencyGraph> graph = LoadGraph(options, problems);
  Analysis analysis = Analyze(std::move(boot), outcomes, graph ? &*graph : nullptr);
  ReportProblems(problems);
  if (options.svg && !WriteSvg(*options.svg, [&](std::ostream& svg) { WriteTimelineSvg(svg, analysis); })) return 1;
  if (options.openMetrics) {
    WriteOpenMetrics(std::cout, analysis);
  } else if (options.json) {
    nlohmann::json report = ReportJson(analysis, options.top);
    report[fromRecord ? "boot_record" : "timing_log"] = path;
    PrintJson(std::move(report), problems);
  } else {
    std::cout << (fromRecord ? "Boot record: " : "Timing log: ") << path << '\n';
    PrintReport(std::cout, analysis, options.top);
    if (options.svg) std::cout << "\nTimeline: " << *options.svg << '\n';
  }
  std::cout.flush();
  return std::cout ? 0 : 1;
}

// --compare: the boot before from its kept timing log or record, the boot after from
// the host's (or the given) record or timing log; both chains from the same plugin
// files.
int RunCompare(const Options& options) {
  Problems problems;
  const std::string& beforePath = *options.compare;
  std::string afterPath = options.timingLog.value_or(HostBootInputPath());
  BootInput beforeBoot = ReadBoot(beforePath, problems);
  BootInput afterBoot = ReadBoot(afterPath, problems);
  std::optional<DependencyGraph> graph = LoadGraph(options, problems);
  PluginOutcomes noOutcomes;
  Analysis before = Analyze(std::move(beforeBoot), noOutcomes, graph ? &*graph : nullptr);
  Analysis after = Analyze(std::move(afterBoot), noOutcomes, graph ? &*graph : nullptr);
  Comparison comparison = Compare(before, after, options.threshold.value_or(Threshold()));
  ReportProblems(problems);
  auto draw = [&](std::ostream& svg) { WriteComparisonSvg(svg, before, after, comparison); };
  if (options.svg && !WriteSvg(*options.svg, draw)) return 1;
  if (options.json) {
    PrintJson({{"compare", ComparisonJson(comparison, options.top)},
               {"timing_logs", {{"before", beforePath}, {"after", afterPath}}}},
              problems);
  } else {
    std::cout << "Before: " << beforePath << "\nAfter: " << afterPath << '\n';
    PrintComparison(std::cout, comparison, options.top);
    if (options.svg) std::cout << "\nTimeline of both boots: " << *options.svg << '\n';
  }
  std::cout.flush();
  return std::cout ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  try {
    options = ParseOptions(argc, argv);
  } catch (const UsageError& error) {
    std::cerr << kProgram << ": " << error.what() << "\n\n" << kUsage;
    return 2;
  }
  if (options.help) {
    std::cout << kUsage;
    return 0;
  }
  if (options.version) {
    std::cout << kProgram << ' ' << BOOTSTRAND_VERSION << '\n';
    return 0;
  }
  try {
    return options.compare ? RunCompare(options) : Run(options);
  } catch (const InputError& error) {
    std::cerr << kProgram << ": " << error.what() << '\n';
    return 1;
  }
}
