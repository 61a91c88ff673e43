// Example native plugin: prepares the directory that kernel core dumps are written
// to, once storage is mounted. Built as libcoredump.so, so the activator names it
// "coredump". Its output goes to the native plugins' log file.
//
// Host paths are taken relative to BOOTSTRAND_ROOT, the same host root the activator
// uses, so the example can run against a private copy of the host file system.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "bootstrand/native_plugin.h"

static const char* const required_tags[] = {"storage", NULL};
static const char* const provided_tags[] = {"coredump-target", NULL};

static void host_path(char* buffer, size_t size, const char* path) {
  const char* root = getenv("BOOTSTRAND_ROOT");
  snprintf(buffer, size, "%s%s", root != NULL ? root : "", path);
}

// Creates /var/core and records in /var/core/target which step configured it.
static int32_t configure(const char* reason) {
  char directory[4096];
  char target[4096];
  host_path(directory, sizeof directory, "/var/core");
  host_path(target, sizeof target, "/var/core/target");
  if (mkdir(directory, 0700) != 0 && errno != EEXIST) {
    fprintf(stderr, "coredump: cannot create %s: %s\n", directory, strerror(errno));
    return 1;
  }
  FILE* file = fopen(target, "w");
  if (file == NULL) {
    fprintf(stderr, "coredump: cannot write %s: %s\n", target, strerror(errno));
    return 2;
  }
  fprintf(file, "directory=/var/core\nconfigured-by=%s\n", reason);
  if (fclose(file) != 0) return 3;
  printf("coredump: core dumps go to /var/core (%s)\n", reason);
  fflush(stdout);
  return 0;
}

static int32_t start(void) { return configure("start"); }

static int32_t apply_host_profile(void) { return configure("host profile"); }

NATIVE_PLUGIN_EXPORT const NativePluginMetadata metadata = {
    .version = 3,
    .requires = required_tags,
    .provides = provided_tags,
    .plugin_version = "1.0",
    .run_once = 0,
    .required_flags = NULL,
    .disabling_flags = NULL,
};

NATIVE_PLUGIN_EXPORT const NativePluginOperations operations = {start, apply_host_profile};
