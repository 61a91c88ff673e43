// Exports entry points but no `metadata`.
#include "bootstrand/native_plugin.h"

static int32_t start(void) { return 0; }

NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {start, NULL};
