// How ctar prints entries: names made safe for one line, JSON strings that
// stay valid UTF-8, and the listing line and JSON object of an entry.
#include "ctar/entry_print.h"

#include <cstdint>
#include <ctime>

#include "ctar/messages.h"
#include "support/text.h"

namespace ctar {

namespace {

// Length of the valid UTF-8 sequence at p, or 0 when there is none.
size_t Utf8Length(const unsigned char* p) {
  size_t length;
  uint32_t point, least;
  if (p[0] >= 0xC2 && p[0] <= 0xDF) {
    length = 2, point = p[0] & 0x1F, least = 0x80;
  } else if (p[0] >= 0xE0 && p[0] <= 0xEF) {
    length = 3, point = p[0] & 0x0F, least = 0x800;
  } else if (p[0] >= 0xF0 && p[0] <= 0xF4) {
    length = 4, point = p[0] & 0x07, least = 0x10000;
  } else {
    return 0;
  }
  for (size_t i = 1; i < length; i++) {
    if ((p[i] & 0xC0) != 0x80) return 0;  // also stops at the terminator
    point = point << 6 | (p[i] & 0x3F);
  }
  if (point < least || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return 0;
  return length;
}

// The entry's time for a listing; without a valid one, a text as wide.
void TimeText(const EntryView& view, char* out, size_t capacity) {
  struct tm local{};
  time_t seconds = static_cast<time_t>(view.mtime);
  if (!view.has_mtime || !localtime_r(&seconds, &local) ||
      strftime(out, capacity, "%Y-%m-%d %H:%M", &local) == 0)
    CopyBounded(out, capacity, "(no valid time) ");  // as wide as a time
}

}  // namespace

void PrintName(FILE* out, const char* text) {
  for (const auto* p = reinterpret_cast<const unsigned char*>(text); *p; p++) {
    if (*p == '\\')
      fputs("\\\\", out);
    else if (*p == '\n')
      fputs("\\n", out);
    else if (*p == '\t')
      fputs("\\t", out);
    else if (*p < 0x20 || *p == 0x7F)
      fprintf(out, "\\%03o", *p);
    else
      fputc(*p, out);
  }
}

void PrintJsonString(FILE* out, const char* text) {
  fputc('"', out);
  const auto* p = reinterpret_cast<const unsigned char*>(text);
  while (*p) {
    if (*p == '"' || *p == '\\') {
      fputc('\\', out);
      fputc(*p++, out);
    } else if (*p < 0x20 || *p == 0x7F) {
      fprintf(out, "\\u%04x", *p++);
    } else if (*p < 0x80) {
      fputc(*p++, out);
    } else if (size_t length = Utf8Length(p)) {
      fwrite(p, 1, length, out);
      p += length;
    } else {
      fprintf(out, "\\u%04x", *p++);
    }
  }
  fputc('"', out);
}

void PrintEntryLine(FILE* out, const EntryView& view, bool offset) {
  char when[64];
  TimeText(view, when, sizeof when);
  if (offset) fprintf(out, "0x%010llX ", Ull(view.offset));
  fprintf(out, "%-13s %12llu %s ", KindLabel(view.kind), Ull(view.size), when);
  PrintName(out, view.name);
  fputc('\n', out);
}

void PrintJsonEntry(FILE* out, const EntryView& view, bool first) {
  fprintf(out, "%s  {\"offset\": %llu, \"kind\": \"%s\", \"size\": %llu, \"mtime\": ",
          first ? "\n" : ",\n", Ull(view.offset), KindLabel(view.kind), Ull(view.size));
  if (view.has_mtime)
    fprintf(out, "%lld", static_cast<long long>(view.mtime));
  else
    fputs("null", out);
  fputs(", \"name\": ", out);
  PrintJsonString(out, view.name);
  fputs(", \"stored_name\": ", out);
  PrintJsonString(out, view.stored);
  fputc('}', out);
}

}  // namespace ctar
