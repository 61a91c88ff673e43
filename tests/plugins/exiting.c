// A start entry point that ends its whole process with status 0 instead of
// returning.
#include <stdlib.h>

#include "bootstrand/native_plugin.h"

static int32_t start(void) { exit(0); }

NATIVE_PLUGIN_EXPORT const NativePluginMetadata metadata = {.version = 2};
NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {start, NULL};
