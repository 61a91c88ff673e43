#include "platform/stop_signals.h"

#include "platform/signals.h"

namespace bootstrand {

namespace {

volatile sig_atomic_t stopSignal = 0;

constexpr int kStopSignals[] = {SIGTERM, SIGINT, SIGQUIT};

// Process-wide: the handlers and the mask are per process, and forked children copy
// both.
struct StopSignals {
  bool caught = false;
  sigset_t waitMask;
};

StopSignals& State() {
  static StopSignals state;
  return state;
}

void Note(int signal) {
  if (stopSignal == 0) stopSignal = signal;
}

}  // namespace

void CatchStopSignals() {
  StopSignals& state = State();
  if (state.caught) return;
  sigset_t stops;
  sigemptyset(&stops);
  for (int signal : kStopSignals) sigaddset(&stops, signal);
  sigset_t previous;
  sigprocmask(SIG_BLOCK, &stops, &previous);
  state.waitMask = previous;
  for (int signal : kStopSignals) sigdelset(&state.waitMask, signal);
  // No SA_RESTART: the wait that lets the signal in returns EINTR.
  struct sigaction action {};
  action.sa_handler = Note;
  sigemptyset(&action.sa_mask);
  for (int signal : kStopSignals) {
    // A signal ignored from the start (a boot run in the background by a shell, or
    // under nohup) is the caller's choice and stays ignored.
    struct sigaction current {};
    if (sigaction(signal, nullptr, &current) == 0 && current.sa_handler != SIG_IGN) sigaction(signal, &action, nullptr);
  }
  state.caught = true;
}

int StopSignal() { return stopSignal; }

const sigset_t* WaitMask() {
  const StopSignals& state = State();
  return state.caught ? &state.waitMask : nullptr;
}

const char* StopSignalName(int signal) {
  if (signal == SIGINT) return "SIGINT";
  if (signal == SIGQUIT) return "SIGQUIT";
  return "SIGTERM";
}

void IgnoreHangUp() { IgnoreSignal(SIGHUP); }

}  // namespace bootstrand
