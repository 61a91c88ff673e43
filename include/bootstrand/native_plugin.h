/*
 * The contract between the activator and a native plugin: a shared object that
 * exports two data symbols, `metadata` (a NativePluginMetadata) and `operations`
 * (a NativePluginOperations). The activator loads the object when it loads its
 * plugins, reads the records once, and later calls one entry point from a worker
 * process. Usable from C and C++.
 *
 * Strings are NUL-terminated. A string list is a pointer to an array of string
 * pointers ended by a NULL pointer; a NULL list pointer is an empty list.
 *
 * API versions 1 to 5 are accepted; any other version makes the load fail. What the
 * activator reads depends on `version`, and fields beyond it are never read, so an
 * older plugin may export a shorter record:
 *   1, 2  version, requires, provides (the record may end after `provides`)
 *   3, 4  also plugin_version, run_once, required_flags, disabling_flags
 *         (the record may end after `disabling_flags`)
 *   5     also preemptive_provider
 * `apply_host_profile` is ignored for version 1 plugins.
 *
 * Entry points take no arguments and return 0 on success; any other value is a
 * failure code that the activator logs. A C++ entry point may throw: the activation
 * fails and the exception's text is logged. A NULL `start` activates successfully
 * without calling anything. The plugin's standard output and standard error go to
 * the native plugins' log file; standard input is the null device.
 *
 * Plugins are loaded with their symbols made global, and every plugin defines the
 * same two records; link with -Wl,-Bsymbolic so that the plugin's own references
 * to them bind to its own definitions rather than to those of a plugin loaded
 * earlier.
 *
 * Example:
 *   static const char* const provides[] = {"network", NULL};
 *   static int start(void) { return 0; }
 *   NATIVE_PLUGIN_EXPORT const NativePluginMetadata metadata = {1, NULL, provides};
 *   NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {start, NULL};
 */
#ifndef BOOTSTRAND_NATIVE_PLUGIN_H
#define BOOTSTRAND_NATIVE_PLUGIN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Marks the two records for export, also when built with hidden visibility. In C++
 * it also gives them C linkage (unmangled names) and external linkage, which a
 * const object at namespace scope would otherwise lack.
 */
#ifdef __cplusplus
#define NATIVE_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))
#else
#define NATIVE_PLUGIN_EXPORT __attribute__((visibility("default")))
#endif

/* `requires` is a keyword in C++20, so C++ sees that field under another name. */
#ifdef __cplusplus
#define NATIVE_PLUGIN_REQUIRES requires_
#else
#define NATIVE_PLUGIN_REQUIRES requires
#endif

typedef struct NativePluginMetadata {
  int32_t version;                           /* API version, 1 to 5 */
  const char* const* NATIVE_PLUGIN_REQUIRES; /* tags that must be provided first */
  const char* const* provides;               /* tags this plugin provides */
  const char* plugin_version;                /* 3+: version text, or NULL */
  uint8_t run_once;                          /* 3+: non-zero runs the plugin once */
  const char* const* required_flags;         /* 3+ */
  const char* const* disabling_flags;        /* 3+ */
  uint8_t preemptive_provider;               /* 5: non-zero holds rival providers back */
} NativePluginMetadata;

typedef int32_t (*NativePluginEntryPoint)(void);

typedef struct NativePluginOperations {
  NativePluginEntryPoint start;              /* normal activation, or NULL */
  NativePluginEntryPoint apply_host_profile; /* 2+: replaces start while a host profile is applied */
} NativePluginOperations;

#undef NATIVE_PLUGIN_REQUIRES

#ifdef __cplusplus
#define NATIVE_PLUGIN_STATIC_ASSERT static_assert
#else
#define NATIVE_PLUGIN_STATIC_ASSERT _Static_assert
#endif

/* The layout is the binary contract; these keep a compiler or an edit from moving it. */
NATIVE_PLUGIN_STATIC_ASSERT(sizeof(void*) == 8, "native plugins use 64-bit pointers");
NATIVE_PLUGIN_STATIC_ASSERT(offsetof(NativePluginMetadata, version) == 0, "version at 0");
NATIVE_PLUGIN_STATIC_ASSERT(offsetof(NativePluginMetadata, provides) == 16, "provides at 16");
NATIVE_PLUGIN_STATIC_ASSERT(offsetof(NativePluginMetadata, plugin_version) == 24, "plugin_version at 24");
NATIVE_PLUGIN_STATIC_ASSERT(offsetof(NativePluginMetadata, run_once) == 32, "run_once at 32");
NATIVE_PLUGIN_STATIC_ASSERT(offsetof(NativePluginMetadata, required_flags) == 40, "required_flags at 40");
NATIVE_PLUGIN_STATIC_ASSERT(offsetof(NativePluginMetadata, disabling_flags) == 48, "disabling_flags at 48");
NATIVE_PLUGIN_STATIC_ASSERT(offsetof(NativePluginMetadata, preemptive_provider) == 56, "preemptive_provider at 56");
NATIVE_PLUGIN_STATIC_ASSERT(sizeof(NativePluginMetadata) == 64, "metadata is 64 bytes");
NATIVE_PLUGIN_STATIC_ASSERT(offsetof(NativePluginOperations, start) == 0, "start at 0");
NATIVE_PLUGIN_STATIC_ASSERT(offsetof(NativePluginOperations, apply_host_profile) == 8, "apply_host_profile at 8");
NATIVE_PLUGIN_STATIC_ASSERT(sizeof(NativePluginOperations) == 16, "operations are 16 bytes");
#ifdef __cplusplus
static_assert(offsetof(NativePluginMetadata, requires_) == 8, "requires at 8");
#else
_Static_assert(offsetof(NativePluginMetadata, requires) == 8, "requires at 8");
#endif

#undef NATIVE_PLUGIN_STATIC_ASSERT

#ifdef __cplusplus
}
#endif

#endif /* BOOTSTRAND_NATIVE_PLUGIN_H */
