// A start entry point that reports failure code 7.
#include <stdio.h>

#include "bootstrand/native_plugin.h"

static int32_t start(void) {
  puts("failing: start ran");
  fflush(stdout);
  return 7;
}

NATIVE_PLUGIN_EXPORT const NativePluginMetadata metadata = {.version = 2};
NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {start, NULL};
