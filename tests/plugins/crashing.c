// A start entry point that takes its process down. abort rather than a bad pointer:
// the address sanitizer turns a segmentation fault into an ordinary exit.
#include <stdlib.h>

#include "bootstrand/native_plugin.h"

static int32_t start(void) { abort(); }

NATIVE_PLUGIN_EXPORT const NativePluginMetadata metadata = {.version = 2};
NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {start, NULL};
