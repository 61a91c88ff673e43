#include "plugin/plugin.h"

#include <fcntl.h>

#include "platform/host_path.h"
#include "platform/unique_fd.h"

namespace bootstrand {

PluginList Plugin::plugins;
std::unordered_map<std::string, std::vector<Plugin*>> Plugin::providers;
TagSet Plugin::disabled;
TagSet Plugin::interactiveTags;
const TagSet Plugin::kindTags = {"json plugins", "native plugins", "builtin plugins"};

namespace {

// "/.runonce": emptied when the activator starts and never read back. Only the
// activator opens it; in every other program that loads plugins (the operator tools,
// the tests) it stays closed and run-once keys are only counted.
struct RunOnceMarker {
  UniqueFd file;
  std::uint32_t runOnceCount = 0;
};

RunOnceMarker& Marker() {
  static RunOnceMarker marker;
  return marker;
}

// Every plugin ever registered. The loaders create plugins on the heap and hand
// them over; the plugin list forgets them as they finish, this never does, so they
// stay owned (and reachable) until the process ends. Never destroyed, because
// plugins may still be named while other static objects are torn down.
std::vector<Plugin*>& Registered() {
  static auto* registered = new std::vector<Plugin*>;
  return *registered;
}

}  // namespace

void OpenRunOnceMarker() {
  Marker().file.Reset(open(HostPath("/.runonce").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
}

Plugin::Plugin(const std::string& name, const std::vector<std::string>& provides,
               const std::vector<std::string>& requires_)
    : name(name) {
  skip = disabled.count(name) != 0;
  this->provides.insert(provides.begin(), provides.end());
  this->requires_.insert(requires_.begin(), requires_.end());
}

void Plugin::Register() {
  if (runOnce && RunOnce(name + pluginVersion)) skip = true;
  for (const std::string& tag : provides) {
    if (disabled.count(tag) != 0) skip = true;
    if (kindTags.count(tag) == 0) providers[tag].push_back(this);
  }
  Registered().push_back(this);
  plugins.Append(this);
}

bool Plugin::Provides(const std::string& tag) const { return provides.count(tag) != 0; }

bool Plugin::Pending(const TagSet& tags) {
  for (const std::string& tag : tags) {
    if (plugins.ProviderCount(tag) > 0) return true;
  }
  return false;
}

bool Plugin::Pending() const { return plugins.StateOf(this) != PluginList::State::Ready; }

bool Plugin::Preempts(const Plugin& other) const {
  if (!preemptive || &other == this) return false;
  for (const std::string& tag : provides) {
    if (kindTags.count(tag) == 0 && other.Provides(tag)) return true;
  }
  return false;
}

bool Plugin::RunOnce(const std::string& key) {
  RunOnceMarker& marker = Marker();
  std::string text = (++marker.runOnceCount == 1 ? "bootstrand.run-once=" : ",") + key;
  if (marker.file.Valid()) WriteAll(marker.file.Get(), text.data(), text.size());
  return disabled.count(key) != 0;
}

void Plugin::DisablePlugins(const std::vector<std::string>& list) { disabled.insert(list.begin(), list.end()); }

ActivateFlags Plugin::Interactive(const std::vector<std::string>& tags) {
  interactiveTags.insert(tags.begin(), tags.end());
  return ActivateFlag::Interactive;
}

void Plugin::ResetRegistries() {
  plugins.Clear();
  providers.clear();
  disabled.clear();
  interactiveTags.clear();
  Marker() = RunOnceMarker{};
}

}  // namespace bootstrand
