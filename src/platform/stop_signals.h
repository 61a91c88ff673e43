// SIGTERM and SIGINT while plugins are activated: a boot being stopped (a shutdown,
// the service's own timeout, Ctrl-C at the console) ends what it started before it
// exits. From CatchStopSignals on, the two signals are blocked and let in only while
// the process waits (ppoll with WaitMask), so a request is seen at the next wait and
// never lost between a check and the wait. Worker processes forked later inherit the
// handlers and the mask; commands start with an empty mask and default handlers.
#pragma once

#include <signal.h>

namespace bootstrand {

// Installs the handlers and blocks the signals in this process. Once per process;
// a second call does nothing.
void CatchStopSignals();

// The signal that asked this process to stop, or 0.
int StopSignal();

// The mask to wait with: the current one with the stop signals let in. Null before
// CatchStopSignals, which ppoll takes as "leave the mask as it is".
const sigset_t* WaitMask();

// "SIGTERM" or "SIGINT".
const char* StopSignalName(int signal);

}  // namespace bootstrand
