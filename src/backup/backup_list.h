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
// roots), deciding which directories are saved whole.
ObjectNode** BuildBackupList(ObjectNode* include_tree);
// Frees what BuildBackupList made: the roots and every adopted copy in
// them, leaving the include tree (which owns the copies' children) alone.
void FreeBackupList(ObjectNode** kinds);
// Places dir (whose parent's path is in path, a buffer of PathBufferSize
// that is cut back to it on return) and what lies below it in the kind
// trees.
void PlaceObject(ObjectNode** kinds, ObjectNode* dir, char* path);
