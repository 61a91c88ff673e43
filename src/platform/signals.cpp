#include "platform/signals.h"

#include <signal.h>

#include <algorithm>

namespace bootstrand {

namespace {

void AskIgnored(std::vector<int>& ignored) {
  ignored.clear();
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction current {};
    if (sigaction(signal, nullptr, &current) == 0 && current.sa_handler == SIG_IGN) ignored.push_back(signal);
  }
}

std::vector<int>& Ignored() {
  static std::vector<int>* ignored = [] {
    auto* found = new std::vector<int>;
    AskIgnored(*found);
    return found;
  }();
  return *ignored;
}

void SetDisposition(int signal, void (*handler)(int)) {
  struct sigaction disposition {};
  disposition.sa_handler = handler;
  sigemptyset(&disposition.sa_mask);
  sigaction(signal, &disposition, nullptr);
}

}  // namespace

void IgnoreSignal(int signal) {
  std::vector<int>& ignored = Ignored();
  SetDisposition(signal, SIG_IGN);
  if (std::find(ignored.begin(), ignored.end(), signal) == ignored.end()) ignored.push_back(signal);
}

void DefaultSignal(int signal) {
  std::vector<int>& ignored = Ignored();
  SetDisposition(signal, SIG_DFL);
  ignored.erase(std::remove(ignored.begin(), ignored.end(), signal), ignored.end());
}

const std::vector<int>& IgnoredSignals() { return Ignored(); }

void RefreshIgnoredSignals() { AskIgnored(Ignored()); }

void RestoreDefaultSignals(const std::vector<int>& ignored) {
  struct sigaction defaults {};
  defaults.sa_handler = SIG_DFL;
  sigemptyset(&defaults.sa_mask);
  for (int signal : ignored) sigaction(signal, &defaults, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

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
