// Telling a compressed file from a CTAR archive by its first bytes.
#include "archive/compression.h"

#include <cstring>

#include "archive/ctar_format.h"

namespace {

struct Magic {
  Compression compression;
  const char* bytes;
  size_t length;
  // bzip2 follows its "BZh" with the block size, '1' to '9'; a file that
  // only starts "BZh" is not taken for one.
  bool size_digit;
};

const Magic Magics[] = {
    {{"gzip", "gzip -dc"}, "\x1f\x8b", 2, false},
    {{"bzip2", "bzip2 -dc"}, "BZh", 3, true},
    {{"xz", "xz -dc"}, "\xfd" "7zXZ\0", 6, false},
    {{"zstd", "zstd -dc"}, "\x28\xb5\x2f\xfd", 4, false},
};

}  // namespace

const Compression* CompressedArchive(const unsigned char* bytes, size_t length) {
  if (length >= CtarBlockSize && CtarArchiveStart(bytes)) return nullptr;
  for (const Magic& magic : Magics) {
    const size_t needed = magic.length + (magic.size_digit ? 1 : 0);
    if (length < needed || memcmp(bytes, magic.bytes, magic.length) != 0) continue;
    if (magic.size_digit && (bytes[magic.length] < '1' || bytes[magic.length] > '9')) continue;
    return &magic.compression;
  }
  return nullptr;
}
