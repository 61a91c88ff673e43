// The management-command executor of JSON plugins. Every executor shares one
// process-wide dispatcher, created by the first executor constructed in the process
// and set up once with the four command-definition directories. Failures are
// reported as CormcliException values, never logged here.
#pragma once

#include <sys/time.h>

#include <exception>
#include <string>
#include <vector>

namespace Kitbag::AutoCli {
class Dispatcher;
}

namespace bootstrand {

// One failed command: `stage` is "parse", "execute" or "" (any other failure).
class CormcliException : public std::exception {
 public:
  CormcliException(const std::string& command, const std::string& stage, const std::vector<std::string>& errors);
  const char* what() const noexcept override { return message.c_str(); }

  std::string command;
  std::string stage;
  std::vector<std::string> errors;
  std::string message;
};

class Cormcli {
 public:
  Cormcli();

  // Runs one command string; throws CormcliException on a parse or execution
  // failure. Other exceptions of the dispatch library pass through.
  void Execute(const std::string& command, bool dryRun, bool timeOps);
  // Runs every command in order and returns the failures in command order; a
  // failure never stops the list.
  std::vector<CormcliException> Execute(const std::vector<std::string>& commands, bool dryRun, bool timeOps);

  static const std::vector<std::string> commandDirectories;
  // Null until the first executor is constructed; never destroyed.
  static Kitbag::AutoCli::Dispatcher* dispatcher;
};

// The timing record of a command that ran from `start` to `end`:
// "<seconds>.<microseconds, 6 digits> cormcli <command>", without a newline.
std::string FormatTiming(const timeval& start, const timeval& end, const std::string& command);

}  // namespace bootstrand
