// Parsing one line of the server's directory listing. The fields every
// server sends are read by hand, for speed (a walk of a million objects
// parses a million lines); anything unusual is left to sscanf and strptime,
// whose reading the hand-written one must match exactly.
#include "backup/listing_parser.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "support/log.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "backup.cpp";

namespace {

// isspace() of the "C" locale, which the program never leaves, as a table:
// the parser asks it for nearly every character of a listing.
constexpr struct BlankTable {
  bool blank[256] = {};
  constexpr BlankTable() {
    for (unsigned char c : {' ', '\t', '\n', '\v', '\f', '\r'}) blank[c] = true;
  }
} Blanks;

bool IsBlank(char c) { return Blanks.blank[static_cast<unsigned char>(c)]; }

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

const char* SkipBlanks(const char* p) {
  while (*p && IsBlank(*p)) p++;
  return p;
}

const char* SkipField(const char* p) {
  while (*p && !IsBlank(*p)) p++;
  return p;
}

// The permission letters of the listing, position by position. The group and
// other rows add the bits shown here for "r" and "w" alike; saved modes have
// always been read this way, so it stays.
uint32_t ListedMode(const char* text) {
  struct Bit {
    int position;
    char letter;
    uint32_t bits;
  };
  static const Bit bits[] = {
      {1, 'r', 0400},  {2, 'w', 0200},  {3, 'x', 0100},  {3, 's', 04100},
      {4, 'r', 0020},  {5, 'w', 0020},  {6, 'x', 0010},  {6, 's', 02010},
      {7, 'r', 0002},  {8, 'w', 0002},  {9, 'x', 0001},  {9, 's', 01001},
  };
  uint32_t mode = text[0] == 'd' ? S_IFDIR : S_IFREG;
  for (const Bit& b : bits)
    if (text[b.position] == b.letter) mode |= b.bits;
  return mode;
}

// The current local time broken down, once per second rather than once per
// listing line: a walk of a million objects parses a million lines.
bool BrokenDownNow(struct tm* out) {
  thread_local time_t cached_at = -1;
  thread_local struct tm cached{};
  time_t now = time(nullptr);
  if (now != cached_at) {
    if (!localtime_r(&now, &cached)) return false;
    cached_at = now;
  }
  *out = cached;
  return true;
}

// The listed size as "%llu" reads it; plain digits (all a server sends)
// are read here, anything else by the library.
unsigned long long ListedSize(const char* p) {
  unsigned long long value = 0;
  int digits = 0;
  for (; digits < 19 && IsDigit(p[digits]); digits++) value = value * 10 + static_cast<unsigned>(p[digits] - '0');
  if (digits > 0 && !IsDigit(p[digits])) return value;
  unsigned long long size = 0;
  int consumed = 0;
  if (sscanf(p, "%llu%n", &size, &consumed) != 1) size = 0;
  return size;
}

// What strptime derives after reading a date: the day of the week and of
// the year, from the year, month and day as they stand (the day may lie
// beyond the month's end, and counts on linearly then).
void SetDerivedDays(struct tm* when) {
  static const int before_month[2][12] = {{0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334},
                                          {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335}};
  const long year = 1900L + when->tm_year;
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  // Days from 1 January of year 1 (proleptic Gregorian, a Monday); the
  // callers' years are 1000 and later.
  const long y = year - 1;
  const long day = 365 * y + y / 4 - y / 100 + y / 400 + before_month[leap][when->tm_mon] + (when->tm_mday - 1);
  when->tm_wday = static_cast<int>((day + 1) % 7);
  when->tm_yday = before_month[leap][when->tm_mon] + (when->tm_mday - 1);
}

// strptime(p, "%b %d") for the month and day every listing line has ("Mar
// 5", "MAR 05"); nullptr where the text needs the library's own reading.
const char* ReadMonthDay(const char* p, struct tm* when) {
  static const char months[12][4] = {"jan", "feb", "mar", "apr", "may", "jun",
                                     "jul", "aug", "sep", "oct", "nov", "dec"};
  auto lower = [](char c) { return static_cast<char>((c >= 'A' && c <= 'Z') ? c + ('a' - 'A') : c); };
  // A blank after three letters: no full month name can be meant.
  if (!p[0] || !p[1] || !p[2] || !IsBlank(p[3])) return nullptr;
  const char a = lower(p[0]), b = lower(p[1]), c = lower(p[2]);
  int month = -1;
  for (int m = 0; m < 12; m++)
    if (months[m][0] == a && months[m][1] == b && months[m][2] == c) month = m;
  if (month < 0) return nullptr;
  const char* q = p + 3;
  while (IsBlank(*q)) q++;
  if (!IsDigit(*q)) return nullptr;
  int day = *q++ - '0';
  if (day <= 3 && IsDigit(*q)) day = day * 10 + (*q++ - '0');
  if (day < 1 || day > 31) return nullptr;
  when->tm_mon = month;
  when->tm_mday = day;
  SetDerivedDays(when);
  return q;
}

// strptime(p, "%H:%M") for "14:07"; nullptr where the library must read it.
const char* ReadClock(const char* p, struct tm* when) {
  if (!IsDigit(p[0]) || !IsDigit(p[1]) || p[2] != ':' || !IsDigit(p[3]) || !IsDigit(p[4])) return nullptr;
  const int hour = (p[0] - '0') * 10 + (p[1] - '0');
  const int minute = (p[3] - '0') * 10 + (p[4] - '0');
  if (p[0] > '2' || hour > 23 || p[3] > '5' || minute > 59) return nullptr;
  when->tm_hour = hour;
  when->tm_min = minute;
  return p + 5;
}

// strptime(p, "%Y") for a four-digit year from 1000 on; nullptr where the
// library must read it.
const char* ReadYear(const char* p, struct tm* when) {
  if (p[0] < '1' || p[0] > '9' || !IsDigit(p[1]) || !IsDigit(p[2]) || !IsDigit(p[3])) return nullptr;
  when->tm_year = (p[0] - '0') * 1000 + (p[1] - '0') * 100 + (p[2] - '0') * 10 + (p[3] - '0') - 1900;
  SetDerivedDays(when);
  return p + 4;
}

// The mode letters and the size; the three fields between them (links,
// owner, group) are passed over. Returns where the date begins.
const char* ReadModeAndSize(const char* line, size_t line_length, ParsedEntry* entry) {
  char mode_text[11] = "----------";
  memcpy(mode_text, line, line_length < 10 ? line_length : 10);
  entry->mode = ListedMode(mode_text);
  const char* p = line_length < 10 ? line + line_length : line + 10;
  for (int field = 0; field < 3; field++) p = SkipField(SkipBlanks(p));  // links, owner, group
  p = SkipBlanks(p);
  entry->size = ListedSize(p);
  return SkipField(p);
}

// The time of day of a recent entry, or the year of an older one, after
// its month and day. nullptr after reporting a failure.
const char* ReadClockOrYear(const char* line, const char* p, const struct tm& today, struct tm* when) {
  const char* after;
  if (p[0] && p[1] && p[2] == ':') {
    after = ReadClock(p, when);
    if (!after) after = strptime(p, "%H:%M", when);
    if (!after) {
      VFAIL("can't parse time: %s\n", line);
      return nullptr;
    }
    // A recent entry shows no year: it is this year, unless its month is
    // still to come, which makes it last year.
    when->tm_year = today.tm_year - (when->tm_mon > today.tm_mon ? 1 : 0);
    return after;
  }
  after = ReadYear(p, when);
  if (!after) after = strptime(p, "%Y", when);
  if (!after) VFAIL("can't parse year: %s\n", line);
  return after;
}

// The modification time from "Mon dd hh:mm" or "Mon dd yyyy". Returns
// where the name begins, or nullptr after reporting a failure.
const char* ReadDate(const char* line, const char* p, const struct tm& today, struct tm* mtime) {
  struct tm when = today;
  when.tm_hour = when.tm_min = when.tm_sec = 0;
  p = SkipBlanks(p);
  const char* date = ReadMonthDay(p, &when);
  if (!date) date = strptime(p, "%b %d", &when);
  if (!date) {
    VFAIL("can't parse date: %s\n", line);
    return nullptr;
  }
  const char* after = ReadClockOrYear(line, SkipBlanks(date), today, &when);
  if (!after) return nullptr;
  when.tm_isdst = -1;
  *mtime = when;
  return after;
}

// The name, which runs up to " -> " (a link and its target) or to the
// line's last character (where its CR stands), and holds no "/". Whatever
// follows the name or the link target is reported, but does not fail the
// line.
bool ReadName(const char* line, size_t line_length, const char* after, ParsedEntry* entry) {
  const char* name = SkipBlanks(after);
  const char* end = line + line_length;  // the name stops before the last character
  const char* arrow = strstr(name, " -> ");
  const char* name_end = arrow ? arrow : (end > name ? end - 1 : name);
  const size_t name_length = static_cast<size_t>(name_end - name);
  if (name_length + 1 >= sizeof entry->name) {
    VFAIL("name too long: %s\n", name);
    return false;
  }
  // A listed name is one entry of the directory listed: with a "/" in it
  // ("../../etc", "a/../b", "x/") it would name something elsewhere, which
  // would then be walked and saved as if it lay here.
  if (memchr(name, '/', name_length)) {
    VFAIL("name holds a \"/\": %s\n", line);
    return false;
  }
  entry->name[0] = '/';
  memcpy(entry->name + 1, name, name_length);
  entry->name[name_length + 1] = '\0';
  const char* rest = name_end;
  if (arrow) rest = SkipField(arrow + 4);  // the link target
  rest = SkipBlanks(rest);
  if (*rest) VFAIL("leftover %s\n", rest);
  return true;
}

}  // namespace

bool ParseListingLine(const char* line, ParsedEntry* entry) {
  struct tm today{};
  if (!BrokenDownNow(&today)) {
    VFAIL("can't break-down now\n");
    return false;
  }
  const size_t line_length = strlen(line);
  const char* date = ReadModeAndSize(line, line_length, entry);
  const char* after = ReadDate(line, date, today, &entry->mtime);
  return after && ReadName(line, line_length, after, entry);
}
