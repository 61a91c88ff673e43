// The linter's command line. Values follow their option after "=" or as the next
// argument, as the activator's options do; "--" ends the options.
#include <charconv>
#include <cmath>
#include <cstdint>

#include "lint.h"
#include "main/options.h"

namespace bootstrand::lint {

namespace {

// Splits "--name=value" and takes the value from the next argument otherwise.
std::string Value(const std::string& name, const std::string& argument, const std::vector<std::string>& arguments,
                  std::size_t& index) {
  if (argument.size() > name.size()) return argument.substr(name.size() + 1);
  if (index + 1 >= arguments.size()) throw UsageError("missing value for " + name);
  return arguments[++index];
}

std::uint32_t WorkerCount(const std::string& value) {
  std::uint32_t count = 0;
  const char* end = value.data() + value.size();
  auto [stop, error] = std::from_chars(value.data(), end, count);
  if (value.empty() || error != std::errc() || stop != end || count == 0) {
    throw UsageError("--workers needs a whole number of at least 1, not '" + value + "'");
  }
  return count;
}

// A decimal number of seconds, such as "0.25", to whole microseconds. Up to about 30
// years, so that sums of them stay far from overflowing.
Microseconds Seconds(const std::string& option, const std::string& value) {
  double seconds = -1;
  const char* end = value.data() + value.size();
  auto [stop, error] = std::from_chars(value.data(), end, seconds, std::chars_format::fixed);
  if (value.empty() || error != std::errc() || stop != end || !(seconds >= 0 && seconds <= 1e9)) {
    throw UsageError(option + " needs a number of seconds, such as 0.25, not '" + value + "'");
  }
  return std::llround(seconds * 1e6);
}

bool IsOption(const std::string& argument, const std::string& name) {
  return argument == name || (argument.starts_with(name) && argument[name.size()] == '=');
}

}  // namespace

LintOptions ParseLintArguments(const std::vector<std::string>& arguments) {
  LintOptions parsed;
  PredictOptions predict;
  bool predicting = false, timesGiven = false;
  bool optionsEnded = false;
  for (std::size_t index = 0; index < arguments.size(); ++index) {
    const std::string& argument = arguments[index];
    if (optionsEnded || argument.empty() || argument.front() != '-' || argument == "-") {
      parsed.paths.push_back(argument);
    } else if (argument == "--") {
      optionsEnded = true;
    } else if (argument == "-h" || argument == "--help") {
      parsed.help = true;
    } else if (argument == "--version") {
      parsed.version = true;
    } else if (argument == "--json") {
      parsed.json = true;
    } else if (argument == "--strict") {
      parsed.strict = true;
    } else if (IsOption(argument, "--workers")) {
      parsed.workers = WorkerCount(Value("--workers", argument, arguments, index));
    } else if (IsOption(argument, "--disable")) {
      for (std::string& entry : split_list(Value("--disable", argument, arguments, index))) {
        parsed.disable.push_back(std::move(entry));
      }
    } else if (IsOption(argument, "--predict")) {
      predict.timingLog = Value("--predict", argument, arguments, index);
      predicting = true;
    } else if (IsOption(argument, "--set-time")) {
      // Plugin names may hold "=", seconds never do.
      std::string value = Value("--set-time", argument, arguments, index);
      std::size_t equals = value.rfind('=');
      if (equals == std::string::npos || equals == 0) {
        throw UsageError("--set-time needs PLUGIN=SECONDS, not '" + value + "'");
      }
      predict.setTimes[value.substr(0, equals)] = Seconds("--set-time", value.substr(equals + 1));
      timesGiven = true;
    } else if (IsOption(argument, "--default-time")) {
      predict.defaultTime = Seconds("--default-time", Value("--default-time", argument, arguments, index));
      timesGiven = true;
    } else {
      throw UsageError("unknown option " + argument);
    }
  }
  if (predicting && parsed.strict) throw UsageError("--strict does not go with --predict");
  if (timesGiven && !predicting) throw UsageError("--set-time and --default-time need --predict");
  if (predicting) parsed.predict = std::move(predict);
  return parsed;
}

void WriteLintUsage(std::ostream& stream) {
  stream << "usage: bootstrand-lint [--json] [--strict] [--workers N] [--disable a,b] [PATH...]\n"
            "       bootstrand-lint --predict TIMING-LOG [--set-time PLUGIN=SECONDS]...\n"
            "                       [--default-time SECONDS] [--json] [--workers N]\n"
            "                       [--disable a,b] [PATH...]\n"
            "Reads plugins as bootstrand would, with the same loaders, and reports without\n"
            "activating anything: the files it would skip, what would stop a boot, what looks\n"
            "wrong, the files and folders anyone but root could change, and the activation\n"
            "order as waves of plugins that can run together. With --predict, instead of the\n"
            "waves and the trust checks: how long the boot would take, each plugin taking as\n"
            "long as at the boot that wrote TIMING-LOG (a timing log or a boot record).\n"
            "\n"
            "  PATH            a plugin file or a directory of them; none: the two plugin\n"
            "                  directories and the built-in plugin, as bootstrand loads them\n"
            "  --json          print the report as JSON\n"
            "  --strict        fail with status 3 on skipped files, warnings and untrusted\n"
            "                  paths too\n"
            "  --workers N     at most N plugins per wave (default: no limit)\n"
            "  --disable a,b   plugins, provided tags or run-once keys to disable, as\n"
            "                  bootstrand --disable\n"
            "  --predict TIMING-LOG\n"
            "                  predict the activation time, the critical chain and each\n"
            "                  plugin's start and end from a boot timing log or, better,\n"
            "                  a boot record, whose times are monotonic (a file, read as\n"
            "                  given)\n"
            "  --set-time PLUGIN=SECONDS\n"
            "                  with --predict: the plugin runs that long instead (repeatable)\n"
            "  --default-time SECONDS\n"
            "                  with --predict: how long a plugin without a line in the log\n"
            "                  runs (default 0); such plugins are listed\n"
            "  --version       print the version\n"
            "  -h, --help      show this help\n"
            "\n"
            "Host paths are taken under BOOTSTRAND_ROOT, as bootstrand takes them.\n"
            "Exit status: 0 when a boot would complete, 1 when it would stop, 2 on usage errors\n"
            "and unreadable timing logs, 3 with --strict when a boot would complete but\n"
            "something was reported.\n";
  stream.flush();
}

}  // namespace bootstrand::lint
