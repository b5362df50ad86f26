// The sequential walk over an archive that list and extract share: header
// blocks read in order, judged as a restore judges them, each entry's data
// taken before the next header, and what lies behind the sentinel.
#include "ctar/walk.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "ctar/header_scan.h"
#include "ctar/messages.h"
#include "ctar/progress.h"
#include "ctar/status.h"

namespace ctar {

namespace {

// After the sentinel a whole archive ends. Anything behind it is what a
// broken retrieval leaves: a restore never sees the entries there.
int CheckBehindSentinel(Archive& archive, uint64_t sentinel) {
  uint64_t behind = 0;
  if (archive.seekable) {
    behind = archive.size > archive.position ? archive.size - archive.position : 0;
  } else {
    uint64_t before = archive.position;
    int result = SkipData(archive, UINT64_MAX);
    if (result == DataReadFailed) {
      Complain("%s: read error behind the sentinel at offset 0x%llX: %s", archive.shown,
               Ull(sentinel), strerror(errno));
      return StatusUnreadable;
    }
    behind = archive.position - before;
  }
  if (behind == 0) return StatusWhole;
  Complain("%s: %llu bytes lie behind the sentinel at offset 0x%llX: a broken retrieval may hide "
           "entries there that a restore never reaches (ctar verify names them, ctar salvage "
           "recovers them)",
           archive.shown, Ull(behind), Ull(sentinel));
  return StatusDamaged;
}

// Reads the next header block in order. StatusWhole when a whole block
// came; otherwise a status after saying what the archive is instead.
int ReadHeaderInOrder(Archive& archive, unsigned char* block) {
  const uint64_t offset = archive.position;
  ssize_t got = ReadFull(archive.fd, block, CtarBlockSize);
  if (got < 0) {
    Complain("%s: read error at offset 0x%llX: %s", archive.shown, Ull(offset), strerror(errno));
    return StatusUnreadable;
  }
  archive.position += static_cast<uint64_t>(got);
  if (static_cast<size_t>(got) == CtarBlockSize) return StatusWhole;
  if (offset == 0) return RefuseArchiveStart(archive, block, static_cast<size_t>(got));
  if (got == 0) {
    Complain("%s: truncated: the archive ends at offset 0x%llX without its sentinel",
             archive.shown, Ull(offset));
    return StatusDamaged;
  }
  Complain("%s: truncated: the archive ends inside the header block at offset 0x%llX",
           archive.shown, Ull(offset));
  return StatusDamaged;
}

// A header a restore stops at, or a first block that makes no archive: its
// status after a complaint. StatusWhole for an entry or the sentinel.
int RefuseHeader(const Archive& archive, int judged, const unsigned char* block, uint64_t offset) {
  if (offset == 0 && !LooksLikeArchiveStart(judged, block))
    return RefuseArchiveStart(archive, block, Block);
  if (judged == CtarBadChecksum) {
    Complain("%s: bad header checksum at offset 0x%llX: a restore stops here", archive.shown,
             Ull(offset));
    return StatusDamaged;
  }
  if (judged == CtarBadSize) {
    Complain("%s: unreadable size field in the header at offset 0x%llX: a restore stops here",
             archive.shown, Ull(offset));
    return StatusDamaged;
  }
  return StatusWhole;
}

}  // namespace

int TakeData(Archive& archive, const EntryView& view, int out) {
  if (view.size > CtarLargestSize) {
    Complain("%s: the entry %s at offset 0x%llX claims %llu bytes, more than any archive holds",
             archive.shown, view.name, Ull(view.offset), Ull(view.size));
    return StatusDamaged;
  }
  const uint64_t padded = CtarPaddedSize(view.size);
  int result = DataDone;
  if (out >= 0) {
    result = CopyData(archive, view.size, out);
    if (result == DataDone) result = SkipData(archive, padded - view.size);
  } else {
    result = SkipData(archive, padded);
  }
  CurrentProgress.Update(archive.position);
  switch (result) {
    case DataDone: return StatusWhole;
    case DataEnded:
      Complain("%s: truncated: the data of %s (header at offset 0x%llX, %llu bytes) runs past "
               "the end of the archive at offset 0x%llX",
               archive.shown, view.name, Ull(view.offset), Ull(view.size), Ull(archive.position));
      return StatusDamaged;
    case DataReadFailed:
      Complain("%s: read error in the data of %s near offset 0x%llX: %s", archive.shown, view.name,
               Ull(archive.position), strerror(errno));
      return StatusUnreadable;
    default:
      Complain("%s: write failed: %s", view.name, strerror(errno));
      return StatusWriteFailed;
  }
}

int WalkArchive(Archive& archive, const char* what,
                const std::function<int(const EntryView&)>& on_entry) {
  CurrentProgress.Start(what, archive.seekable ? archive.size : 0);
  unsigned char block[CtarBlockSize];
  int status = StatusWhole;
  for (;;) {
    const uint64_t offset = archive.position;
    status = ReadHeaderInOrder(archive, block);
    if (status != StatusWhole) break;
    EntryView view;
    uint64_t size = 0;
    const int judged = ReadCtarHeader(block, &size, view.name, sizeof view.name);
    status = RefuseHeader(archive, judged, block, offset);
    if (status != StatusWhole) break;
    if (judged == CtarEnd) {
      status = CheckBehindSentinel(archive, offset);
      break;
    }
    Describe(block, offset, size, &view);
    status = on_entry(view);
    if (status != StatusWhole) break;
  }
  CurrentProgress.Finish(archive.position);
  return status;
}

}  // namespace ctar
