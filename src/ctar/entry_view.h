// An archive entry as ctar shows it to the operator: where its header
// lies, its size and time, the name a restore uses and the kind of object
// the restore would take it for.
#pragma once

#include <cstdint>

#include "archive/ctar_format.h"
#include "restore/restore.h"

namespace ctar {

struct EntryView {
  uint64_t offset = 0;  // of the header
  uint64_t size = 0;    // data bytes
  bool has_mtime = false;
  int64_t mtime = 0;
  EntryKind kind = EntryKind::Ifs;
  char name[CtarBlockSize] = "";    // the name a restore uses
  char stored[CtarBlockSize] = "";  // as stored: a whole directory keeps ".savf"
};

// Fills in what a header the library accepted as an entry shows; the name
// a restore uses is already in view->name.
void Describe(const unsigned char* header, uint64_t offset, uint64_t size, EntryView* view);

// The word a listing shows for a kind: "library", "IFS", ...
const char* KindLabel(EntryKind kind);

}  // namespace ctar
