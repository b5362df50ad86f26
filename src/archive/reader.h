// Reading a CTAR archive for a restore: opening it (direct I/O where the
// file system allows it), reads of whole blocks that a termination request
// can cut short while a stream stalls, handing an entry's data to an
// upload, and moving past data that is not wanted.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// Feeds one entry's data to STOR. Set up for every entry with calls 0 and
// left equal to size.
struct ArchiveReader {
  int descriptor;
  int calls;     // hand-overs so far
  int64_t left;  // data bytes not yet delivered; negative once the padding was read
  int64_t size;  // the entry's data size
};

// Whole blocks a count of bytes occupies; nothing for a count of 0 or less,
// -1 for a count beyond CtarLargestSize, whose rounding would overflow.
int64_t WholeBlocks(int64_t count);

// Opens the archive at path ("-" is standard input, which is taken as it
// is) and notes whether it is a stream, whose reads are then waited for
// beside the termination wake-up. Later messages of the reader name the
// archive by this path. The descriptor, or -1 after a message.
int OpenArchive(const char* path);

// Reads until length bytes are in, the archive ends or a read fails. A pipe
// may deliver a block in pieces; gathering them keeps every later read on a
// block boundary. Gives the bytes read, or -1 (errno set) when the very
// first read failed. On a stream, after a termination request, a writer
// that brings nothing within the grace is given up (errno ECANCELED).
ssize_t ReadArchiveFully(int descriptor, void* buffer, size_t length);

// The SendCallback of STOR. Reads whole 512-byte blocks (the entry's
// padding comes with its last data, which keeps the archive on a block
// boundary) and hands over at most `left` bytes: in the buffer, or, from
// the read-ahead, where they were read (*bytes then points there).
int ArchiveReadCallback(void* reader, char* buffer, int* count, const char** bytes);

// Ends the read-ahead of the current entry once its reads in flight are
// back: whatever became of the upload, the archive can then move on.
void StopReadingAhead();

// Moves the archive past count bytes rounded up to whole blocks: a seek, or
// on a pipe a read through a scratch page. A count of 0 or less skips
// nothing. 0, or -1 when the archive ended first or could not be read.
int SkipArchiveData(int descriptor, int64_t count);
