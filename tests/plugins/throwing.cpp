// A C++ plugin whose start throws: a standard exception, or with THROW_OTHER an int.
#include <stdexcept>

#include "bootstrand/native_plugin.h"

static std::int32_t Start() {
#ifdef THROW_OTHER
  throw 42;
#else
  throw std::runtime_error("disk on fire");
#endif
}

NATIVE_PLUGIN_EXPORT const NativePluginMetadata metadata = {2, nullptr, nullptr, nullptr, 0, nullptr, nullptr, 0};
NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {Start, nullptr};
