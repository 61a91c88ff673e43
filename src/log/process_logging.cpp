#include "log/process_logging.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <unordered_map>

#include "platform/dictionary.h"
#include "platform/host_log.h"
#include "platform/host_path.h"
#include "platform/product_state.h"

void init_logging(const char* id) {
  std::fflush(stdout);
  std::cout.flush();
  setvbuf(stdout, nullptr, _IONBF, 0);

  // Freed on every way out, an exception from the logging library included.
  std::unique_ptr<Dictionary, void (*)(Dictionary*)> owned(Dictionary_Create(), Dictionary_Free);
  Dictionary* dictionary = owned.get();
  Dict_SetString(dictionary, id, "log.syslogID");
  Dict_SetString(dictionary, "info", "log.syslogLevel");
  Log_SetProductInfo(ProductState_GetName(), ProductState_GetVersion(), ProductState_GetBuildNumberString(),
                     ProductState_GetCompilationOption());
  if (Log_InitWithSyslogInt(id, dictionary, 0) == 0) {
    std::cerr << "Failed to initialize logging to syslog." << std::endl;
    return;
  }
  Dictionary_Clear(dictionary);
  Dict_SetString(dictionary, "info", "log.stdoutLevel");
  Dict_SetBool(dictionary, true, "log.useTimeStamps.stdio");
  Dict_SetBool(dictionary, true, "log.useMilliseconds.stdio");
  LogOutput* output = Log_NewStdioOutput(id, dictionary, 0);
  if (output == nullptr) {
    std::cerr << "Failed creating standard out logging interface." << std::endl;
    return;
  }
  if (!Log_AddOutput(output)) {
    std::cerr << "Failed adding standard out logging interface." << std::endl;
    return;
  }
  Log_SetStderrLevel(0, -1);
}

namespace {

// The descriptors init_fds copies onto the standard streams stay open in this
// process (close-on-exec, above the standard streams), so that a worker running many
// plugins opens each file once: /dev/null under "", each log under its host path.
int KeptOpen(const std::string& path, int flags) {
  static auto* kept = new std::unordered_map<std::string, int>;
  auto found = kept->find(path);
  if (found != kept->end()) return found->second;
  int fd = open(path.empty() ? "/dev/null" : path.c_str(), flags | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  if (fd <= STDERR_FILENO) {
    // A standard stream was closed: the file must not stay on its descriptor.
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    if (moved < 0) return -1;
    fd = moved;
  }
  return kept->emplace(path, fd).first->second;
}

}  // namespace

void init_fds(const char* path) {
  // Anything still buffered belongs to the old destination.
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  int null = KeptOpen("", O_RDWR);
  if (null < 0) {
    Warning("Failed opening /dev/null");
  } else if (dup2(null, STDIN_FILENO) != STDIN_FILENO) {
    Warning("Failed redirecting stdin to /dev/null");
  }
  int log = KeptOpen(bootstrand::HostPath(path), O_WRONLY | O_CREAT | O_APPEND);
  if (log < 0) {
    Warning("Failed opening log file %s", path);
    return;
  }
  if (dup2(log, STDOUT_FILENO) != STDOUT_FILENO) Warning("Failed redirecting stdout to %s", path);
  if (dup2(log, STDERR_FILENO) != STDERR_FILENO) Warning("Failed redirecting stderr to %s", path);
}
