// The archive ctar reads: opening it (a file, a device or standard input),
// reads at a place and in order, and moving an entry's data on: skipped,
// copied out as it is, or passed through with its padding checked.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "archive/ctar_format.h"
#include "support/sysio.h"

namespace ctar {

struct EntryView;

constexpr uint64_t Block = CtarBlockSize;
// Data moves in pieces of this size; it bounds memory, not the archive.
constexpr size_t ChunkSize = 1 << 20;

struct Archive {
  const char* shown = "";  // how messages name it
  const char* command = "";  // the ctar command reading it, for the hints of messages
  int fd = -1;
  UniqueFd owned;           // empty for standard input
  bool seekable = false;    // a file (or device) of known size
  uint64_t base = 0;        // where the archive starts in the descriptor
  uint64_t size = 0;        // bytes from base to the end, when seekable
  uint64_t position = 0;    // the sequential reader's place, from base
};

// Opens the archive at path ("-": standard input) for command and learns
// whether it can seek in it and how large it is. A status, after a complaint
// when it is not StatusWhole.
int OpenArchive(const char* path, const char* command, Archive* archive);

// The same for salvage, which reads the archive out of order (looking ahead
// behind a candidate header, and again to copy what it found): a pipe
// cannot do that, and is refused with StatusUsage.
int OpenSeekableArchive(const char* path, const char* command, Archive* archive);

// Reads at offset (from the archive's start) in a seekable archive, leaving
// its position alone: the bytes read, fewer only at the end, or -1 (errno
// set).
ssize_t ReadArchiveAt(const Archive& archive, void* buffer, size_t length, uint64_t offset);

// Writes all of length bytes: false (errno set) when they did not all go
// out; a write that took nothing counts as EIO.
bool WriteAllBytes(int fd, const void* buffer, size_t length);

// What moving an entry's data can end in.
enum DataResult { DataDone = 0, DataEnded = 1, DataReadFailed = -1, DataWriteFailed = -2 };

// Moves the sequential reader past count bytes: a seek in a file, which
// never touches the data, or reading through a pipe.
int SkipData(Archive& archive, uint64_t count);
// Copies count bytes from the sequential reader to out; with out -1 they
// are read and dropped.
int CopyData(Archive& archive, uint64_t count, int out);
// Reads an entry's data (whole blocks, padding included) at its place and,
// when out is given (not -1), writes it there with the padding made zero.
// Reports a padding that is not zero through *clean.
int PassData(const Archive& archive, const EntryView& view, int out, bool* clean);

}  // namespace ctar
