// API version 5: a preemptive provider of "time".
#include <stdio.h>

#include "bootstrand/native_plugin.h"

static const char* const provided_tags[] = {"time", NULL};

static int32_t start(void) {
  puts("api5: start ran");
  fflush(stdout);
  return 0;
}

NATIVE_PLUGIN_EXPORT const NativePluginMetadata metadata = {
    .version = 5,
    .requires = NULL,
    .provides = provided_tags,
    .plugin_version = "2.0",
    .run_once = 0,
    .required_flags = NULL,
    .disabling_flags = NULL,
    .preemptive_provider = 1,
};
NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {start, NULL};
