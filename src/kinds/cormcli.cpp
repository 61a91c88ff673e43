#include "kinds/cormcli.h"

#include <unistd.h>

#include <iostream>
#include <list>
#include <memory>
#include <utility>

#include "platform/kitbag/command_io.h"
#include "platform/kitbag/dispatcher.h"
#include "platform/kitbag/option_parser.h"
#include "platform/standard_streams.h"

namespace bootstrand {

const std::vector<std::string> Cormcli::commandDirectories = {
    "/usr/lib/tessary/cormcli", "/usr/lib/tessary/cormcli/int", "/usr/lib/tessary/cormcli/int/ext",
    "/usr/lib/tessary/cormcli/ext"};
Kitbag::AutoCli::Dispatcher* Cormcli::dispatcher = nullptr;

CormcliException::CormcliException(const std::string& command, const std::string& stage,
                                   const std::vector<std::string>& errors)
    : command(command), stage(stage), errors(errors), message(stage + " " + command + " failed") {}

std::string FormatTiming(const timeval& start, const timeval& end, const std::string& command) {
  long long seconds = static_cast<long long>(end.tv_sec) - start.tv_sec;
  long long microseconds = static_cast<long long>(end.tv_usec) - start.tv_usec;
  if (microseconds < 0) {
    microseconds += 1000000;
    seconds -= 1;
  }
  std::string fraction = std::to_string(microseconds);
  fraction.insert(0, fraction.size() < 6 ? 6 - fraction.size() : 0, '0');
  return std::to_string(seconds) + "." + fraction + " cormcli " + command;
}

// The dispatcher is created by the first executor of the process (the first JSON
// plugin loaded) and never destroyed: forked workers use their copy of it.
Cormcli::Cormcli() {
  if (dispatcher != nullptr) return;
  dispatcher = new Kitbag::AutoCli::Dispatcher();
  for (const std::string& directory : commandDirectories) dispatcher->AddExternalDirectory(directory);
}

void Cormcli::Execute(const std::string& command, bool dryRun, bool timeOps) {
  Kitbag::AutoCli::OptionParser parser;
  if (parser.ParseString(command)) return;
  std::vector<std::string> parseErrors = parser.GetParseErrors();
  if (!parseErrors.empty()) throw CormcliException(command, "parse", parseErrors);

  std::shared_ptr<Kitbag::AutoCli::CommandInput> input = Kitbag::AutoCli::CommandInput::New();
  std::shared_ptr<Kitbag::AutoCli::CommandOutput> output = Kitbag::AutoCli::CommandOutput::New();
  std::vector<std::pair<std::string, std::string>> parameters = parser.GetCommandParameters();
  std::list<std::string> path = parser.GetCommandPath();
  input->SetDispatcher("bootstrand");
  input->SetCommandPath(path);
  for (const auto& [name, value] : parameters) input->AddParameter(name, value);
  if (dryRun) return;

  timeval start {};
  if (timeOps) gettimeofday(&start, nullptr);
  dispatcher->ExecuteCommand(input, output);
  // Failed commands are timed too, so the record comes before the result is read.
  if (timeOps) {
    timeval end {};
    gettimeofday(&end, nullptr);
    // Every worker appends to the same log: the record goes out in one write.
    WriteLine(STDOUT_FILENO, FormatTiming(start, end, command));
  }
  if (output->HasError()) throw CormcliException(command, "execute", output->GetErrors());
}

std::vector<CormcliException> Cormcli::Execute(const std::vector<std::string>& commands, bool dryRun, bool timeOps) {
  std::vector<CormcliException> failures;
  for (const std::string& command : commands) {
    try {
      Execute(command, dryRun, timeOps);
    } catch (const CormcliException& failure) {
      failures.push_back(failure);
    } catch (const std::exception& error) {
      failures.emplace_back(command, "", std::vector<std::string>{error.what()});
    }
  }
  return failures;
}

}  // namespace bootstrand
