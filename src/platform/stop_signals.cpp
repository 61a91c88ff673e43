#include "platform/stop_signals.h"

#include <initializer_list>

namespace bootstrand {

namespace {

volatile sig_atomic_t stopSignal = 0;

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
  sigaddset(&stops, SIGTERM);
  sigaddset(&stops, SIGINT);
  sigset_t previous;
  sigprocmask(SIG_BLOCK, &stops, &previous);
  state.waitMask = previous;
  sigdelset(&state.waitMask, SIGTERM);
  sigdelset(&state.waitMask, SIGINT);
  // No SA_RESTART: the wait that lets the signal in returns EINTR.
  struct sigaction action {};
  action.sa_handler = Note;
  sigemptyset(&action.sa_mask);
  for (int signal : {SIGTERM, SIGINT}) {
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

const char* StopSignalName(int signal) { return signal == SIGINT ? "SIGINT" : "SIGTERM"; }

}  // namespace bootstrand
