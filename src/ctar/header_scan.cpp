// Judging header blocks at any offset of a seekable archive, the first
// block of any archive, and scanning for the entry headers that lie hidden
// behind a damaged place.
#include "ctar/header_scan.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "archive/compression.h"
#include "ctar/messages.h"
#include "ctar/progress.h"
#include "ctar/status.h"

namespace ctar {

int RefuseArchiveStart(const Archive& archive, const unsigned char* bytes, size_t got) {
  if (got == 0) {
    Complain("%s: empty, not a CTAR archive", archive.shown);
    return StatusNotArchive;
  }
  if (const Compression* compression = CompressedArchive(bytes, got)) {
    // The way out decompresses the archive as it was given; standard input
    // is fed through the tool instead. Salvage needs a file of it.
    const std::string source = archive.owned.Get() >= 0
                                   ? std::string(compression->decompress) + " " + archive.shown
                                   : std::string("... | ") + compression->decompress;
    if (strcmp(archive.command, "salvage") == 0)
      Complain("%s: compressed with %s; decompress it first: %s > FILE && ctar salvage FILE OUT",
               archive.shown, compression->name, source.c_str());
    else
      Complain("%s: compressed with %s; decompress it first: %s | ctar %s -", archive.shown,
               compression->name, source.c_str(), archive.command);
    return StatusNotArchive;
  }
  if (got < Block) {
    Complain("%s: only %zu bytes, not a CTAR archive", archive.shown, got);
    return StatusNotArchive;
  }
  Complain("%s: not a CTAR archive: its first block is no CTAR header", archive.shown);
  return StatusNotArchive;
}

int JudgeAt(const Archive& archive, uint64_t offset, uint64_t* size, char* name,
            size_t name_size, unsigned char* block) {
  if (offset + Block > archive.size) return JudgeBeyondEnd;
  ssize_t got = ReadArchiveAt(archive, block, Block, offset);
  if (got < 0) return JudgeReadFailed;
  if (static_cast<uint64_t>(got) < Block) return JudgeBeyondEnd;
  return ReadCtarHeader(block, size, name, name_size);
}

namespace {

// Whether a block is an entry header as the backup writes them: the reader
// accepts it and every field it ignores holds what the writer puts there.
// Save-file data can hold blocks whose checksum holds (the header of a tar
// member, for one); these fields tell them apart.
bool GenuineEntry(const unsigned char* block, uint64_t* size) {
  return ReadCtarHeader(block, size, nullptr, 0) == CtarEntry && !CtarHeaderOddity(block);
}

// Whether a genuine entry header at offset, with this data size, fits the
// archive: its data lies inside the file and behind it comes another genuine
// header, the sentinel, or the end of the file. 1 yes, 0 no, -1 read error.
int ChainHolds(const Archive& archive, uint64_t offset, uint64_t size) {
  if (size > CtarLargestSize) return 0;
  const uint64_t next = offset + Block + CtarPaddedSize(size);
  if (next > archive.size) return 0;
  if (next == archive.size) return 1;
  unsigned char block[CtarBlockSize];
  uint64_t ignored = 0;
  int judged = JudgeAt(archive, next, &ignored, nullptr, 0, block);
  if (judged == JudgeReadFailed) return -1;
  return judged == CtarEnd || (judged == CtarEntry && !CtarHeaderOddity(block)) ? 1 : 0;
}

}  // namespace

int ScanForHeader(const Archive& archive, uint64_t from, uint64_t* found) {
  static std::vector<unsigned char> buffer(ChunkSize);
  uint64_t at = from;
  while (at + Block <= archive.size) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(buffer.size(),
                                                         (archive.size - at) / Block * Block));
    ssize_t got = ReadArchiveAt(archive, buffer.data(), want, at);
    if (got < 0) return -1;
    if (static_cast<uint64_t>(got) < Block) break;  // the file shrank under us
    const size_t whole = static_cast<size_t>(got) / Block * Block;
    for (size_t i = 0; i < whole; i += Block) {
      uint64_t size = 0;
      if (!GenuineEntry(buffer.data() + i, &size)) continue;
      int holds = ChainHolds(archive, at + i, size);
      if (holds < 0) return -1;
      if (holds > 0) {
        *found = at + i;
        return 0;
      }
    }
    at += whole;
    CurrentProgress.Update(at);
  }
  return 1;
}

}  // namespace ctar
