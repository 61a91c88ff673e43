// The linter's command line. Values follow their option after "=" or as the next
// argument, as the activator's options do; "--" ends the options.
#include <charconv>
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

bool IsOption(const std::string& argument, const std::string& name) {
  return argument == name || (argument.starts_with(name) && argument[name.size()] == '=');
}

}  // namespace

LintOptions ParseLintArguments(const std::vector<std::string>& arguments) {
  LintOptions parsed;
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
    } else {
      throw UsageError("unknown option " + argument);
    }
  }
  return parsed;
}

void WriteLintUsage(std::ostream& stream) {
  stream << "usage: bootstrand-lint [--json] [--strict] [--workers N] [--disable a,b] [PATH...]\n"
            "Reads plugins as bootstrand would, with the same loaders, and reports without\n"
            "activating anything: the files it would skip, what would stop a boot, what looks\n"
            "wrong, the files and folders anyone but root could change, and the activation\n"
            "order as waves of plugins that can run together.\n"
            "\n"
            "  PATH            a plugin file or a directory of them; none: the two plugin\n"
            "                  directories and the built-in plugin, as bootstrand loads them\n"
            "  --json          print the report as JSON\n"
            "  --strict        fail with status 3 on skipped files, warnings and untrusted\n"
            "                  paths too\n"
            "  --workers N     at most N plugins per wave (default: no limit)\n"
            "  --disable a,b   plugins, provided tags or run-once keys to disable, as\n"
            "                  bootstrand --disable\n"
            "  --version       print the version\n"
            "  -h, --help      show this help\n"
            "\n"
            "Host paths are taken under BOOTSTRAND_ROOT, as bootstrand takes them.\n"
            "Exit status: 0 when a boot would complete, 1 when it would stop, 2 on usage errors,\n"
            "3 with --strict when a boot would complete but something was reported.\n";
  stream.flush();
}

}  // namespace bootstrand::lint
