// API version 3: version text, run-once and flag lists are taken over; the
// preemptive mark belongs to version 5 and must be ignored.
#include <stdio.h>

#include "bootstrand/native_plugin.h"

static const char* const provided_tags[] = {"time", NULL};
static const char* const required_flags[] = {"quick", "safe", NULL};
static const char* const disabling_flags[] = {"recovery", NULL};

static int32_t start(void) {
  puts("api3: start ran");
  fflush(stdout);
  return 0;
}

NATIVE_PLUGIN_EXPORT const NativePluginMetadata metadata = {
    .version = 3,
    .requires = NULL,
    .provides = provided_tags,
    .plugin_version = "1.4",
    .run_once = 1,
    .required_flags = required_flags,
    .disabling_flags = disabling_flags,
    .preemptive_provider = 1,
};
NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {start, NULL};
