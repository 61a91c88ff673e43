// Bytes split at NUL into command-line arguments for the parsing loop. Help ends
// the process by design, so inputs asking for it are passed over.
#include <cstdint>
#include <list>
#include <string>

#include "main/options.h"
#include "main/startup.h"
#include "plugin/plugin.h"
#include "worker/worker.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::list<std::string> arguments(1);
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      arguments.emplace_back();
    } else {
      arguments.back() += static_cast<char>(data[i]);
    }
  }
  for (const std::string& argument : arguments) {
    std::string name = argument.substr(0, argument.find('='));
    if (name == "-h" || name == "--help") return 0;
  }
  bootstrand::StartupState state;
  try {
    bootstrand::ParseArguments(arguments, state);
  } catch (const InvalidArg&) {
  } catch (const MissingArg&) {
  }
  bootstrand::Plugin::ResetRegistries();
  bootstrand::Worker::LimitWorkers(-1);
  return 0;
}
