// SIGTERM, SIGINT and SIGQUIT while plugins are activated: a boot being stopped (a
// shutdown, the service's own timeout, Ctrl-C or Ctrl-\ at the console) ends what it
// started before it exits. The quit key asks ordinary programs for a core as well;
// here it is a stop like the other two, since a core taken after the workers and
// commands have been ended shows nothing, and one taken before would leave them
// running. From CatchStopSignals on, the signals are blocked and let in only while
// the process waits (ppoll with WaitMask), so a request is seen at the next wait and
// never lost between a check and the wait. Worker processes forked later inherit the
// handlers and the mask; commands start with an empty mask and default handlers.
// A hang-up is no stop: see IgnoreHangUp.
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

// "SIGTERM", "SIGINT" or "SIGQUIT".
const char* StopSignalName(int signal);

// SIGHUP ignored from here on, in this process and the workers it forks (commands
// start with the default again). The console a boot was started from may go away
// (a serial line dropped, a terminal closed) while the boot goes on, which must not
// end the activator and leave its workers and commands behind.
void IgnoreHangUp();

}  // namespace bootstrand
