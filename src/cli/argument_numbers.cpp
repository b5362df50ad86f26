// Whole numbers in option arguments (see argument_numbers.h).
#include "cli/argument_numbers.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

// The module this file reports as in failure messages.
[[maybe_unused]] static constexpr const char* kModule = "vondral.cpp";

bool WholeLong(const char* text, long* value) {
  char* end = nullptr;
  errno = 0;
  *value = strtol(text, &end, 0);
  return end != text && *end == '\0';
}

bool StrictInteger(const char* text, long low, long high, long* value) {
  const char* digits = text[0] == '-' ? text + 1 : text;
  if (!*digits || strspn(digits, "0123456789") != strlen(digits) || strlen(digits) > 9) return false;
  *value = strtol(text, nullptr, 10);
  return *value >= low && *value <= high;
}
