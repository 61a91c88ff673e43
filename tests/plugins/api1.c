// API version 1. It exports only the part of the record that version 1 defines, so
// reading any later field is an out-of-bounds read, and carries an
// apply_host_profile entry point that version 1 must never use.
#include <stdio.h>

#include "bootstrand/native_plugin.h"

struct MetadataVersion1 {
  int32_t version;
  const char* const* requires;
  const char* const* provides;
};

static const char* const required_tags[] = {"storage", NULL};
static const char* const provided_tags[] = {"net", "dns", "net", NULL};

static int32_t start(void) {
  puts("api1: start ran");
  fflush(stdout);
  return 0;
}

static int32_t apply_host_profile(void) {
  puts("api1: apply_host_profile ran");
  fflush(stdout);
  return 0;
}

NATIVE_PLUGIN_EXPORT const struct MetadataVersion1 metadata = {1, required_tags, provided_tags};
NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {start, apply_host_profile};
