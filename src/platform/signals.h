// Signal dispositions for the programs this process starts. Ignored signals stay
// ignored across exec, and the scheduler ignores SIGPIPE, so a child must put them
// back before it runs another program, which then begins as if started afresh.
#pragma once

namespace bootstrand {

// In a child about to exec: every signal that is not at its default disposition goes
// back to it, and the signal mask is emptied. Uses only async-signal-safe calls and
// writes no memory outside its own frame, so a vfork child may call it.
void RestoreDefaultSignals();

}  // namespace bootstrand
