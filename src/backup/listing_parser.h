// Where a line of the server's directory listing is parsed: the mode
// letters, the size, the date in both of its forms and the name, into one
// entry.
#pragma once

#include <cstdint>
#include <ctime>

// One listing line as read.
struct ParsedEntry {
  uint32_t mode;  // S_IFDIR for a "d" line, S_IFREG otherwise, and the letters' bits
  uint64_t size;
  struct tm mtime;
  char name[4096];  // "/" and the listed name
};

// Parses one listing line (its CR still at the end). false after reporting
// why the line cannot be used.
bool ParseListingLine(const char* line, ParsedEntry* entry);
