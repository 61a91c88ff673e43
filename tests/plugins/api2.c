// API version 2 with every later field filled in: none of them may be taken over.
#include <stdio.h>

#include "bootstrand/native_plugin.h"

static const char* const required_tags[] = {"net", NULL};
static const char* const provided_tags[] = {"firewall", NULL};
static const char* const flags[] = {"ignored", NULL};

static int32_t start(void) {
  puts("api2: start ran");
  fflush(stdout);
  return 0;
}

static int32_t apply_host_profile(void) {
  puts("api2: apply_host_profile ran");
  fflush(stdout);
  return 0;
}

NATIVE_PLUGIN_EXPORT const NativePluginMetadata metadata = {
    .version = 2,
    .requires = required_tags,
    .provides = provided_tags,
    .plugin_version = "9.9",
    .run_once = 1,
    .required_flags = flags,
    .disabling_flags = flags,
    .preemptive_provider = 1,
};
NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {start, apply_host_profile};
