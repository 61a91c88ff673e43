// A plugin of the unsupported API version API_VERSION, given by the build.
#include "bootstrand/native_plugin.h"

static int32_t start(void) { return 0; }

NATIVE_PLUGIN_EXPORT const NativePluginMetadata metadata = {.version = API_VERSION};
NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {start, NULL};
