// CTAR archive format: checksum arithmetic, the sentinel, both size
// encodings, the five-piece name layout and the reader's header check.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "archive/ctar_format.h"
#include "archive/reader.h"
#include "test_helpers.h"

namespace {

using Block = std::vector<unsigned char>;

Block Zeros() { return Block(CtarBlockSize, 0); }

std::string Bytes(const Block& block, size_t offset, size_t width) {
  return std::string(reinterpret_cast<const char*>(block.data()) + offset, width);
}

void Put(Block& block, size_t offset, const std::string& bytes) {
  memcpy(block.data() + offset, bytes.data(), bytes.size());
}

// A fresh checksum after a test changed a header on purpose.
void Reseal(Block& block) {
  char field[8];
  snprintf(field, sizeof field, "%07o", static_cast<unsigned>(HeaderChecksum(block.data())));
  memcpy(block.data() + 148, field, 8);
}

Block Header(const std::string& path, uint64_t size = 1, uint32_t mode = 0100644) {
  time_t seconds = 1700000000;
  struct tm local{};
  localtime_r(&seconds, &local);
  Block block(CtarBlockSize, 0xAA);  // building must clear what was there
  EXPECT_EQ(BuildCtarHeader(block.data(), path.c_str(), size, mode, local), block.data());
  return block;
}

std::string StoredName(const Block& block) {
  char name[CtarBlockSize];
  ReadCtarName(name, sizeof name, block.data());
  return name;
}

struct Entry {
  int result;
  uint64_t size;
  std::string name;
};

Entry Check(const Block& block) {
  Entry entry{0, 0, ""};
  char name[CtarBlockSize] = "";
  entry.result = ReadCtarHeader(block.data(), &entry.size, name, sizeof name);
  entry.name = name;
  return entry;
}

// Characters differ at every piece boundary, so a piece stored at a wrong
// offset cannot round-trip.
std::string NameOfLength(size_t length) {
  static const char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-+";
  std::string name = "/";
  for (size_t i = 1; i < length; i++) name += kChars[(i * 7 + i / 61) % 65];
  return name;
}

TEST(CtarChecksum, BytesAreSignedAndTheFieldCountsAsSpaces) {
  Block block = Zeros();
  EXPECT_EQ(HeaderChecksum(block.data()), 256);
  block[0] = 0xE9;
  EXPECT_EQ(HeaderChecksum(block.data()), 256 - 23);
  Put(block, 148, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF");  // ignored: eight spaces
  block[511] = 0x7F;
  EXPECT_EQ(HeaderChecksum(block.data()), 256 - 23 + 127);
  Block low = Zeros();
  for (int i = 0; i < 10; i++) low[i] = 0x80;
  EXPECT_EQ(HeaderChecksum(low.data()), 65536 + 256 - 1280);  // wraps below zero
}

TEST(CtarChecksum, TheReaderWantsDigitsEndedByANulInsideTheField) {
  Block flipped = Header("/home/file");
  ASSERT_EQ(Check(flipped).result, CtarEntry);
  flipped[300] = 'A';
  EXPECT_EQ(Check(flipped).result, CtarBadChecksum);

  for (const char* field : {"0000400 ", "00000400"}) {  // no NUL before offset 156
    Block block = Zeros();
    Put(block, 148, field);
    EXPECT_EQ(Check(block).result, CtarBadChecksum) << field;
  }
  Block short_field = Zeros();
  Put(short_field, 148, "400");
  EXPECT_EQ(Check(short_field).result, CtarEnd);
  // An all-zero block is no end marker: its field holds no digits.
  EXPECT_EQ(Check(Zeros()).result, CtarBadChecksum);
}

TEST(CtarSentinel, IsZerosWithTheChecksumOfAnEmptyBlock) {
  Block block(CtarBlockSize, 0xAA);
  EXPECT_EQ(BuildCtarSentinel(block.data()), block.data());
  Block expected = Zeros();
  Put(expected, 148, std::string("0000400\0", 8));
  EXPECT_EQ(block, expected);
  EXPECT_EQ(Check(block).result, CtarEnd);

  // Checksum 256 with a non-zero byte is an ordinary header: '0' (+48) in
  // the size field is balanced here by 0xD0 (-48).
  block[124] = '0';
  block[0] = 0xD0;
  ASSERT_EQ(HeaderChecksum(block.data()), 256);
  EXPECT_EQ(Check(block).result, CtarEntry);
}

TEST(CtarSize, OctalUpToTheLimitAndBase64Above) {
  const struct {
    uint64_t size;
    std::string field;
  } cases[] = {{2147483647, std::string("17777777777\0", 12)},
               {2147483648u, "#.....0....."},
               {UINT64_MAX, "#zzzzzzzzzzD"}};
  for (const auto& c : cases) {
    Block block = Header("/f", c.size);
    EXPECT_EQ(Bytes(block, 124, 12), c.field);
    EXPECT_EQ(Bytes(block, 265, 12), c.field);
    Entry entry = Check(block);
    EXPECT_EQ(entry.result, CtarEntry);
    EXPECT_EQ(entry.size, c.size);
  }
  for (uint64_t size : {0ull, 1000ull, (1ull << 40) + 12345, 1ull << 63})
    EXPECT_EQ(Check(Header("/f", size)).size, size);
}

// Rounding up to blocks near 2^63: up to CtarLargestSize (2^63 - 512) the
// result is a whole number of blocks that a signed 64-bit count still
// holds; beyond it the size is refused (more than any archive holds, or -1)
// instead of overflowing.
TEST(CtarSize, RoundingUpToBlocksRefusesSizesWhoseRoundingWouldOverflow) {
  const uint64_t limit = (1ull << 63) - 512;
  EXPECT_EQ(CtarLargestSize, limit);
  const struct {
    uint64_t size;
    uint64_t padded;  // UINT64_MAX: refused
  } cases[] = {
      {0, 0},
      {1, 512},
      {512, 512},
      {513, 1024},
      {limit - 1023, limit - 512},
      {limit - 512, limit - 512},
      {limit - 511, limit},
      {limit - 1, limit},
      {limit, limit},
      {limit + 1, UINT64_MAX},
      {0x7FFFFFFFFFFFFFFFull, UINT64_MAX},
      {1ull << 63, UINT64_MAX},
      {UINT64_MAX - 511, UINT64_MAX},
      {UINT64_MAX, UINT64_MAX},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    EXPECT_EQ(CtarPaddedSize(c.size), c.padded);
    if (c.size > static_cast<uint64_t>(INT64_MAX)) continue;
    EXPECT_EQ(WholeBlocks(static_cast<int64_t>(c.size)),
              c.padded == UINT64_MAX ? -1 : static_cast<int64_t>(c.padded));
  }
  for (int64_t count : {int64_t{-1}, INT64_MIN}) EXPECT_EQ(WholeBlocks(count), 0);
}

TEST(CtarSize, DecodingNeedsTheHashAndStopsQuietly) {
  auto decode = [](const std::string& text, uint64_t* out) {
    unsigned char field[12] = {};
    memcpy(field, text.data(), text.size());
    return DecodeSize64(out, field);
  };
  uint64_t out = 77;
  EXPECT_EQ(decode("x...........", &out), -1);
  EXPECT_EQ(out, 77u);
  EXPECT_EQ(decode("#/ zzzzzzzzz", &out), 0);
  EXPECT_EQ(out, 1u);
  EXPECT_EQ(decode("#zzzzzzzzzz ", &out), 0);
  EXPECT_EQ(out, (1ull << 60) - 1);
  EXPECT_EQ(decode("#..........z", &out), 0);  // bits beyond 64 are lost
  EXPECT_EQ(out, 0xF000000000000000ull);
  EXPECT_EQ(decode("#9Az", &out), 0);
  EXPECT_EQ(out, 11ull | (12ull << 6) | (63ull << 12));
}

TEST(CtarSize, UnreadableSizeFieldsAreBadSizeNotBadChecksum) {
  for (const std::string& text : {std::string(1, '\0'), std::string("12x\0", 4),
                                  std::string("9\0", 2), std::string("-1\0", 3),
                                  std::string("777777777777")}) {
    Block block = Header("/f", 5);
    Put(block, 124, std::string(12, '\0'));
    Put(block, 124, text);
    Reseal(block);
    EXPECT_EQ(Check(block).result, CtarBadSize) << text;
  }
  Block copy = Header("/f", 5);
  Put(copy, 265, "garbage!!!!!");  // the copy is never read
  Reseal(copy);
  EXPECT_EQ(Check(copy).size, 5u);
}

TEST(CtarHeader, FieldsSitAtTheirOffsetsAndEverythingElseIsZero) {
  Block block = Header("/QSYS.LIB/PAYROLL.LIB", 1000, 0100644);
  Block expected = Zeros();
  Put(expected, 0, "/QSYS.LIB/PAYROLL.LIB");
  Put(expected, 100, std::string("0100644\0", 8));
  Put(expected, 108, std::string("0000000\0", 8));
  Put(expected, 116, std::string("0000000\0", 8));
  Put(expected, 124, std::string("00000001750\0", 12));
  Put(expected, 136, std::string("14524770400\0", 12));  // 1700000000
  Put(expected, 156, "0");
  Put(expected, 257, std::string("000\0" "000\0", 8));
  Put(expected, 265, std::string("00000001750\0", 12));
  Put(expected, 277, std::string("001\0" "000\0", 8));
  char checksum[8];
  snprintf(checksum, sizeof checksum, "%07o", static_cast<unsigned>(HeaderChecksum(block.data())));
  Put(expected, 148, std::string(checksum, 8));
  EXPECT_EQ(block, expected);
}

TEST(CtarName, LengthsAroundEveryPieceBoundaryRoundTrip) {
  for (size_t length : {99, 100, 101, 169, 170, 171, 268, 269, 338, 339, 400}) {
    SCOPED_TRACE(length);
    std::string name = NameOfLength(length);
    StderrCapture err;
    Block block = Header(name);
    EXPECT_EQ(err.Text(), "");
    bool long_name = length == 100 || length >= 170;
    EXPECT_EQ(Bytes(block, 293, 4), long_name ? std::string("100\0", 4) : std::string(4, '\0'));
    char out[CtarBlockSize];
    int first_piece = static_cast<int>(std::min<size_t>(length, 100));
    EXPECT_EQ(ReadCtarName(out, sizeof out, block.data()), first_piece);
    EXPECT_EQ(std::string(out), name);
    EXPECT_EQ(Check(block).name, name);
    // Each piece starts at its own offset.
    EXPECT_EQ(block[368], length > 100 ? name[100] : 0);
    EXPECT_EQ(block[159], length > 170 ? name[170] : 0);
    EXPECT_EQ(block[440], length > 268 ? name[268] : 0);
    EXPECT_EQ(block[305], length > 338 ? name[338] : 0);
  }
  char small[10];
  EXPECT_EQ(ReadCtarName(small, sizeof small, Header(NameOfLength(300)).data()), 100);
  EXPECT_EQ(std::string(small), NameOfLength(9));
}

TEST(CtarName, NamesBeyond400AreCutAndReported) {
  for (size_t length : {401, 511}) {
    StderrCapture err;
    Block block = Header(NameOfLength(length));
    EXPECT_NE(err.Text().find("[backup.cpp,"), std::string::npos) << err.Text();
    EXPECT_NE(err.Text().find("]: path too long\n"), std::string::npos) << err.Text();
    Entry entry = Check(block);
    EXPECT_EQ(entry.result, CtarEntry);  // the entry is written all the same
    EXPECT_EQ(entry.name, NameOfLength(400));
  }
}

TEST(CtarName, OnlyADirectorysOwnSuffixIsStrippedWhenReading) {
  struct Case {
    const char* path;  // as given to the header
    uint32_t mode;
    const char* stored;
    const char* restored;
  };
  const Case cases[] = {
      {"/home/x", 0040755, "/home/x.savf", "/home/x"},
      {"/home/y", 0100600, "/home/y", "/home/y"},
      // A file whose own name holds or ends in the suffix keeps it.
      {"/a.savfile", 0100644, "/a.savfile", "/a.savfile"},
      {"/home/xfer/PTF.savf", 0100644, "/home/xfer/PTF.savf", "/home/xfer/PTF.savf"},
      {"/d.savf.x", 0100644, "/d.savf.x", "/d.savf.x"},
      {"/QSYS.LIB/A.LIB/S.SAVF", 0100644, "/QSYS.LIB/A.LIB/S.SAVF", "/QSYS.LIB/A.LIB/S.SAVF"},
      // A directory loses exactly the suffix the backup put behind its name.
      {"/d.savf.x", 0040755, "/d.savf.x.savf", "/d.savf.x"},
      {"/x.savf", 0040700, "/x.savf.savf", "/x.savf"},
      {"/a.savfile", 0040000, "/a.savfile.savf", "/a.savfile"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.path) + " " + std::to_string(c.mode));
    Block block = Header(c.path, 10, c.mode);
    EXPECT_EQ(StoredName(block), c.stored);
    Entry entry = Check(block);
    EXPECT_EQ(entry.result, CtarEntry);
    EXPECT_EQ(entry.name, c.restored);
    char name[CtarBlockSize] = "";
    CtarEntryName(block.data(), name, sizeof name);
    EXPECT_STREQ(name, c.restored);
  }
  // The mode is the header's: a stored name that ends in the suffix keeps it
  // unless the mode field reads as a directory.
  struct ModeCase {
    std::string field;
    const char* restored;
  };
  const ModeCase modes[] = {
      {std::string("0040755\0", 8), "/z"},  {std::string("0100644\0", 8), "/z.savf"},
      {std::string("40000\0\0\0", 8), "/z"}, {std::string("0\0\0\0\0\0\0\0", 8), "/z.savf"},
      {std::string("zzzzzzz\0", 8), "/z.savf"},  // no mode at all
      {std::string(8, '\0'), "/z.savf"},
  };
  for (const ModeCase& m : modes) {
    SCOPED_TRACE(::testing::PrintToString(m.field));
    Block block = Header("/z.savf", 10, 0100644);
    Put(block, 100, m.field);
    Reseal(block);
    EXPECT_EQ(Check(block).name, m.restored);
  }
  // The suffix counts toward the length: 95 characters become exactly 100.
  Block long_dir = Header(NameOfLength(95), 10, 0040700);
  EXPECT_EQ(Bytes(long_dir, 293, 4), std::string("100\0", 4));
  EXPECT_EQ(Check(long_dir).name, NameOfLength(95));
  // The name is cut to the caller's buffer, and always ended.
  char small[6];
  memset(small, 'x', sizeof small);
  CtarEntryName(Header("/home/x", 10, 0040755).data(), small, sizeof small);
  EXPECT_STREQ(small, "/home");
}

TEST(CtarHeaderDeathTest, APathBeyondTheWorkAreaStopsTheProcess) {
  EXPECT_DEATH(Header(NameOfLength(512)), "does not fit");
  EXPECT_DEATH(Header(NameOfLength(507), 1, 0040755), "does not fit");
  StderrCapture err;  // one character less still fits, cut to 400
  EXPECT_EQ(Check(Header(NameOfLength(506), 1, 0040755)).result, CtarEntry);
}

TEST(CtarArchive, AReaderWalksEntriesByPaddedSizeToTheSentinel) {
  // Grow an archive as the writer does: each entry's header replaces the
  // sentinel, then come the data, its padding and a new sentinel.
  Block archive = Zeros();
  BuildCtarSentinel(archive.data());
  const std::vector<std::pair<std::string, uint64_t>> items = {
      {"/QSYS.LIB/A.LIB", 700}, {"/home/b", 512}, {"/QDLS", 1}};
  for (const auto& [path, size] : items) {
    size_t at = archive.size() - CtarBlockSize;
    archive.resize(at + CtarBlockSize + CtarPaddedSize(size) + CtarBlockSize, 0);
    memset(archive.data() + at + CtarBlockSize, 'd', size);
    BuildCtarSentinel(archive.data() + archive.size() - CtarBlockSize);
    Block header = Header(path, size);
    memcpy(archive.data() + at, header.data(), CtarBlockSize);
  }
  std::vector<std::string> names;
  size_t offset = 0;
  int result = CtarBadChecksum;
  while (offset + CtarBlockSize <= archive.size()) {
    uint64_t size = 0;
    char name[CtarBlockSize];
    result = ReadCtarHeader(archive.data() + offset, &size, name, sizeof name);
    if (result != CtarEntry) break;
    names.push_back(name);
    offset += CtarBlockSize + CtarPaddedSize(size);
  }
  EXPECT_EQ(result, CtarEnd);
  EXPECT_EQ(offset, archive.size() - CtarBlockSize);
  EXPECT_EQ(names, (std::vector<std::string>{"/QSYS.LIB/A.LIB", "/home/b", "/QDLS"}));
}

// A tar header as tar programs write one, for checking that such a file is
// not taken for a CTAR archive.
enum class TarStyle { Gnu, Ustar, V7 };
Block TarHeader(TarStyle style) {
  Block block = Zeros();
  Put(block, 0, "notes.txt");
  Put(block, 100, std::string("0000644\0", 8));
  const std::string id = style == TarStyle::V7 ? std::string("0000000\0", 8) : std::string("0001750\0", 8);
  Put(block, 108, id);
  Put(block, 116, id);
  Put(block, 124, std::string("00000000014\0", 12));
  Put(block, 136, std::string("14524770400\0", 12));
  block[156] = '0';
  if (style == TarStyle::Gnu) Put(block, 257, std::string("ustar  \0", 8));
  if (style == TarStyle::Ustar) Put(block, 257, std::string("ustar\0" "00", 8));
  if (style != TarStyle::V7) {
    Put(block, 265, "user");
    Put(block, 297, "users");
  }
  // GNU tar ends the checksum with a NUL and a blank after six digits.
  char field[9];
  snprintf(field, sizeof field, style == TarStyle::Gnu ? "%06o" : "%07o",
           static_cast<unsigned>(HeaderChecksum(block.data())));
  Put(block, 148, std::string(field, style == TarStyle::Gnu ? 6 : 7) + (style == TarStyle::Gnu ? std::string("\0 ", 2)
                                                                                          : std::string(1, '\0')));
  return block;
}

TEST(CtarArchiveStart, TakesTheEndBlockAndAHeaderAsABackupWritesItButNoTarHeader) {
  Block sentinel = Zeros();
  BuildCtarSentinel(sentinel.data());
  Block text = Zeros();
  const std::string words = "This is a text file, not an archive at all.\n";
  for (size_t at = 0; at + words.size() <= text.size(); at += words.size()) Put(text, at, words);
  Block flipped = Header("/home/file");
  flipped[20] ^= 1;
  Block odd_uid = Header("/home/file");
  Put(odd_uid, 108, std::string("0001750\0", 8));
  Reseal(odd_uid);
  struct Case {
    const char* what;
    Block block;
    bool start;
  };
  const Case cases[] = {
      {"the end block of an empty archive", sentinel, true},
      {"a file's header", Header("/home/file", 1000, 0100644), true},
      {"a directory's header", Header("/home/dir", 1000, 0040755), true},
      {"a header with a long name", Header(NameOfLength(300), 5, 0100600), true},
      {"a header with a large size", Header("/QSYS.LIB/BIG.LIB", 1ull << 40, 0040700), true},
      {"zeros", Zeros(), false},
      {"text", text, false},
      {"a header with a wrong checksum", flipped, false},
      {"a header no backup writes", odd_uid, false},
      {"a GNU tar header", TarHeader(TarStyle::Gnu), false},
      {"a POSIX tar header", TarHeader(TarStyle::Ustar), false},
      {"an old tar header", TarHeader(TarStyle::V7), false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(CtarArchiveStart(c.block.data()), c.start);
  }
  // Every tar header passes the reader's own check: only the start check
  // tells it apart.
  for (TarStyle style : {TarStyle::Gnu, TarStyle::Ustar, TarStyle::V7})
    EXPECT_EQ(Check(TarHeader(style)).result, CtarEntry) << static_cast<int>(style);
}

}  // namespace
