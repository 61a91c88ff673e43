// Console and terminal control for the operator prompt: bringing a virtual terminal
// to the front and switching standard input between key-at-a-time and line input.
// Both are best effort: every failure is ignored, so the prompt still works on a
// plain pipe or a host without virtual terminals.
#pragma once

namespace bootstrand {

// Sets (on) or clears (off) canonical input and echo on standard input, at once.
// Nothing else of the terminal settings is saved or restored.
void SetLineMode(bool on);

// Asks the console device ("/dev/console", see ConsoleDevice) to bring virtual
// terminal `terminal` to the front.
void SwitchConsole(int terminal);

}  // namespace bootstrand
