#include "kinds/native_plugin.h"

#include <dlfcn.h>
#include <unistd.h>

#include <exception>
#include <iostream>

#include "bootstrand/native_plugin.h"
#include "log/channels.h"
#include "log/process_logging.h"
#include "platform/host_log.h"
#include "platform/host_path.h"
#include "platform/signals.h"
#include "platform/standard_streams.h"

namespace bootstrand {

namespace {

constexpr const char* kMetadataSymbol = "metadata";
constexpr const char* kOperationsSymbol = "operations";
constexpr const char* kStartMethod = "start";
constexpr const char* kApplyHostProfileMethod = "apply_host_profile";

// Log levels of the host logging library.
constexpr int kProgressLevel = 5;
constexpr int kFailureLevel = 2;

void Insert(TagSet& set, const char* const* list) {
  if (list == nullptr) return;
  for (; *list != nullptr; ++list) set.insert(*list);
}

const NativePluginOperations& Operations(void* handle) {
  const void* symbol = dlsym(handle, kOperationsSymbol);
  if (symbol == nullptr) throw SymbolException("missing '%s'", kOperationsSymbol);
  return *static_cast<const NativePluginOperations*>(symbol);
}

}  // namespace

void Plugin::LoadNativePlugin(const std::string& path) { new NativePlugin(path); }

std::string NativePlugin::NameFromPath(const std::string& path) {
  std::string name = path.substr(path.rfind('/') + 1);
  std::size_t dot = name.rfind('.');
  if (dot != std::string::npos) name.erase(dot);
  if (name.starts_with("lib")) name.erase(0, 3);
  return name;
}

NativePlugin::NativePlugin(const std::string& path) : Plugin(NameFromPath(path), {"native plugins"}, {}) {
  // Global symbols: a plugin loaded later may link against one loaded earlier.
  handle = dlopen(HostPath(path).c_str(), RTLD_LAZY | RTLD_GLOBAL);
  if (handle == nullptr) throw Exception("Invalid plugin: %s", dlerror());
  try {
    const void* metadataSymbol = dlsym(handle, kMetadataSymbol);
    if (metadataSymbol == nullptr) throw SymbolException("missing '%s'", kMetadataSymbol);
    const auto& metadata = *static_cast<const NativePluginMetadata*>(metadataSymbol);
    const NativePluginOperations& operations = Operations(handle);

    // Older objects may export a shorter record, so no field is read before the
    // version says it is there.
    apiVersion = metadata.version;
    if (apiVersion < 1 || apiVersion > 5) throw VersionException("%s: %d", "Unsupported API version", apiVersion);
    hostProfileOperations = operations.apply_host_profile != nullptr && apiVersion != 1;
    Insert(provides, metadata.provides);
    Insert(requires_, metadata.requires_);
    if (apiVersion >= 3) {
      if (metadata.plugin_version != nullptr) pluginVersion = metadata.plugin_version;
      Insert(requiredFlags, metadata.required_flags);
      Insert(disablingFlags, metadata.disabling_flags);
      runOnce = metadata.run_once != 0;
    }
    if (apiVersion == 5) preemptive = metadata.preemptive_provider != 0;
  } catch (const Exception&) {
    dlclose(handle);
    handle = nullptr;
    throw;
  }
  Register();
}

bool NativePlugin::Activate(ActivateFlags flags) {
  if (IsDryRun(flags)) {
    WriteLine(STDOUT_FILENO, name + ": start");
    return false;
  }
  try {
    init_fds("/var/log/bootstrand-native-stdout.log");
  } catch (...) {
    Log_Level(kFailureLevel, "Failed to initialize logging.\n");
  }
  bool applyHostProfile = ApplyHostProfiles(flags, hostProfileOperations);
  const char* method = applyHostProfile ? kApplyHostProfileMethod : kStartMethod;
  if (preemptive && IsPreemptivePluginsDisabled(flags)) {
    KernelLog() << "Plugin " << name << " skipped." << std::endl;
    return false;
  }
  // The entry points are foreign code: whatever they throw ends this activation only.
  try {
    Log_Level(kProgressLevel, "Invoking method %s on plugin %s\n", method, name.c_str());
    const NativePluginOperations& operations = Operations(handle);
    // Only start can be null here: hostProfileOperations requires apply_host_profile.
    NativePluginEntryPoint entryPoint = applyHostProfile ? operations.apply_host_profile : operations.start;
    if (entryPoint != nullptr) {
      KernelLog() << "Applying " << method << " on plugin " << name << std::endl;
      // The worker runs more plugins after this one, however the entry point ends:
      // the commands they start must not inherit a signal it chose to ignore.
      struct AskSignalsAfterwards {
        ~AskSignalsAfterwards() { RefreshIgnoredSignals(); }
      } askSignalsAfterwards;
      std::int32_t code = entryPoint();
      if (code != 0) {
        Log_Level(kFailureLevel, "Plugin %s failed Invoking method %s (rc=%d)\n", name.c_str(), method, code);
        return false;
      }
    }
  } catch (const std::exception& error) {
    Log_Level(kFailureLevel, "Plugin %s failed Invoking method %s - %s\n", name.c_str(), method, error.what());
    return false;
  } catch (...) {
    Log_Level(kFailureLevel, "Plugin %s failed Invoking method %s\n", name.c_str(), method);
    return false;
  }
  Log_Level(kProgressLevel, "Method %s executed successfully for plugin %s\n", method, name.c_str());
  return true;
}

}  // namespace bootstrand
