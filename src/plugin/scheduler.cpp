#include <sys/stat.h>

#include <iostream>

#include "platform/host_path.h"
#include "plugin/plugin.h"

namespace bootstrand {

namespace {

bool HostFileExists(const char* path) {
  struct stat status {};
  return stat(HostPath(path).c_str(), &status) == 0;
}

}  // namespace

void Plugin::ActivatePlugins(ActivateFlags&) {}

bool Plugin::ApplyHostProfiles(ActivateFlags& flags, bool wanted) {
  if (!wanted) return false;
  if (flags & ActivateFlag::HostProfileBarrier) {
    std::cerr << "Plugin tries to execute before host profile requirement." << std::endl;
    return false;
  }
  return (flags & ActivateFlag::HostProfilePresent) != 0;
}

bool Plugin::IsDryRun(ActivateFlags& flags) { return (flags & ActivateFlag::DryRun) != 0; }

bool Plugin::IsPreemptivePluginsDisabled(const ActivateFlags& flags) {
  return (flags & ActivateFlag::PreemptivePluginsDisabled) != 0;
}

bool Plugin::IsStatelessAutodeploy() { return HostFileExists("/stateless.tgz"); }

}  // namespace bootstrand
