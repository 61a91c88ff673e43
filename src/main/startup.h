// The program's start-up: turns the arguments into option effects, loads the
// plugins, then answers the queries or sets up logging and activates everything.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <unordered_set>

#include "main/options.h"
#include "plugin/activate_flags.h"

namespace bootstrand {

// What the options decided, kept for the whole run.
struct StartupState {
  ActivateFlags flags = 0;
  bool requiresQuery = false;
  std::string requiresTag;
  bool providesQuery = false;
  std::string providesTag;
  bool listTags = false;
  std::unordered_set<std::string> pluginNames;
  std::uint32_t seed = 0;
};

}  // namespace bootstrand

// A --max-workers or --randomize value that is not a number or does not fit 32 bits.
class InvalidNumber : public InvalidArg {
 public:
  InvalidNumber(std::string option, std::string value) : option(std::move(option)), value(std::move(value)) {}
  std::string option;
  std::string value;
};

namespace bootstrand {

// Applies the options at the front of `arguments` one by one. On InvalidArg the
// offending argument is still at the front; on MissingArg the option name is the
// only element left. -h and --help print the help text and end the process.
void ParseArguments(std::list<std::string>& arguments, StartupState& state);

// Converts like the standard string-to-int conversion (leading blanks, a sign,
// digits up to the first other character); throws InvalidNumber when no digit
// comes first or the value does not fit a signed 32-bit integer.
std::int32_t ConvertNumber(const std::string& option, const std::string& value);

// The whole program; returns its exit status.
int BootstrandMain(int argc, char* argv[]);

// Status of a run stopped because the remaining plugins can never start.
inline constexpr int kUnmetDependenciesStatus = 3;

}  // namespace bootstrand
