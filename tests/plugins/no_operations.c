// Exports `metadata` but no `operations`.
#include "bootstrand/native_plugin.h"

NATIVE_PLUGIN_EXPORT const NativePluginMetadata metadata = {.version = 1};
