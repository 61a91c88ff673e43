#include "plugin/plugin.h"

namespace bootstrand {

// Placeholder until the console prompt lands: behaves as the answer "continue".
ActivateFlags Plugin::DebugAction(const std::string&) { return 0; }

}  // namespace bootstrand
