#include "plugin/exception.h"
#include "plugin/plugin.h"

namespace bootstrand {

// Placeholder until native plugins land.
void Plugin::LoadNativePlugin(const std::string&) { throw Exception("native plugins are not supported yet"); }

}  // namespace bootstrand
