// A plugin whose API version the program does not support.
#pragma once

#include "plugin/exception.h"

namespace bootstrand {

class VersionException : public Exception {
 public:
  // A C variadic constructor cannot be inherited, so the arguments are forwarded.
  template <typename... Arguments>
  explicit VersionException(const char* format, Arguments... arguments) : Exception(format, arguments...) {}
};

}  // namespace bootstrand
