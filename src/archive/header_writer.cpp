// Where an entry's header is written: closing the entry a retrieval has
// appended, with its last block padded, a new end block behind it and the
// header over the old end block. It reports as the ftp module, whose save
// family it has always been part of.
#include "archive/header_writer.h"

#include <cerrno>
#include <cstring>

#include "backup/object_tree.h"
#include "support/log.h"
#include "support/sysio.h"

// Failures here are the ftp module's, as they always were.
static constexpr const char* kModule = "ftp.cpp";

namespace {

// The last, partly filled block goes out padded with zeros. 0, or -1 after
// a message.
int WritePaddedBlock(ArchiveWriter* writer) {
  memset(writer->block + writer->pending, 0, CtarBlockSize - static_cast<size_t>(writer->pending));
  const ssize_t written = WriteGatheredBlock(writer);
  if (written != static_cast<ssize_t>(CtarBlockSize)) {
    VFAIL_GATHERED_BLOCK(written);
    return -1;
  }
  writer->bytes += writer->pending;
  writer->pending = 0;
  return 0;
}

// The header goes over the old end block, just before the entry's data.
// Only a header that went out in part spoils the old end block; one that
// did not go out at all leaves it as it was, with nothing to write back on
// a disk that may be full. 0, or -1 after a message.
int WriteHeader(ArchiveAppend* append, const ObjectFile* object) {
  ArchiveWriter* writer = append->Writer();
  unsigned char block[CtarBlockSize];
  BuildCtarHeader(block, object->name, static_cast<uint64_t>(writer->bytes), object->mode, object->mtime);
  size_t written = 0;
  ssize_t result = PwriteFull(writer->descriptor, block, CtarBlockSize,
                              append->Start() - static_cast<int64_t>(CtarBlockSize), &written);
  if (written > 0 && written < CtarBlockSize) append->TouchEndBlock();
  if (result != static_cast<ssize_t>(CtarBlockSize)) {
    VFAIL("CTAR header failed to update: %s\n", strerror(errno));
    return -1;
  }
  return 0;
}

}  // namespace

int CloseEntry(ArchiveAppend* append, const ObjectFile* object) {
  ArchiveWriter* writer = append->Writer();
  if (writer->pending > 0 && WritePaddedBlock(writer) != 0) return -1;
  if (writer->bytes <= 0) {
    // A save file is never empty: whatever the server said, there is
    // nothing here that a restore could bring back.
    LogMessage("Block returned no data\n");
    return -1;
  }
  if (!AppendEndBlock(writer->descriptor)) {
    VFAIL("CTAR sentinel failed write(): %s\n", strerror(errno));
    return -1;
  }
  if (WriteHeader(append, object) != 0) return -1;
  append->Commit();
  return 0;
}
