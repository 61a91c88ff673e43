#include "plugin/exception.h"

#include <cstdarg>
#include <cstdlib>

#include "platform/str_format.h"

namespace bootstrand {

Exception::Exception(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::size_t length = 0;
  char* text = Str_SafeVasprintf(&length, format, arguments);
  va_end(arguments);
  message_.assign(text, length);
  std::free(text);
}

}  // namespace bootstrand
