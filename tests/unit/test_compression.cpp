// Recognising a compressed archive by its first bytes, and never taking a
// CTAR archive for one.
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "archive/compression.h"
#include "archive/ctar_format.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes Of(const std::string& text) { return Bytes(text.begin(), text.end()); }

// A block of zeros that starts with the given bytes: no CTAR header.
Bytes Block(const std::string& start) {
  Bytes block(CtarBlockSize, 0);
  memcpy(block.data(), start.data(), start.size());
  return block;
}

// The first block of a CTAR archive whose first entry has this name.
Bytes EntryHeader(const std::string& name) {
  Bytes block(CtarBlockSize, 0);
  struct tm when{};
  when.tm_year = 124;
  when.tm_mday = 1;
  BuildCtarHeader(block.data(), name.c_str(), 1000, 0100644, when);
  return block;
}

std::string Judge(const Bytes& bytes) {
  const Compression* found = CompressedArchive(bytes.data(), bytes.size());
  return found ? found->name : "none";
}

TEST(CompressedArchive, TellsEachCompressionByItsMagicNumber) {
  const std::string xz("\xfd" "7zXZ\0", 6);
  const struct {
    Bytes bytes;
    const char* expected;
  } cases[] = {
      // The shortest input that carries each magic number.
      {Of("\x1f\x8b"), "gzip"},
      {Of("BZh9"), "bzip2"},
      {Of(xz), "xz"},
      {Of("\x28\xb5\x2f\xfd"), "zstd"},
      // The same at the start of a whole block, as a longer file gives it.
      {Block("\x1f\x8b\x08"), "gzip"},
      {Block("BZh1"), "bzip2"},
      {Block(xz + "\x04"), "xz"},
      {Block("\x28\xb5\x2f\xfd\x24"), "zstd"},
      // Short inputs, 0 to 5 bytes, that hold no whole magic number.
      {Of(""), "none"},
      {Of("\x1f"), "none"},
      {Of("BZ"), "none"},
      {Of("BZh"), "none"},  // the block size digit is missing
      {Of("\x28\xb5\x2f"), "none"},
      {Of(xz.substr(0, 5)), "none"},
      // Near misses.
      {Of("\x8b\x1f"), "none"},
      {Of("BZh0"), "none"},
      {Of("BZhx"), "none"},
      {Of("bZh9"), "none"},
      {Of(std::string("\xfd" "7zXZ\1", 6)), "none"},
      {Of("\xfd\x2f\xb5\x28"), "none"},  // zstd's bytes in the wrong order
      {Block("/QSYS.LIB"), "none"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Judge(c.bytes), c.expected)
        << std::string(c.bytes.begin(), c.bytes.end()) << " (" << c.bytes.size() << " bytes)";
  }
}

TEST(CompressedArchive, NeverTakesACtarArchiveForOne) {
  // An entry header starts with the entry's name, which may begin like any
  // magic number; the header as a whole decides.
  const struct {
    std::string name;
    const char* alone;  // what the header's first bytes alone would say
  } cases[] = {
      {"BZh91AY&SY", "bzip2"},
      {"\x1f\x8b/QDLS", "gzip"},
      {"\x28\xb5\x2f\xfd/home", "zstd"},
      {"/QSYS.LIB/PAYROLL.LIB", "none"},
  };
  for (const auto& c : cases) {
    const Bytes header = EntryHeader(c.name);
    ASSERT_TRUE(CtarArchiveStart(header.data())) << c.name;
    EXPECT_EQ(Judge(Bytes(header.begin(), header.begin() + 8)), c.alone) << c.name;
    EXPECT_EQ(Judge(header), "none") << c.name;
    // The same block with its checksum broken is no archive start: the magic
    // number counts again.
    Bytes broken = header;
    broken[148] ^= 1;
    EXPECT_EQ(Judge(broken), c.alone) << c.name;
  }
  unsigned char sentinel[CtarBlockSize];
  BuildCtarSentinel(sentinel);
  EXPECT_EQ(CompressedArchive(sentinel, sizeof sentinel), nullptr);
}

TEST(CompressedArchive, NamesTheToolThatUndoesIt) {
  const struct {
    Bytes bytes;
    const char* command;
  } cases[] = {
      {Of("\x1f\x8b"), "gzip -dc"},
      {Of("BZh5"), "bzip2 -dc"},
      {Of(std::string("\xfd" "7zXZ\0", 6)), "xz -dc"},
      {Of("\x28\xb5\x2f\xfd"), "zstd -dc"},
  };
  for (const auto& c : cases) {
    const Compression* found = CompressedArchive(c.bytes.data(), c.bytes.size());
    ASSERT_NE(found, nullptr) << c.command;
    EXPECT_STREQ(found->decompress, c.command);
  }
}

}  // namespace
