// Bounded copies of text and the scaling of byte counts.
#include "support/text.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

size_t CopyBounded(char* dst, size_t cap, const char* src) {
  size_t length = strlen(src);
  if (cap == 0) return length;
  size_t n = length < cap - 1 ? length : cap - 1;
  memcpy(dst, src, n);
  dst[n] = '\0';
  return length;
}

size_t AppendBounded(char* dst, size_t cap, const char* src) {
  size_t used = strnlen(dst, cap);
  if (used == cap) return used + strlen(src);
  return used + CopyBounded(dst + used, cap - used, src);
}

int FormatBounded(char* dst, size_t cap, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = vsnprintf(dst, cap, format, args);
  va_end(args);
  return n;
}

double ScaleDecimal(double value, char* unit) {
  static const char letters[] = {' ', 'K', 'M', 'G'};
  int step = 0;
  while (value > 2000 && step < 3) {
    value /= 1000;
    step++;
  }
  *unit = letters[step];
  return value;
}

double ScaleBinary(double value, char* unit) {
  static const char letters[] = {' ', 'k', 'M', 'G'};
  int step = 0;
  while (value > 2048 && step < 3) {
    value *= 1.0 / 1024;
    step++;
  }
  *unit = letters[step];
  return value;
}

void WipeBytes(void* data, size_t length) { explicit_bzero(data, length); }

void WipeText(char* text) {
  if (text) WipeBytes(text, strlen(text));
}

void WipeAndFree(char** text) {
  WipeText(*text);
  free(*text);
  *text = nullptr;
}

void HumanBytes(uint64_t bytes, char* out, size_t capacity) {
  static const char* const units[] = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < sizeof units / sizeof units[0]) {
    value /= 1024;
    unit++;
  }
  if (unit == 0)
    FormatBounded(out, capacity, "%llu bytes", static_cast<unsigned long long>(bytes));
  else
    FormatBounded(out, capacity, "%.1f %s", value, units[unit]);
}
