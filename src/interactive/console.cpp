#include "interactive/console.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "platform/standard_streams.h"
#include "platform/unique_fd.h"

namespace bootstrand {

namespace {

// The console's virtual-terminal requests, spelled out so that no console header of
// a particular kernel is needed.
constexpr unsigned long kVirtualTerminalActivate = 0x5606;
constexpr unsigned long kVirtualTerminalWaitActive = 0x5607;

}  // namespace

void SetLineMode(bool on) {
  termios attributes {};
  if (tcgetattr(STDIN_FILENO, &attributes) != 0) return;
  if (on) {
    attributes.c_lflag |= ICANON | ECHO;
  } else {
    attributes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  }
  tcsetattr(STDIN_FILENO, TCSANOW, &attributes);
}

void SwitchConsole(int terminal) {
  UniqueFd console(open(ConsoleDevice(), O_RDWR | O_CLOEXEC));
  if (!console.Valid()) return;
  if (ioctl(console.Get(), kVirtualTerminalActivate, terminal) != 0) {
    ioctl(console.Get(), kVirtualTerminalWaitActive, terminal);
  }
}

}  // namespace bootstrand
