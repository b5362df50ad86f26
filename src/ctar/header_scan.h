// Judging header blocks anywhere in a seekable archive, and the scan for
// the next genuine entry header behind a place where a restore stops.
#pragma once

#include <cstddef>
#include <cstdint>

#include "archive/ctar_format.h"
#include "ctar/archive_input.h"

namespace ctar {

// Whether the first block makes the file a CTAR archive; a restore asks the
// same question before it logs in.
inline bool LooksLikeArchiveStart(int, const unsigned char* block) { return CtarArchiveStart(block); }

// Says why an archive whose first got bytes (its first block, or all of it
// when shorter) begin no CTAR archive is none: empty, compressed (with the
// command that decompresses it for the command in use), too short, or no
// header. StatusNotArchive.
int RefuseArchiveStart(const Archive& archive, const unsigned char* bytes, size_t got);

// What JudgeAt gives besides ReadCtarHeader's verdicts.
enum { JudgeReadFailed = -100, JudgeBeyondEnd = -101 };

// Reads the block at offset into block and judges it as ReadCtarHeader
// does (size and name as there); JudgeReadFailed (errno set), or
// JudgeBeyondEnd when no whole block lies there.
int JudgeAt(const Archive& archive, uint64_t offset, uint64_t* size, char* name,
            size_t name_size, unsigned char* block);

// Looks block by block from `from` for the next entry header whose chain
// holds: its data lies inside the file and behind it comes another genuine
// header, the sentinel, or the end of the file. 0 found (at *found), 1 none
// up to the end, -1 read error.
int ScanForHeader(const Archive& archive, uint64_t from, uint64_t* found);

}  // namespace ctar
