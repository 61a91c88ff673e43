// Process logging set-up: init_logging connects the process to the host logging
// library (system log under the identity, time-stamped copy on standard output);
// init_fds gives a plugin's process clean standard streams (input from the null
// device, output and error appended to a log file, each opened once per process and
// kept open). Neither throws; failures are reported and the process goes on.
#pragma once

void init_logging(const char* id);
void init_fds(const char* path);
