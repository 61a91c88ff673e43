// Runs one command and prints "<wall seconds> <peak resident KiB>" of that process
// alone (its own high-water mark, not its children's), or, with --repeat N, runs the
// command N times one after another and prints the total wall time.
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace {

// posix_spawn, as make and the program's own command runner start their jobs, so
// that the cost measured for a job is the job's and not that of copying this process.
int RunOnce(char** command, long* peakKib) {
  pid_t child = -1;
  if (posix_spawnp(&child, command[0], nullptr, nullptr, command, environ) != 0) {
    std::perror(command[0]);
    return 127;
  }
  int status = 0;
  rusage usage {};
  while (wait4(child, &status, 0, &usage) < 0) {
  }
  if (peakKib != nullptr) *peakKib = usage.ru_maxrss;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

int main(int argc, char** argv) {
  long repeat = 0;
  int first = 1;
  if (argc > 2 && std::strcmp(argv[1], "--repeat") == 0) {
    repeat = std::atol(argv[2]);
    first = 3;
  }
  if (first >= argc) {
    std::fprintf(stderr, "usage: bench_measure [--repeat N] command [arguments...]\n");
    return 2;
  }
  auto start = std::chrono::steady_clock::now();
  long peak = 0;
  int status = 0;
  for (long i = 0; i < (repeat > 0 ? repeat : 1); ++i) status |= RunOnce(argv + first, &peak);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%.6f %ld\n", seconds, peak);
  return status;
}
