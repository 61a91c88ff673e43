#include "plugin/end_autoconf.h"

#include <exception>

#include "log/channels.h"
#include "platform/config_store.h"

namespace bootstrand {

EndAutoConf::EndAutoConf() : Plugin("end-autoconf", {"builtin plugins"}, {"json plugins", "native plugins"}) {
  Register();
}

bool EndAutoConf::Activate(ActivateFlags flags) {
  if (flags & ActivateFlag::DryRun) return true;
  // Each step runs whether or not the one before it failed.
  try {
    CormConfigStore::EndAutoConf();
  } catch (const std::exception& error) {
    KernelLog() << "Failed to end autoconf: " << error.what() << std::endl;
  }
  try {
    CormConfigStore::CleanupBootState();
  } catch (const std::exception& error) {
    KernelLog() << "Failed to cleanup boot state: " << error.what() << std::endl;
  }
  try {
    CormConfigStore::EnablePalladNotification(true);
  } catch (const std::exception& error) {
    KernelLog() << "Error settingup configstore pallad notifications: " << error.what() << std::endl;
  }
  return true;
}

}  // namespace bootstrand
