// Writing the archive: one retrieval at a time appends an entry's data
// behind the end block under the archive lock, and whatever is not closed
// whole is cut back. The entry's header is written by CloseEntry
// (archive/header_writer.h); the file itself is made and kept by
// archive/archive_file.h.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>

#include "archive/ctar_format.h"

// A worker's state for appending to the shared archive.
struct ArchiveWriter {
  int descriptor;  // the archive, opened once by the driver
  alignas(512) unsigned char storage[1024];  // the block being gathered (room for two)
  unsigned char* block;
  int pending;      // bytes waiting in the block, 0 to 511
  uint64_t objects;   // objects handed to the save dispatcher
  uint64_t failures;  // objects that could not be saved
  uint64_t calls;   // callback calls for the current object
  int64_t bytes;    // data bytes written for the current object; then its size
  uint64_t reserve_at;  // bytes at which file system space is next reserved ahead
  uint8_t reserved;     // space was reserved beyond the archive's end
  uint8_t partial;      // the current object's save left objects behind
};

// Serialises appends to the archive: one retrieval at a time, from its RETR
// until its entry is closed or cut back.
extern std::mutex ArchiveLock;

// Set when the archive could not be cut back after a failed retrieval: its
// end is no longer known to be whole, so nothing more is appended and the
// run fails.
extern std::atomic<bool> ArchiveBroken;
// Entries closed whole in this run's archive.
extern std::atomic<uint64_t> ArchiveEntries;

// One retrieval's hold on the archive. It takes ArchiveLock and finds the
// archive's end (just behind its end block); unless Commit() is called, its
// destructor cuts the archive back to that end, rewriting the old end block
// when the entry's header had begun to replace it, so the archive is what it
// was before the retrieval. The lock is released only after the cut-back,
// on every way out, including the exception of a lost control connection.
class ArchiveAppend {
 public:
  explicit ArchiveAppend(ArchiveWriter* writer);
  ~ArchiveAppend();
  ArchiveAppend(const ArchiveAppend&) = delete;
  ArchiveAppend& operator=(const ArchiveAppend&) = delete;
  // false when the archive's end could not be found or the archive is broken.
  bool Usable() const { return start_ >= 0; }
  ArchiveWriter* Writer() const { return writer_; }
  // Offset of the archive's end: the entry's data begins here.
  int64_t Start() const { return start_; }
  // The header is about to be written over the old end block.
  void TouchEndBlock() { end_block_touched_ = true; }
  // The entry is whole: nothing is cut back.
  void Commit();

 private:
  // Cuts the archive back to start_ and puts the old end block back where
  // the header touched it. false when the archive could not be made whole.
  bool CutBack();

  std::unique_lock<std::mutex> hold_;
  ArchiveWriter* writer_;
  int64_t start_ = -1;
  bool end_block_touched_ = false;
  bool committed_ = false;
};

// Receive-direction DataCallback of RETR: writes whole 512-byte blocks at
// the archive's end, straight from the transfer buffer where it can; keeps
// at most 511 bytes in the writer's block. 1 when bytes were left unwritten
// (which aborts the transfer), -1 without a writer.
int ArchiveWriteCallback(void* writer, char* buffer, int* count);
// Writes the writer's gathered block (whole, or padded by the caller) at
// the file position. What WriteFull gives: CtarBlockSize when all of it
// went out.
ssize_t WriteGatheredBlock(const ArchiveWriter* writer);
// Reports a gathered block that did not all go out, given what
// WriteGatheredBlock gave. A macro, so that the message names the module
// of the file that reports it: the writer and the closing of an entry
// report as different modules.
#define VFAIL_GATHERED_BLOCK(written)                       \
  ((written) < 0 ? VFAIL("write(): %s\n", strerror(errno))  \
                 : VFAIL("write(,, %d) = %d\n", static_cast<int>(CtarBlockSize), static_cast<int>(written)))
// Writes an end block at the descriptor's file position: true when all of
// it went out (errno tells why not otherwise).
bool AppendEndBlock(int descriptor);
// Cuts the archive back to offset and leaves the file position there.
int TruncateArchive(int descriptor, int64_t offset);
// Gives back the file system space that ArchiveWriteCallback reserved
// beyond the archive's end for a large entry; the file's content and size
// stay as they are, and so does its position.
void ReleaseArchiveReserve(ArchiveWriter* writer);
