#include "log/channels.h"

#include <unistd.h>

#include <iostream>

#include "log/color.h"
#include "log/trove_buffer.h"
#include "platform/trove.h"
#include "platform/standard_streams.h"

namespace bootstrand {

namespace {

bool kernelLogDeactivated = false;

// Streams and buffers are never destroyed: messages may still be written while
// other static objects are torn down at exit.
std::ostream& Channel(std::uint16_t node, bool keepNewlines) { return *new std::ostream(new TroveBuffer(node, keepNewlines)); }

}  // namespace

std::ostream& StatusLog() {
  static std::ostream& stream = Channel(Trove_NODE_system_progressTerm_statusText, true);
  return stream;
}

std::ostream& AlertLog() {
  static std::ostream& stream = Channel(Trove_NODE_system_sysAlert, false);
  return stream;
}

std::ostream& ProgressLog() {
  static std::ostream& stream = Channel(Trove_NODE_system_progressTerm_progressText, false);
  return stream;
}

std::ostream& KernelLog() {
  static std::ostream& stream = Channel(Trove_NODE_system_log, false);
  return stream;
}

void DeactivateKernelLog() { kernelLogDeactivated = true; }

bool KernelLogDeactivated() { return kernelLogDeactivated; }

TroveBuffer::int_type TroveBuffer::overflow(int_type c) {
  if (!keepNewlines && c == '\n') return 0;
  if (c == '\r') {
    line.clear();
    return 0;
  }
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::eof();
  line += traits_type::to_char_type(c);
  return c;
}

int TroveBuffer::sync() {
  if (kernelLogDeactivated) {
    line.clear();
    return 0;
  }
  // The signature is checked once per process, by whichever channel flushes first.
  static bool checkSig = true;
  if (checkSig) {
    char scratch[64];
    std::size_t scratchSize = sizeof scratch;
    if (Trove_CheckSig(scratch, &scratchSize, 21) != 0) {
      WriteLine(STDERR_FILENO, "Trove signature mismatch");
      return -1;
    }
    checkSig = false;
  }
  int result = 0;
  Trove_ParamList* list = Trove_ParamListCreate(0, 1);
  if (list == nullptr) {
    WriteLine(STDERR_FILENO, "Failed to create Trove param list.");
    result = -1;
  } else {
    if (Trove_ParamListAddString(list, line.c_str()) != 0) {
      WriteLine(STDERR_FILENO, "Failed to add Trove input string.");
      result = -1;
    } else if (Trove_Set(node, 0, list, 0, 0) != 0) {
      WriteLine(STDERR_FILENO, "Failed to set Trove node.");
      result = -1;
    }
    Trove_ParamListDestroy(list);
  }
  line.clear();
  return result;
}

std::ostream& operator<<(std::ostream& stream, const Color& color) {
  if (color.code == 8) return stream << "\x1b[0m";
  return stream << "\x1b[" << color.code + 30 << 'm';
}

}  // namespace bootstrand
