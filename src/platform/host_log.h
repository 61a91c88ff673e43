// Stand-in for the host's logging library. Until Log_InitWithSyslogInt succeeds,
// messages go to standard error. Afterwards they go to syslog(3) under the identity,
// at the syslog priority equal to the level, and, once a standard-output output has
// been added, to standard output as
//   "2026-11-16T12:05:09.004Z Pellam2[1234]: <level> message".
// BOOTSTRAND_LOG_FAIL (a comma list of Syslog, Stdio, AddOutput, InitThrow,
// InitThrowOther) forces failures for tests.
#pragma once

#include "platform/dictionary.h"

struct LogOutput;

void Log_SetProductInfo(const char* name, const char* version, const char* buildNumber,
                        const char* compilationOption);
// Non-zero on success. Reads "log.syslogID" and "log.syslogLevel".
int Log_InitWithSyslogInt(const char* id, Dictionary* dictionary, int flags);
// An output for standard output, or null on failure. Reads "log.stdoutLevel",
// "log.useTimeStamps.stdio" and "log.useMilliseconds.stdio".
LogOutput* Log_NewStdioOutput(const char* id, Dictionary* dictionary, int flags);
bool Log_AddOutput(LogOutput* output);
// A negative maximum turns the standard-error copy off.
void Log_SetStderrLevel(int minimum, int maximum);

// printf-style; `level` is a syslog priority (2 critical, 3 error, 4 warning,
// 5 notice, 6 info, 7 debug).
void Log_Level(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// printf-style, at level 4.
void Warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
