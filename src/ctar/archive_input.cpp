// ctar's input archive: the open, reads at a place, and the moves of an
// entry's data (skip, copy, pass through), all through the system-call
// layer.
#include "ctar/archive_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "ctar/entry_view.h"
#include "ctar/messages.h"
#include "ctar/progress.h"
#include "ctar/status.h"

static_assert(sizeof(off_t) == 8, "archives exceed 2 GiB; off_t must be 64 bits");

namespace ctar {

namespace {

// Where the archive starts in its descriptor and how much of it there is,
// for a file or a block device; anything else is read in order only.
void MeasureArchive(const struct stat& st, Archive* archive) {
  const int64_t here = CurrentOffset(archive->fd);
  if (here >= 0 && S_ISREG(st.st_mode)) {
    archive->seekable = true;
    archive->base = static_cast<uint64_t>(here);
    archive->size = st.st_size > here ? static_cast<uint64_t>(st.st_size - here) : 0;
  } else if (here >= 0 && S_ISBLK(st.st_mode)) {
    const int64_t end = SeekTo(archive->fd, 0, SEEK_END);
    if (end >= here && SeekTo(archive->fd, here, SEEK_SET) == here) {
      archive->seekable = true;
      archive->base = static_cast<uint64_t>(here);
      archive->size = static_cast<uint64_t>(end - here);
    }
  }
}

}  // namespace

int OpenArchive(const char* path, const char* command, Archive* archive) {
  archive->command = command;
  if (strcmp(path, "-") == 0) {
    archive->fd = STDIN_FILENO;
    archive->shown = "standard input";
  } else {
    archive->shown = path;
    int fd = OpenFile(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      Complain("%s: cannot open: %s", path, strerror(errno));
      return StatusUnreadable;
    }
    archive->owned.Reset(fd);
    archive->fd = fd;
  }
  struct stat st{};
  if (fstat(archive->fd, &st) != 0) {
    Complain("%s: cannot examine: %s", archive->shown, strerror(errno));
    return StatusUnreadable;
  }
  if (S_ISDIR(st.st_mode)) {
    Complain("%s: is a directory, not a CTAR archive", archive->shown);
    return StatusNotArchive;
  }
  MeasureArchive(st, archive);
  return StatusWhole;
}

int OpenSeekableArchive(const char* path, const char* command, Archive* archive) {
  const int status = OpenArchive(path, command, archive);
  if (status != StatusWhole || archive->seekable) return status;
  Complain("%s: %s needs an archive it can seek in; save the stream to a file first",
           archive->shown, command);
  return StatusUsage;
}

ssize_t ReadArchiveAt(const Archive& archive, void* buffer, size_t length, uint64_t offset) {
  return PreadFull(archive.fd, buffer, length, static_cast<int64_t>(archive.base + offset));
}

bool WriteAllBytes(int fd, const void* buffer, size_t length) {
  const ssize_t written = WriteFull(fd, buffer, length);
  if (written == static_cast<ssize_t>(length)) return true;
  // A write that took nothing (the layer says ENOSPC) has always been
  // reported here as an input/output error.
  if (written >= 0) errno = EIO;
  return false;
}

int SkipData(Archive& archive, uint64_t count) {
  if (archive.seekable) {
    uint64_t room = archive.size > archive.position ? archive.size - archive.position : 0;
    uint64_t step = std::min(count, room);
    if (SeekTo(archive.fd, static_cast<int64_t>(step), SEEK_CUR) < 0) return DataReadFailed;
    archive.position += step;
    return step < count ? DataEnded : DataDone;
  }
  return CopyData(archive, count, -1);
}

int CopyData(Archive& archive, uint64_t count, int out) {
  static std::vector<unsigned char> buffer(ChunkSize);
  while (count > 0) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(count, buffer.size()));
    ssize_t got = ReadFull(archive.fd, buffer.data(), want);
    if (got < 0) return DataReadFailed;
    archive.position += static_cast<uint64_t>(got);
    if (out >= 0 && !WriteAllBytes(out, buffer.data(), static_cast<size_t>(got))) return DataWriteFailed;
    count -= static_cast<uint64_t>(got);
    CurrentProgress.Update(archive.position);
    if (static_cast<size_t>(got) < want) return DataEnded;
  }
  return DataDone;
}

int PassData(const Archive& archive, const EntryView& view, int out, bool* clean) {
  static std::vector<unsigned char> buffer(ChunkSize);
  const uint64_t start = view.offset + Block;
  const uint64_t padded = CtarPaddedSize(view.size);
  *clean = true;
  for (uint64_t done = 0; done < padded;) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(buffer.size(), padded - done));
    ssize_t got = ReadArchiveAt(archive, buffer.data(), want, start + done);
    if (got < 0) return DataReadFailed;
    if (static_cast<size_t>(got) < want) return DataEnded;
    // The bytes of this piece that lie behind the data are padding.
    if (done + want > view.size) {
      size_t from = view.size > done ? static_cast<size_t>(view.size - done) : 0;
      for (size_t i = from; i < want; i++)
        if (buffer[i] != 0) {
          *clean = false;
          buffer[i] = 0;
        }
    }
    if (out >= 0 && !WriteAllBytes(out, buffer.data(), want)) return DataWriteFailed;
    done += want;
    CurrentProgress.Update(start + done);
  }
  return DataDone;
}

}  // namespace ctar
