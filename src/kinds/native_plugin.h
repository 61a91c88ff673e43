// A plugin in a shared object that exports the `metadata` and `operations` records of
// include/bootstrand/native_plugin.h. The constructor loads the object and fills the
// plugin from `metadata`, throwing when the object cannot be used; Activate (in a
// worker) calls one entry point of `operations`.
#pragma once

#include <string>

#include "kinds/version_exception.h"
#include "plugin/exception.h"
#include "plugin/plugin.h"

namespace bootstrand {

// A native plugin that lacks one of the exported records.
class SymbolException : public Exception {
 public:
  // A C variadic constructor cannot be inherited, so the arguments are forwarded.
  template <typename... Arguments>
  explicit SymbolException(const char* format, Arguments... arguments) : Exception(format, arguments...) {}
};

class NativePlugin final : public Plugin {
 public:
  // Loads the object at `path` (a host path) and registers the plugin. Throws
  // Exception when the object cannot be loaded, SymbolException or VersionException
  // when it does not fit the contract; nothing is registered then and the object is
  // unloaded again.
  explicit NativePlugin(const std::string& path);

  bool Activate(ActivateFlags flags) override;

  // The plugin's name for `path`: the file name without its last extension and
  // without a leading "lib".
  static std::string NameFromPath(const std::string& path);

  // Never closed once the plugin is constructed: workers forked later reach the
  // entry points through their copy of it.
  void* handle = nullptr;
};

}  // namespace bootstrand
