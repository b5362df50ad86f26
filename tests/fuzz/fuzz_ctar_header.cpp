// Fuzzes the reading of CTAR header blocks: ReadCtarHeader, the restore's
// check of every block it meets, and ReadCtarName, the reassembly of a name
// from its five pieces.
//
// Input: the 512-byte block (a shorter input is padded with zero bytes),
// then one byte that sizes the caller's name buffers (1 to 256 bytes).
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "archive/ctar_format.h"
#include "fuzz_common.h"

namespace {

constexpr size_t ChecksumAt = 148;
constexpr size_t ChecksumWidth = 8;

char* NewBuffer(size_t size) {
  auto* buffer = static_cast<char*>(malloc(size));
  if (!buffer) abort();
  memset(buffer, 0x7F, size);
  return buffer;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceProgramLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The block on the heap at its exact size, so that reading past it is
  // caught.
  auto* block = static_cast<unsigned char*>(calloc(1, CtarBlockSize));
  if (!block) abort();
  memcpy(block, data, size < CtarBlockSize ? size : CtarBlockSize);
  size_t small = size > CtarBlockSize ? static_cast<size_t>(data[CtarBlockSize]) + 1 : 100;

  // The name as a whole, the suffix not yet removed.
  char* full = NewBuffer(CtarBlockSize);
  int taken = ReadCtarName(full, CtarBlockSize, block);
  FUZZ_CHECK(taken >= 0 && taken <= 100);
  FUZZ_CHECK(memchr(full, '\0', CtarBlockSize) != nullptr);
  size_t full_length = strlen(full);
  FUZZ_CHECK(full_length <= CtarMaxName);
  FUZZ_CHECK(static_cast<size_t>(taken) <= full_length);

  // A smaller buffer gets a cut copy of the same name and the same count.
  char* cut = NewBuffer(small);
  FUZZ_CHECK(ReadCtarName(cut, small, block) == taken);
  FUZZ_CHECK(memchr(cut, '\0', small) != nullptr);
  size_t cut_length = strlen(cut);
  FUZZ_CHECK(cut_length == (full_length < small - 1 ? full_length : small - 1));
  FUZZ_CHECK(memcmp(cut, full, cut_length) == 0);

  uint64_t entry_size = 0;
  char* name = NewBuffer(small);
  int result = ReadCtarHeader(block, &entry_size, name, small);
  FUZZ_CHECK(result == CtarEntry || result == CtarEnd || result == CtarBadChecksum ||
             result == CtarBadSize);
  uint64_t again = 0;
  FUZZ_CHECK(ReadCtarHeader(block, &again, nullptr, 0) == result);

  if (result == CtarEnd) {
    // Only the sentinel ends an archive: everything but the checksum is zero.
    for (size_t i = 0; i < CtarBlockSize; i++)
      if (i < ChecksumAt || i >= ChecksumAt + ChecksumWidth) FUZZ_CHECK(block[i] == 0);
  }
  if (result == CtarEntry) {
    FUZZ_CHECK(again == entry_size);
    FUZZ_CHECK(memchr(name, '\0', small) != nullptr);
    // The name handed over is the stored one, without the ".savf" that ends
    // the name of a whole directory (a mode with 040000), cut to the buffer.
    char mode_text[9] = {};
    memcpy(mode_text, block + 100, 8);
    char* stop = nullptr;
    const unsigned long mode = strtoul(mode_text, &stop, 8);
    std::string expected(full);
    const std::string suffix(CtarDirectorySuffix);
    if (stop != mode_text && (mode & 040000) && expected.size() >= suffix.size() &&
        expected.compare(expected.size() - suffix.size(), suffix.size(), suffix) == 0)
      expected.resize(expected.size() - suffix.size());
    FUZZ_CHECK(expected.substr(0, small - 1) == name);

    // Writing what was read gives a header that reads back the same: the
    // writer and the reader agree on every name length and size encoding.
    char* whole = NewBuffer(CtarBlockSize);
    FUZZ_CHECK(ReadCtarHeader(block, nullptr, whole, CtarBlockSize) == CtarEntry);
    unsigned char* rebuilt = static_cast<unsigned char*>(calloc(1, CtarBlockSize));
    if (!rebuilt) abort();
    struct tm when{};
    when.tm_year = 109;
    when.tm_mday = 2;
    when.tm_isdst = -1;
    BuildCtarHeader(rebuilt, whole, entry_size, S_IFREG | 0644, when);
    uint64_t read_size = 0;
    char* read_name = NewBuffer(CtarBlockSize);
    FUZZ_CHECK(ReadCtarHeader(rebuilt, &read_size, read_name, CtarBlockSize) == CtarEntry);
    FUZZ_CHECK(read_size == entry_size);
    FUZZ_CHECK(strcmp(read_name, whole) == 0);
    free(read_name);
    free(rebuilt);
    free(whole);
  }

  free(name);
  free(cut);
  free(full);
  free(block);
  return 0;
}
