// Bytes as a management-command string: every parse ends with a command path and
// parameters, nothing to run, or error lines.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/kitbag/option_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Kitbag::AutoCli::OptionParser parser;
  std::string text(reinterpret_cast<const char*>(data), size);
  bool nothingToRun = parser.ParseString(text);
  // A string with nothing to run yields no command and no errors.
  if (nothingToRun && (!parser.GetCommandPath().empty() || !parser.GetParseErrors().empty())) std::abort();
  return 0;
}
