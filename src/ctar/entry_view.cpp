// What ctar shows of an entry, taken from its header and from the restore
// dispatch, so that the tool cannot disagree with what a restore would do.
#include "ctar/entry_view.h"

namespace ctar {

void Describe(const unsigned char* header, uint64_t offset, uint64_t size, EntryView* view) {
  view->offset = offset;
  view->size = size;
  ReadCtarName(view->stored, sizeof view->stored, header);
  view->has_mtime = ReadCtarMtime(header, &view->mtime) == 0;
  view->kind = EntryKindOf(view->name);
}

const char* KindLabel(EntryKind kind) {
  switch (kind) {
    case EntryKind::Documents: return "documents";
    case EntryKind::Configuration: return "configuration";
    case EntryKind::SecurityData: return "security data";
    case EntryKind::Library: return "library";
    case EntryKind::Ifs: return "IFS";
  }
  return "IFS";
}

}  // namespace ctar
