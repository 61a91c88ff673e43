/* The unit of work of every benchmark job: does nothing, or sleeps for the number
 * of milliseconds given as --sleep-ms=N (or --sleep-ms N). */
#include <stdlib.h>
#include <string.h>
#include <time.h>

int main(int argc, char** argv) {
  long milliseconds = 0;
  for (int i = 1; i < argc; ++i) {
    if (strncmp(argv[i], "--sleep-ms=", 11) == 0) milliseconds = atol(argv[i] + 11);
    if (strcmp(argv[i], "--sleep-ms") == 0 && i + 1 < argc) milliseconds = atol(argv[i + 1]);
  }
  if (milliseconds > 0) {
    struct timespec delay = {milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    while (nanosleep(&delay, &delay) != 0) {
    }
  }
  return 0;
}
