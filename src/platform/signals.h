// Signal dispositions for the programs this process starts. Ignored signals stay
// ignored across exec, and the scheduler ignores SIGPIPE, so a child puts them back
// before it runs another program, which then begins as if started afresh. Changing
// every signal in every child would cost a system call per signal per command, so
// this module knows which ones this process ignores.
#pragma once

#include <vector>

namespace bootstrand {

// Ignores `signal` in this process and notes it, so that the programs it starts
// still begin with the default.
void IgnoreSignal(int signal);
// Puts `signal` back to its default in this process.
void DefaultSignal(int signal);

// The signals this process ignores: those it was started with ignored (asked of the
// system once, at the first call) and those set through IgnoreSignal. A disposition
// changed behind this module's back is not seen until RefreshIgnoredSignals.
const std::vector<int>& IgnoredSignals();

// Asks the system again, after foreign code (a native plugin's entry point) ran in
// this process and may have changed dispositions behind this module's back.
void RefreshIgnoredSignals();

// In a child about to exec: `ignored` back to their defaults and the signal mask
// emptied. Uses only async-signal-safe calls and writes no memory outside its own
// frame, so a vfork child may call it.
void RestoreDefaultSignals(const std::vector<int>& ignored);

// The same for every signal that is not at its default now, asked of the system
// signal by signal (for the rare child that may follow any change, such as the
// operator's shell).
void RestoreDefaultSignals();

}  // namespace bootstrand
