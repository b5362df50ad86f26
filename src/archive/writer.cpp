// Appending to the archive: the write callback that gathers a retrieval's
// data into whole blocks, the space reserved ahead of a large entry, the
// end block, and the guard that holds the archive for one retrieval and
// cuts back whatever it did not close.
#include "archive/writer.h"

#include <cerrno>
#include <cstring>

#include "support/log.h"
#include "support/run_progress.h"
#include "support/sysio.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "backup.cpp";

std::mutex ArchiveLock;
std::atomic<bool> ArchiveBroken{false};
std::atomic<uint64_t> ArchiveEntries{0};

namespace {

// A large entry's space is reserved on the file system ahead of its data
// (fallocate, keeping the file's size): writing into reserved space costs
// the file system much less than allocating as the data comes, block by
// block. What is left beyond the end is given back when the entry is
// closed. Only space is reserved, never content written; where the file
// system cannot reserve, the data is written as it comes.
void ReserveAhead(ArchiveWriter* writer) {
  constexpr uint64_t First = 16 << 20;  // smaller entries never reserve
  constexpr int64_t Ahead = 64 << 20;
  if (writer->calls == 0) writer->reserve_at = First;  // a new entry
  if (writer->bytes < 0 || static_cast<uint64_t>(writer->bytes) < writer->reserve_at) return;
  const int64_t here = CurrentOffset(writer->descriptor);
  if (here < 0 || ReserveFileSpace(writer->descriptor, here, Ahead) != 0) {
    writer->reserve_at = UINT64_MAX;  // not here: as it comes
    return;
  }
  writer->reserved = 1;
  writer->reserve_at = static_cast<uint64_t>(writer->bytes) + Ahead / 2;
}

// Cutting a file to its own size frees what was reserved beyond its end.
void ReleaseReservedSpace(int descriptor) {
  const int64_t here = CurrentOffset(descriptor);
  const int64_t end = SeekTo(descriptor, 0, SEEK_END);
  if (end >= 0 && TruncateTo(descriptor, end) != 0) {
    // Only the reservation stays; the archive is whole.
  }
  if (here >= 0) SeekTo(descriptor, here, SEEK_SET);
}

// Adds the data's first bytes to the block being gathered and writes the
// block once it is whole. 0, or -1 after a message when the block could
// not be written: it is lost, so the transfer ends here and the entry is
// cut back, never closed with a hole in it.
int FillGatheredBlock(ArchiveWriter* writer, const char** at, int* count) {
  const size_t room = CtarBlockSize - static_cast<size_t>(writer->pending);
  const size_t take = static_cast<size_t>(*count) < room ? static_cast<size_t>(*count) : room;
  memcpy(writer->block + writer->pending, *at, take);
  *count -= static_cast<int>(take);
  *at += take;
  writer->pending += static_cast<int>(take);
  if (writer->pending < static_cast<int>(CtarBlockSize)) return 0;
  const ssize_t written = WriteGatheredBlock(writer);
  if (written != static_cast<ssize_t>(CtarBlockSize)) {
    VFAIL_GATHERED_BLOCK(written);
    return -1;
  }
  writer->bytes += static_cast<int64_t>(CtarBlockSize);
  writer->pending = 0;
  return 0;
}

// Whole blocks go out straight from the transfer buffer in one write. 0,
// or -1 after a message when not all of them did.
int WriteWholeBlocks(ArchiveWriter* writer, const char* at, size_t whole) {
  ReserveAhead(writer);
  ssize_t written = WriteFull(writer->descriptor, at, whole);
  if (written < 0) {
    VFAIL("write(, 0x%X, %d): %s\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(at)),
          static_cast<int>(written), strerror(errno));
    return -1;
  }
  if (written < static_cast<ssize_t>(whole)) {
    // The file took no more: the entry cannot be completed.
    VFAIL("write(,, %d) = %d\n", static_cast<int>(whole), static_cast<int>(written));
    return -1;
  }
  writer->bytes += written;
  return 0;
}

// One callback's data: first the waiting block is completed, then whole
// blocks are written, and what is left of a block waits for the next call.
// 1 when bytes were left unwritten.
int WriteData(ArchiveWriter* writer, const char* at, int* count) {
  if (*count <= 0) return 0;
  if (writer->pending > 0) {
    if (FillGatheredBlock(writer, &at, count) != 0) return 1;
    if (writer->pending > 0) return 0;  // all of the data went into the block
  }
  const size_t whole = static_cast<size_t>(*count) / CtarBlockSize * CtarBlockSize;
  if (whole > 0) {
    if (WriteWholeBlocks(writer, at, whole) != 0) return 1;
    *count -= static_cast<int>(whole);
    at += whole;
  }
  if (*count > 0) {
    memcpy(writer->block, at, static_cast<size_t>(*count));
    writer->pending = *count;
    *count = 0;
  }
  return 0;
}

}  // namespace

