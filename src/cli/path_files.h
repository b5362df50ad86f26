// Include and exclude path files: reading their lines, checking them when
// they are opened, and answering whether a server path is named by one.
#pragma once

#include <cstddef>
#include <cstdio>

struct StringList;

// Lines of include and exclude files are read with a buffer of this size.
constexpr size_t PathLineSize = 4096;

// The next line of a path file that names something, without its line end
// (and a CR before it); empty lines and lines starting with "#" are skipped.
// false at the end of the file.
bool ReadPathLine(FILE* stream, char* line, size_t capacity);

// Checks every line of a path file; reports each bad one. 0 or -1.
int CheckPathFile(FILE* stream, const char* path);

// Tests a server path against an include or exclude file (see
// path_files.cpp).
int MatchPathFile(const char* path, StringList* list, FILE* stream);
