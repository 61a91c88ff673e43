// A plugin with nothing to run: both entry points are null.
#include "bootstrand/native_plugin.h"

static const char* const provided_tags[] = {"marker", NULL};

NATIVE_PLUGIN_EXPORT const NativePluginMetadata metadata = {.version = 2, .provides = provided_tags};
NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {NULL, NULL};
