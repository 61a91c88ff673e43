#include "support/test_plugin.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

namespace bootstrand::testing {

ScopedRoot::ScopedRoot() {
  char pattern[] = "/tmp/bootstrand-unit-XXXXXX";
  if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
  root_ = pattern;
  std::filesystem::create_directories(root_ + "/var/log");
  setenv("BOOTSTRAND_ROOT", root_.c_str(), 1);
}

ScopedRoot::~ScopedRoot() {
  unsetenv("BOOTSTRAND_ROOT");
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

std::string ScopedRoot::Read(const std::string& hostPath) const {
  std::ifstream file(Path(hostPath));
  std::stringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

std::string Describe(const Plugin& plugin) {
  auto list = [](const TagSet& tags) {
    std::string text;
    for (const std::string& tag : std::set<std::string>(tags.begin(), tags.end())) {
      text += (text.empty() ? "" : ",") + tag;
    }
    return text;
  };
  std::string text = plugin.name + " v" + std::to_string(plugin.apiVersion) + " provides=" + list(plugin.provides) +
                     " requires=" + list(plugin.requires_);
  if (!plugin.pluginVersion.empty()) text += " version=" + plugin.pluginVersion;
  if (plugin.runOnce) text += " run_once";
  if (!plugin.requiredFlags.empty()) text += " required=" + list(plugin.requiredFlags);
  if (!plugin.disablingFlags.empty()) text += " disabling=" + list(plugin.disablingFlags);
  if (plugin.preemptive) text += " preemptive";
  if (plugin.hostProfileOperations) text += " host_profile";
  if (plugin.noOperations) text += " no_operations";
  if (plugin.skip) text += " skip";
  return text;
}

}  // namespace bootstrand::testing
