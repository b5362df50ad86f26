// How a file that should be a CTAR archive reveals that it was compressed:
// the magic numbers at the start of gzip, bzip2, xz and zstd streams, and
// the tool that undoes each.
#pragma once

#include <cstddef>

struct Compression {
  const char* name;        // as the operator knows it: "gzip"
  const char* decompress;  // a command that writes the original to standard output
};

// The compression the first length bytes of a file (its first block, or all
// of it when shorter) show, or nullptr. A block that begins a CTAR archive
// is never taken for one, whatever its first bytes: an entry's name comes
// first in its header and may start like any magic number.
const Compression* CompressedArchive(const unsigned char* bytes, size_t length);
