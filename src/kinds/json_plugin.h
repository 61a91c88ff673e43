// A plugin described by a JSON file: its tags and properties under "metadata" and the
// management commands that activate it under "operations". The constructor validates
// the file field by field and throws at the first fault; Activate (in a worker) runs
// the chosen command list through the plugin's executor.
#pragma once

#include <string>
#include <vector>

#include "kinds/cormcli.h"
#include "kinds/version_exception.h"
#include "plugin/exception.h"
#include "plugin/plugin.h"

namespace bootstrand {

// A plugin file that does not fit the schema; the message names the faulty field.
class JsonException : public Exception {
 public:
  // A C variadic constructor cannot be inherited, so the arguments are forwarded.
  template <typename... Arguments>
  explicit JsonException(const char* format, Arguments... arguments) : Exception(format, arguments...) {}
};

class JsonPlugin : public Plugin {
 public:
  explicit JsonPlugin(const std::string& path);
  bool Activate(ActivateFlags flags) override;

  std::vector<std::string> startOperations;
  std::vector<std::string> applyHostProfileOperations;
  Cormcli executor;
};

}  // namespace bootstrand