ArchiveAppend::ArchiveAppend(ArchiveWriter* writer) : hold_(ArchiveLock), writer_(writer) {
  if (ArchiveBroken) {
    VFAIL("the archive is broken: nothing more is appended\n");
    return;
  }
  // The archive ends with its end block; the entry's data goes behind it,
  // and the header replaces it once the entry is whole.
  start_ = SeekTo(writer->descriptor, 0, SEEK_END);
  if (start_ < 0) VFAIL("lseek(): %s\n", strerror(errno));
}

void ArchiveAppend::Commit() {
  committed_ = true;
  ArchiveEntries++;
}

bool ArchiveAppend::CutBack() {
  if (TruncateArchive(writer_->descriptor, start_) != 0) return false;
  if (!end_block_touched_ || start_ < static_cast<int64_t>(CtarBlockSize)) return true;
  // The header may have gone out in part: the old end block comes back.
  unsigned char block[CtarBlockSize];
  const int64_t end_block = start_ - static_cast<int64_t>(CtarBlockSize);
  if (PwriteFull(writer_->descriptor, BuildCtarSentinel(block), CtarBlockSize, end_block) ==
      static_cast<ssize_t>(CtarBlockSize))
    return true;
  VFAIL("write(): %s\n", strerror(errno));
  return false;
}

ArchiveAppend::~ArchiveAppend() {
  if (start_ >= 0 && !committed_) {
    if (!CutBack()) {
      VFAIL("the archive could not be cut back: nothing more is appended\n");
      ArchiveBroken = true;
    }
    writer_->bytes = 0;  // nothing of it is in the archive
  }
  writer_->pending = 0;
  ReleaseArchiveReserve(writer_);
}

void ReleaseArchiveReserve(ArchiveWriter* writer) {
  if (!writer || !writer->reserved) return;
  writer->reserved = 0;
  ReleaseReservedSpace(writer->descriptor);
}

int ArchiveWriteCallback(void* argument, char* buffer, int* count) {
  auto* writer = static_cast<ArchiveWriter*>(argument);
  if (!writer) {
    VFAIL("bad argument\n");
    return -1;
  }
  // Every call counts, an empty one too: a retrieval whose callback was
  // never called brought no data.
  const int given = *count;
  const int result = WriteData(writer, buffer, count);
  writer->calls++;
  if (result == 0 && given > 0) ProgressBytes(static_cast<uint64_t>(given));
  return result;
}

ssize_t WriteGatheredBlock(const ArchiveWriter* writer) {
  return WriteFull(writer->descriptor, writer->block, CtarBlockSize);
}

bool AppendEndBlock(int descriptor) {
  unsigned char block[CtarBlockSize];
  return WriteFull(descriptor, BuildCtarSentinel(block), CtarBlockSize) == static_cast<ssize_t>(CtarBlockSize);
}

int TruncateArchive(int descriptor, int64_t offset) {
  if (SeekTo(descriptor, offset, SEEK_SET) != offset) {
    VFAIL("lseek(): %s\n", strerror(errno));
    return -1;
  }
  if (TruncateTo(descriptor, offset) != 0) {
    VFAIL("ftruncate64(): %s\n", strerror(errno));
    return -1;
  }
  return 0;
}
