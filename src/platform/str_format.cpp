#include "platform/str_format.h"

#include <cstdio>
#include <cstdlib>

char* Str_SafeVasprintf(std::size_t* length, const char* format, va_list arguments) {
  char* text = nullptr;
  int count = vasprintf(&text, format, arguments);
  if (count < 0 || text == nullptr) {
    std::fputs("Str_SafeVasprintf: out of memory\n", stderr);
    std::abort();
  }
  if (length != nullptr) *length = static_cast<std::size_t>(count);
  return text;
}
