// bootstrand-lint: reports what a boot would do with the plugins, without running any.
#include <exception>
#include <iostream>

#include "lint.h"
#include "log/channels.h"

int main(int argc, char* argv[]) {
  using namespace bootstrand::lint;
  try {
    LintOptions options = ParseLintArguments(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
    if (options.help) {
      WriteLintUsage(std::cout);
      return 0;
    }
    if (options.version) {
      std::cout << "bootstrand-lint " BOOTSTRAND_VERSION << std::endl;
      return 0;
    }
    // Nothing here writes to the message channels; this keeps it so should a loader
    // ever report through them.
    bootstrand::DeactivateKernelLog();
    LintReport report = Lint(options);
    if (report.prediction) WritePredictionProblems(*report.prediction, std::cerr);
    if (options.json) {
      // Names come from file names and native plugins' bytes: invalid UTF-8 is replaced.
      std::cout << ReportJson(report).dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
    } else {
      WriteReportText(report, std::cout);
    }
    if (!report.BootCompletes()) return 1;
    return !report.errors.empty() || (options.strict && report.HasFindings()) ? 3 : 0;
  } catch (const UsageError& error) {
    std::cerr << "bootstrand-lint: " << error.what() << '\n';
    WriteLintUsage(std::cerr);
    return 2;
  } catch (const std::exception& error) {
    std::cerr << "bootstrand-lint: " << error.what() << std::endl;
    return 2;
  }
}
