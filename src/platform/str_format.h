// Stand-in for the host's printf-style formatter into a newly allocated string.
#pragma once

#include <cstdarg>

// Formats into a string allocated with malloc; the caller frees it. Never returns
// null: when memory runs out the process ends.
char* Str_SafeVasprintf(std::size_t* length, const char* format, va_list arguments);
