// A second reading of one directory listing line, made of sscanf and
// strptime alone. The program reads the fields every server sends by hand,
// for speed, and leaves anything unusual to those same calls; whatever it
// reads, the entry must come out exactly as this reading makes it, or the
// line must fail with the same message. The unit tests hold the parser to
// it line by line, the listing fuzz target over whole chunked listings.
#pragma once

#include <sys/stat.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "backup/listing_walk.h"

namespace listing_reference {

// What a line reads as: the entry, or the message the parser must give.
struct Entry {
  bool ok = false;
  std::string failure;  // "can't parse date", "can't parse time", ...
  uint32_t mode = 0;
  unsigned long long size = 0;
  struct tm mtime{};
  std::string name;  // "/" and the listed name
};

inline bool Blank(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }
inline const char* SkipBlanks(const char* p) {
  while (*p && Blank(*p)) p++;
  return p;
}
inline const char* SkipWord(const char* p) {
  while (*p && !Blank(*p)) p++;
  return p;
}

// The line grammar: ten mode letters, three skipped fields (links, owner,
// group), the size, "Mon dd", then "hh:mm" (this year, or last year when
// the month is still to come) or a year, then the name up to " -> " or up
// to the line's last character (where its CR stands), which holds no "/"
// (it names one entry of the listed directory). `today` is the local
// date the reading is made on.
inline Entry Read(const char* line, const struct tm& today) {
  Entry entry;
  const size_t length = strlen(line);
  static const struct {
    size_t at;
    char letter;
    uint32_t bits;
  } letters[] = {{1, 'r', 0400}, {2, 'w', 0200}, {3, 'x', 0100}, {3, 's', 04100},
                 {4, 'r', 0020}, {5, 'w', 0020}, {6, 'x', 0010}, {6, 's', 02010},
                 {7, 'r', 0002}, {8, 'w', 0002}, {9, 'x', 0001}, {9, 's', 01001}};
  entry.mode = line[0] == 'd' ? S_IFDIR : S_IFREG;
  for (const auto& l : letters)
    if (l.at < length && line[l.at] == l.letter) entry.mode |= l.bits;
  const char* p = line + (length < 10 ? length : 10);
  for (int field = 0; field < 3; field++) p = SkipWord(SkipBlanks(p));
  p = SkipBlanks(p);
  if (sscanf(p, "%llu", &entry.size) != 1) entry.size = 0;
  p = SkipBlanks(SkipWord(p));
  struct tm when = today;
  when.tm_hour = when.tm_min = when.tm_sec = 0;
  const char* after = strptime(p, "%b %d", &when);
  if (!after) {
    entry.failure = "can't parse date";
    return entry;
  }
  p = SkipBlanks(after);
  if (p[0] && p[1] && p[2] == ':') {
    after = strptime(p, "%H:%M", &when);
    if (!after) {
      entry.failure = "can't parse time";
      return entry;
    }
    when.tm_year = today.tm_year - (when.tm_mon > today.tm_mon ? 1 : 0);
  } else {
    after = strptime(p, "%Y", &when);
    if (!after) {
      entry.failure = "can't parse year";
      return entry;
    }
  }
  when.tm_isdst = -1;
  entry.mtime = when;
  const char* name = SkipBlanks(after);
  const char* end = line + length;
  const char* arrow = strstr(name, " -> ");
  const char* name_end = arrow ? arrow : (end > name ? end - 1 : name);
  entry.name = "/" + std::string(name, static_cast<size_t>(name_end - name));
  if (entry.name.size() >= PathBufferSize) {
    entry.failure = "name too long";
    return entry;
  }
  if (entry.name.find('/', 1) != std::string::npos) {
    entry.failure = "name holds a \"/\"";
    return entry;
  }
  entry.ok = true;
  return entry;
}

// The first field of the broken-down time in which the two differ (the
// days of the week and of the year, which strptime derives, included), or
// nullptr when they agree.
inline const char* TimeDifference(const struct tm& a, const struct tm& b) {
  if (a.tm_year != b.tm_year) return "tm_year";
  if (a.tm_mon != b.tm_mon) return "tm_mon";
  if (a.tm_mday != b.tm_mday) return "tm_mday";
  if (a.tm_hour != b.tm_hour) return "tm_hour";
  if (a.tm_min != b.tm_min) return "tm_min";
  if (a.tm_sec != b.tm_sec) return "tm_sec";
  if (a.tm_wday != b.tm_wday) return "tm_wday";
  if (a.tm_yday != b.tm_yday) return "tm_yday";
  if (a.tm_isdst != b.tm_isdst) return "tm_isdst";
  if (a.tm_gmtoff != b.tm_gmtoff) return "tm_gmtoff";
  if (strcmp(a.tm_zone ? a.tm_zone : "", b.tm_zone ? b.tm_zone : "") != 0) return "tm_zone";
  return nullptr;
}

}  // namespace listing_reference
