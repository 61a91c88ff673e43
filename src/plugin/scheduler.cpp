#include "plugin/plugin.h"

namespace bootstrand {

void Plugin::ActivatePlugins(ActivateFlags&) {}
bool Plugin::IsStatelessAutodeploy() { return false; }

}  // namespace bootstrand
