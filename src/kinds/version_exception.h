// A plugin whose API version the program does not support.
#pragma once

#include "plugin/exception.h"

namespace bootstrand {

class VersionException : public Exception {
 public:
  using Exception::Exception;
};

}  // namespace bootstrand
