#include "log/process_logging.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "platform/dictionary.h"
#include "platform/host_log.h"
#include "platform/host_path.h"
#include "platform/product_state.h"
#include "platform/standard_streams.h"

void init_logging(const char* id) {
  std::fflush(stdout);
  std::cout.flush();
  setvbuf(stdout, nullptr, _IONBF, 0);

  Dictionary* dictionary = Dictionary_Create();
  Dict_SetString(dictionary, id, "log.syslogID");
  Dict_SetString(dictionary, "info", "log.syslogLevel");
  Log_SetProductInfo(ProductState_GetName(), ProductState_GetVersion(), ProductState_GetBuildNumberString(),
                     ProductState_GetCompilationOption());
  if (Log_InitWithSyslogInt(id, dictionary, 0) == 0) {
    Dictionary_Free(dictionary);
    std::cerr << "Failed to initialize logging to syslog." << std::endl;
    return;
  }
  Dictionary_Clear(dictionary);
  Dict_SetString(dictionary, "info", "log.stdoutLevel");
  Dict_SetBool(dictionary, true, "log.useTimeStamps.stdio");
  Dict_SetBool(dictionary, true, "log.useMilliseconds.stdio");
  LogOutput* output = Log_NewStdioOutput(id, dictionary, 0);
  if (output == nullptr) {
    Dictionary_Free(dictionary);
    std::cerr << "Failed creating standard out logging interface." << std::endl;
    return;
  }
  if (!Log_AddOutput(output)) {
    Dictionary_Free(dictionary);
    std::cerr << "Failed adding standard out logging interface." << std::endl;
    return;
  }
  Log_SetStderrLevel(0, -1);
  Dictionary_Free(dictionary);
}

void init_fds(const char* path) {
  // Anything still buffered belongs to the old destination.
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null < 0) {
    Warning("Failed opening /dev/null");
  } else if (!bootstrand::RedirectOnto(null, STDIN_FILENO)) {
    Warning("Failed redirecting stdin to /dev/null");
  }
  std::string hostPath = bootstrand::HostPath(path);
  int log = open(hostPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (log < 0) {
    Warning("Failed opening log file %s", path);
    return;
  }
  // The log lands on standard output or error when that one was closed; it must
  // then lose close-on-exec like the copies below, or commands lose the stream.
  if (log <= STDERR_FILENO) fcntl(log, F_SETFD, 0);
  if (dup2(log, STDOUT_FILENO) != STDOUT_FILENO) Warning("Failed redirecting stdout to %s", path);
  if (dup2(log, STDERR_FILENO) != STDERR_FILENO) Warning("Failed redirecting stderr to %s", path);
  if (log > STDERR_FILENO) close(log);
}
