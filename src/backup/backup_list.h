// The backup list: the include tree sorted into one tree per kind of
// object, each holding the units a worker saves (whole directories, single
// files, libraries).
#pragma once

#include <cstdint>

#include "backup/object_tree.h"

enum ObjectKind : int {
  OBJECT_KIND_SYSTEM = 0,   // "/Security Data", "/System Configuration"
  OBJECT_KIND_QDLS = 1,     // "/QDLS"
  OBJECT_KIND_LIBRARY = 2,  // below "/QSYS.LIB/"
  OBJECT_KIND_IFS = 3,      // everything else
};

// Number of kinds, and so the largest number of backup workers.
int ObjectKindCount();
// Kind of a full server path; comparisons are byte-exact.
ObjectKind ClassifyPath(const char* path);

// Objects placed into the per-kind trees.
extern uint64_t ObjectsFound;

// Sorts the include tree into one tree per ObjectKind (ObjectKindCount
// roots), deciding which directories are saved whole. A kind tree's
// directories are borrowed copies named with their full paths, each a
// unit. Its file records are copies of single files, library entries, and
// run records: a directory split into its files gets one record (run set,
// parent the directory in the include tree, named with its path) rather
// than a copy of each file, so the list grows with directories, not files.
// FileUnitCursor walks the file units in the order they were placed.
ObjectNode** BuildBackupList(ObjectNode* include_tree);
// The file units of a kind tree, in the order they were placed.
struct FileUnitCursor {
  const ObjectFile* record = nullptr;  // the kind tree's record in hand
  const ObjectFile* file = nullptr;    // in a run record: its next file
};
FileUnitCursor FirstFileUnit(const ObjectNode* kind_tree);
// The unit in hand, whose mode, size and time describe it, with its full
// path in path (cut to capacity); the cursor moves on. nullptr once every
// unit was handed out.
const ObjectFile* NextFileUnit(FileUnitCursor* cursor, char* path, size_t capacity);
// Frees what BuildBackupList made: the roots and every adopted copy in
// them, leaving the include tree (which owns the copies' children) alone.
void FreeBackupList(ObjectNode** kinds);
// Places dir (whose parent's path is in path, a buffer of PathBufferSize
// that is cut back to it on return) and what lies below it in the kind
// trees.
void PlaceObject(ObjectNode** kinds, ObjectNode* dir, char* path);
