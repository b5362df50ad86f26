// How ctar prints entries: in the manner of tar -tv, or as JSON for
// scripts.
#pragma once

#include <cstdio>

#include "ctar/entry_view.h"

namespace ctar {

// Names may hold any byte but NUL; a listing line must stay one line.
void PrintName(FILE* out, const char* text);

// JSON text must be UTF-8. Server names usually are; a byte that is not part
// of a valid sequence is written as the character of the same value
// (\u0080 to \u00ff), as if the name were Latin-1.
void PrintJsonString(FILE* out, const char* text);

// One line in the manner of tar -tv: kind, size, time, name; with the
// header's offset in front when asked.
void PrintEntryLine(FILE* out, const EntryView& view, bool offset);

// One element of the JSON listing's "entries" array, behind a comma unless
// it is the first.
void PrintJsonEntry(FILE* out, const EntryView& view, bool first);

}  // namespace ctar
