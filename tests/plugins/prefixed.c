// Built as libprefixed.so: the plugin is named "prefixed".
#include "bootstrand/native_plugin.h"

static int32_t start(void) { return 0; }

NATIVE_PLUGIN_EXPORT const NativePluginMetadata metadata = {.version = 1};
NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {start, NULL};
