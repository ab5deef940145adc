// Bounded formatting that returns the number of characters stored, not the number that an unlimited
// buffer would have taken.
#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "qel_base.h"

int str_snprintf(char* buffer, size_t size, const char* format, ...) {
  if (size == 0) return 0;
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  if (length >= 0) return static_cast<int>(std::min(static_cast<size_t>(length), size - 1));
  buffer[0] = '\0';
  return 0;
}
