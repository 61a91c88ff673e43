// Read-only views of the loaded plugins: the --requires, --provides and --tags
// queries, and the cycle report written when nothing can run any more.
#include <algorithm>
#include <iostream>
#include <set>

#include "log/channels.h"
#include "plugin/plugin.h"

namespace bootstrand {

namespace {

void DumpPlugins(const std::string& tag, const TagSet Plugin::*tags) {
  for (const Plugin* plugin : Plugin::plugins) {
    const TagSet& set = plugin->*tags;
    if (!tag.empty() && set.count(tag) == 0) continue;
    // Sorted, so that the output is the same on every run.
    std::set<std::string> sorted(set.begin(), set.end());
    std::cout << plugin->name << ':';
    const char* separator = " ";
    for (const std::string& each : sorted) {
      std::cout << separator << each;
      separator = ",";
    }
    std::cout << std::endl;
  }
}

}  // namespace

void Plugin::DumpPluginsRequiring(const std::string& tag) { DumpPlugins(tag, &Plugin::requires_); }

void Plugin::DumpPluginsProviding(const std::string& tag) { DumpPlugins(tag, &Plugin::provides); }

void Plugin::ListTags() {
  std::set<std::string> tags;
  for (const Plugin* plugin : plugins) {
    tags.insert(plugin->provides.begin(), plugin->provides.end());
    tags.insert(plugin->requires_.begin(), plugin->requires_.end());
  }
  for (const std::string& kind : kindTags) tags.erase(kind);
  for (const std::string& tag : tags) std::cout << tag << std::endl;
}

void Plugin::CheckCycles() {
  for (const Plugin* plugin : plugins) {
    std::unordered_set<const Plugin*> visited;
    if (plugin->CheckCycle(visited)) {
      KernelLog() << std::endl;
      return;
    }
  }
}

bool Plugin::CheckCycle(std::unordered_set<const Plugin*>& visited) const {
  if (visited.count(this) != 0) {
    KernelLog() << name << ' ';
    return true;
  }
  visited.insert(this);
  for (const std::string& tag : requires_) {
    for (const Plugin* provider : plugins) {
      if (provider->Provides(tag) && provider->CheckCycle(visited)) {
        KernelLog() << name << ' ';
        return true;
      }
    }
  }
  return false;
}

}  // namespace bootstrand
