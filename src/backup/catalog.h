// The catalog: one plain line for every object a backup saved, so that an
// operator can find which archive holds an object without reading it.
#pragma once

#include <cstdio>

#include "backup/object_tree.h"

// Catalog output: plain lines, no log prefix. Each line is written under
// LogLock so that lines of several workers never mix; do not call these
// while holding LogLock. 0, or -1 when writing (or allocating) failed.
int PrintFilePath(FILE* stream, const ObjectFile* file);
// One "<directory path><file name>" line for every file in dir and below,
// the files of subdirectories before a directory's own files. With full set
// the path starts at the root, otherwise at dir's own name.
int DumpTree(FILE* stream, const ObjectNode* dir, bool full);
