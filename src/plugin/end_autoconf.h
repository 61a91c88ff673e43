// The one built-in plugin: after every JSON and native plugin has finished, it ends
// the host's auto-configuration phase in the configuration store. Store failures are
// reported on the kernel channel and never make it fail.
#pragma once

#include "plugin/plugin.h"

namespace bootstrand {

class EndAutoConf : public Plugin {
 public:
  EndAutoConf();
  bool Activate(ActivateFlags flags) override;
};

}  // namespace bootstrand
