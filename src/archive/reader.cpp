// The archive reader of a restore: the open, the stream read that a
// termination request can end, reads of whole blocks, the STOR callback
// that hands an entry's data over, and skipping data.
#include "archive/reader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "archive/ctar_format.h"
#include "archive/read_ahead.h"
#include "support/log.h"
#include "support/run_progress.h"
#include "support/sysio.h"
#include "support/termination.h"

// The module this file reports as in failure messages: the reader was part
// of the restore driver, and its messages stay as they were.
static constexpr const char* kModule = "restore.cpp";

namespace {

constexpr int64_t Block = static_cast<int64_t>(CtarBlockSize);

// How messages name the archive: the path it was opened under.
const char* ArchiveShownName = "-";

// The archive when it is a pipe or another stream rather than a file:
// -1 otherwise.
int StreamDescriptor = -1;

// Scratch page for skipping on a pipe; mapped on first need and kept, so
// that its reads stay aligned for direct I/O.
char* ScratchPage = nullptr;

// One read of the archive. A stream is waited for beside the termination
// wake-up: a request must not be held up by a writer that stalls. After a
// request a stream gets the grace to bring more data; one that brings
// nothing in that time is given up (errno ECANCELED).
ssize_t ReadArchive(int descriptor, void* buffer, size_t length) {
  static bool given_up = false;  // once given up, the stream is not waited for again
  while (descriptor >= 0 && descriptor == StreamDescriptor) {
    if (given_up) {
      errno = ECANCELED;
      return -1;
    }
    // Before the request the wait watches the wake-up too and has no
    // bound; after it, it watches the stream alone for the grace.
    const int ready = WaitReadableOrWoken(descriptor, TerminationGraceMs);
    if (ready < 0) return -1;
    if (ready == WaitReadable) break;
    if (ready == WaitGraceOver) {
      given_up = true;
      errno = ECANCELED;
      return -1;
    }
    // Woken by a request: wait again, now within the grace.
  }
  return ReadSome(descriptor, buffer, length);
}

// Reads through count bytes of a stream, a page at a time. Every read is
// one of ReadArchive, so that a stalled writer cannot hold up a
// termination request. 0, or -1 after a message.
int ReadThrough(int descriptor, int64_t count) {
  const int page = getpagesize();
  if (!ScratchPage) {
    void* mapped =
        mmap(nullptr, static_cast<size_t>(page), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) {
      VFAIL("mmap(, %d,, MAP_ANONYMOUS): %s\n", page, strerror(errno));
      return -1;
    }
    ScratchPage = static_cast<char*>(mapped);
  }
  int64_t remaining = count;
  while (remaining > 0) {
    const int length = static_cast<int>(std::min<int64_t>(page, remaining));
    const ssize_t got = ReadArchive(descriptor, ScratchPage, static_cast<size_t>(length));
    if (got < 0) VFAIL("read(list, %d): %s\n", length, strerror(errno));
    if (got <= 0) {
      VFAIL("didn't finish consuming 0x%llX bytes\n", static_cast<unsigned long long>(remaining));
      return -1;
    }
    remaining -= got;
  }
  return 0;
}

}  // namespace

int64_t WholeBlocks(int64_t count) {
  if (count <= 0) return 0;
  if (static_cast<uint64_t>(count) > CtarLargestSize) return -1;
  return (count + Block - 1) / Block * Block;
}

// The archive is read with direct I/O: a restore streams gigabytes once,
// and they need not pass through the page cache.
int OpenArchive(const char* path) {
  int descriptor = 0;
  if (strcmp(path, "-") != 0) {
    descriptor = OpenFile(path, O_RDONLY | O_DIRECT);
    // Some file systems refuse direct I/O; the archive must be restorable
    // from wherever it lies, so read it the ordinary way there.
    if (descriptor < 0 && errno == EINVAL) descriptor = OpenFile(path, O_RDONLY);
    if (descriptor < 0) {
      VFAIL("open(%s): %s\n", path, strerror(errno));
      return -1;
    }
  }
  ArchiveShownName = path;
  struct stat st{};
  StreamDescriptor = fstat(descriptor, &st) == 0 && S_ISREG(st.st_mode) ? -1 : descriptor;
  return descriptor;
}

// Not sysio's ReadFull: every read of a stream is waited for beside the
// termination wake-up, and bytes that came before a failure still count.
ssize_t ReadArchiveFully(int descriptor, void* buffer, size_t length) {
  auto* at = static_cast<char*>(buffer);
  size_t got = 0;
  while (got < length) {
    const ssize_t n = ReadArchive(descriptor, at + got, length - got);
    if (n < 0) return got > 0 ? static_cast<ssize_t>(got) : -1;
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

int ArchiveReadCallback(void* argument, char* buffer, int* count, const char** bytes) {
  auto* reader = static_cast<ArchiveReader*>(argument);
  if (!reader || !buffer || !count || !bytes) {
    VFAIL("bad argument\n");
    return -1;
  }
  if (reader->left <= 0) {
    *count = 0;  // end of data
    return 0;
  }
  // The last data block carries the entry's padding along: the read stays a
  // whole number of blocks, which direct I/O needs and which leaves the
  // archive at the next header.
  const int64_t room = *count / Block * Block;
  const int64_t length = WholeBlocks(std::min(reader->left, room));
  if (length <= 0) {
    VFAIL("bad argument\n");  // a buffer smaller than one block
    return -1;
  }
  ReadAhead& ahead = SharedReadAhead();
  if (ahead.Serves(reader) && room != ReadAhead::Step) ahead.Stop();
  ssize_t got = -1;
  if (reader->calls == 0 ? ahead.Start(reader, room) : ahead.Serves(reader)) got = ahead.Take(bytes);
  if (got < 0) {
    *bytes = buffer;
    got = ReadArchiveFully(reader->descriptor, buffer, static_cast<size_t>(length));
  }
  if (got < 0) {
    VFAIL("read(%s,, %d): %s\n", ArchiveShownName, static_cast<int>(length), strerror(errno));
    return -1;
  }
  // The padding is read but never sent.
  *count = static_cast<int>(std::min<int64_t>(got, reader->left));
  reader->calls++;
  reader->left -= got;
  ProgressBytes(static_cast<uint64_t>(got));
  return 0;
}

void StopReadingAhead() { SharedReadAhead().Stop(); }

int SkipArchiveData(int descriptor, int64_t count) {
  const int64_t rounded = WholeBlocks(count);
  if (rounded == 0) return 0;
  if (rounded < 0) {
    VFAIL("bad file size 0x%llX\n", static_cast<unsigned long long>(count));
    return -1;
  }
  errno = 0;
  if (SeekTo(descriptor, rounded, SEEK_CUR) != -1 || errno == 0) return 0;
  // Standard input is usually a pipe, which cannot seek: read through it.
  if (errno != ESPIPE)
    VFAIL("lseek64(, 0x%llX,, SEEK_CUR): %s\n", static_cast<unsigned long long>(rounded),
          strerror(errno));
  return ReadThrough(descriptor, rounded);
}
