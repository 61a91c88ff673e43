#include "platform/signals.h"

#include <signal.h>

namespace bootstrand {

void RestoreDefaultSignals() {
  struct sigaction defaults {};
  defaults.sa_handler = SIG_DFL;
  sigemptyset(&defaults.sa_mask);
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction current {};
    if (signal == SIGKILL || signal == SIGSTOP || sigaction(signal, nullptr, &current) != 0) continue;
    if (current.sa_handler != SIG_DFL) sigaction(signal, &defaults, nullptr);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace bootstrand
