// The native plugins of the tests, built from this one file under several names:
// the build defines NAME (the plugin's name) and PLUGIN_<name>, which picks what
// sets the plugin apart below, and for some plugins VERSION (2 when not given) or
// RESULT (what an entry point returns, 0 when not given). An entry point that
// returns prints "<name>: <entry point> ran" first.
#include <stdio.h>
#include <stdlib.h>

#include "bootstrand/native_plugin.h"

#define TAGS(...) ((const char* const[]){__VA_ARGS__, NULL})

#if defined(PLUGIN_api1)  // with an apply_host_profile entry point that version 1 must never use
#define FIELDS .requires = TAGS("storage"), .provides = TAGS("net", "dns", "net")
#elif defined(PLUGIN_api2)  // every later field filled in: none of them may be taken over
#define FIELDS .requires = TAGS("net"), .provides = TAGS("firewall"), .plugin_version = "9.9", .run_once = 1, \
               .required_flags = TAGS("ignored"), .disabling_flags = TAGS("ignored"), .preemptive_provider = 1
#elif defined(PLUGIN_api3)  // its preemptive mark belongs to version 5 and must be ignored
#define FIELDS .provides = TAGS("time"), .plugin_version = "1.4", .run_once = 1, \
               .required_flags = TAGS("quick", "safe"), .disabling_flags = TAGS("recovery"), .preemptive_provider = 1
#elif defined(PLUGIN_api5)  // a preemptive provider of "time"
#define FIELDS .provides = TAGS("time"), .plugin_version = "2.0", .preemptive_provider = 1
#elif defined(PLUGIN_null_start)  // nothing to run: both entry points null
#define FIELDS .provides = TAGS("marker")
#endif
#ifndef VERSION
#define VERSION 2
#endif
#ifndef FIELDS
#define FIELDS
#endif
#ifndef RESULT
#define RESULT 0
#endif

// Versions 1 and 4 export the record only up to their own fields, so that reading a
// later one is an out-of-bounds read.
#if VERSION == 1 || VERSION == 4
typedef struct {
  int32_t version;
  const char* const *requires, *const *provides;
#if VERSION == 4
  const char* plugin_version;
  uint8_t run_once;
  const char* const *required_flags, *const *disabling_flags;
#endif
} Metadata;
#else
typedef NativePluginMetadata Metadata;
#endif

static int32_t Ran(const char* entryPoint) {
  printf("%s: %s ran\n", NAME, entryPoint);
  fflush(stdout);
  return RESULT;
}
__attribute__((unused)) static int32_t start(void) {
#if defined(PLUGIN_crashing)
  abort();  // rather than a bad pointer: the address sanitizer turns a segmentation fault into an exit
#elif defined(PLUGIN_exiting)
  exit(0);  // ends the whole worker with status 0 instead of returning
#endif
  return Ran("start");
}
__attribute__((unused)) static int32_t apply_host_profile(void) { return Ran("apply_host_profile"); }

#ifndef PLUGIN_no_metadata
NATIVE_PLUGIN_EXPORT const Metadata metadata = {.version = VERSION, FIELDS};
#endif
#if defined(PLUGIN_null_start)
NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {NULL, NULL};
#elif defined(PLUGIN_api1) || defined(PLUGIN_api2)
NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {start, apply_host_profile};
#elif !defined(PLUGIN_no_operations)
NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {start, NULL};
#endif
