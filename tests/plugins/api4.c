// API version 4, exporting the record only up to the fields of that version, with
// every optional field left null.
#include "bootstrand/native_plugin.h"

struct MetadataVersion4 {
  int32_t version;
  const char* const* requires;
  const char* const* provides;
  const char* plugin_version;
  uint8_t run_once;
  const char* const* required_flags;
  const char* const* disabling_flags;
};

static int32_t start(void) { return 0; }

NATIVE_PLUGIN_EXPORT const struct MetadataVersion4 metadata = {4, NULL, NULL, NULL, 0, NULL, NULL};
NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {start, NULL};
