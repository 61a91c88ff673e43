#include "plugin/plugin.h"

namespace bootstrand {

void Plugin::LoadPlugins(const std::unordered_set<std::string>&, std::uint32_t) {}
void Plugin::LoadBuiltins() {}
void Plugin::LoadPlugin(const std::string&) {}
void Plugin::LoadJsonPlugin(const std::string&) {}

}  // namespace bootstrand
