// The CTAR archive format: entry headers (name pieces, size encodings,
// checksum) and the end block, as the backup writes them and every reader
// checks them.
#include "archive/ctar_format.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"

// Failures here are the backup module's, as they always were.
static constexpr const char* kModule = "backup.cpp";

// ---------------------------------------------------------------------------
// CTAR archive format
// ---------------------------------------------------------------------------

namespace {

// Header layout: byte offsets and widths of the fields.
constexpr size_t ModeField = 100;
constexpr size_t UidField = 108;
constexpr size_t GidField = 116;
constexpr size_t SizeField = 124;
constexpr size_t SizeWidth = 12;
constexpr size_t MtimeField = 136;
constexpr size_t ChecksumField = 148;
constexpr size_t ChecksumWidth = 8;
constexpr size_t TypeFlagField = 156;
constexpr size_t FixedField1 = 257;
constexpr size_t FixedField2 = 261;
constexpr size_t SizeCopyField = 265;
constexpr size_t FixedField3 = 277;
constexpr size_t FixedField4 = 281;
constexpr size_t LongNameField = 293;
constexpr size_t LongNameWidth = 4;

// The five pieces of the name, in name order.
struct NamePiece {
  size_t offset;
  size_t width;
};
constexpr NamePiece Pieces[5] = {{0, 100}, {368, 70}, {159, 98}, {440, 70}, {305, 62}};

// Characters a short-form header holds (pieces 1 and 2) before the name
// needs the long-name pieces.
constexpr size_t ShortNameMax = 170;

constexpr uint32_t DirectoryBit = 0040000;
constexpr uint64_t LargestOctalSize = 0x7FFFFFFF;
constexpr int EmptyBlockChecksum = 256;

constexpr char Alphabet64[] =
    "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

char* Field(unsigned char* block, size_t offset) {
  return reinterpret_cast<char*>(block + offset);
}

// Like strncpy into a zeroed piece: a full piece gets no terminator.
void FillPiece(unsigned char* block, const NamePiece& piece, const char* text) {
  memcpy(block + piece.offset, text, strnlen(text, piece.width));
}

// -1 for a character outside the base-64 alphabet.
int Value64(unsigned char c) {
  if (c >= 'a' && c <= 'z') return c - 59;
  if (c >= 'A' && c <= 'Z') return c - 53;
  if (c >= '0' && c <= '9') return c - 46;
  if (c == '/') return 1;
  if (c == '.') return 0;
  return -1;
}

// Header fields are not guaranteed to be terminated inside the field; they
// are parsed from a terminated copy so a damaged header is never read past
// its field.
struct FieldText {
  char text[SizeWidth + 1];
  FieldText(const unsigned char* block, size_t offset, size_t width) {
    memcpy(text, block + offset, width);
    text[width] = '\0';
  }
};

// Appends one name piece to the output; true when a zero byte ended it.
bool TakePiece(const unsigned char* header, const NamePiece& piece, char* out, size_t out_size,
               size_t* used, size_t* taken) {
  for (size_t i = 0; i < piece.width; i++) {
    unsigned char c = header[piece.offset + i];
    if (c == 0) return true;
    if (*used + 1 < out_size) {
      out[*used] = static_cast<char>(c);
      ++*used;
      out[*used] = '\0';
    }
    ++*taken;
  }
  return false;
}

}  // namespace

int HeaderChecksum(const unsigned char block[CtarBlockSize]) {
  uint32_t sum = 0;
  for (size_t i = 0; i < CtarBlockSize; i++) {
    int value = (i >= ChecksumField && i < ChecksumField + ChecksumWidth)
                    ? ' '
                    : static_cast<int8_t>(block[i]);
    sum = (sum + static_cast<uint32_t>(value)) & 0xFFFF;
  }
  return static_cast<int>(sum);
}

void EncodeSize64(uint64_t value, unsigned char field[12]) {
  field[0] = '#';
  for (int i = 1; i <= 10; i++) field[i] = Alphabet64[(value >> (6 * (i - 1))) & 63];
  field[11] = Alphabet64[value >> 60];
}

int DecodeSize64(uint64_t* value, const unsigned char field[12]) {
  if (field[0] != '#') return -1;
  uint64_t result = 0;
  for (int i = 1; i <= 11; i++) {
    int digit = Value64(field[i]);
    if (digit < 0) break;
    result |= static_cast<uint64_t>(digit) << (6 * (i - 1));
  }
  *value = result;
  return 0;
}

unsigned char* BuildCtarHeader(unsigned char block[CtarBlockSize], const char* path, uint64_t size,
                               uint32_t mode, struct tm mtime) {
  unsigned char header[CtarBlockSize] = {};
  FormatBounded(Field(header, UidField), 8, "%0*o", 7, 0u);
  // Width 8 in an 8-byte field leaves seven zeros and the terminator, the
  // same bytes as the uid.
  FormatBounded(Field(header, GidField), 8, "%0*o", 8, 0u);
  header[TypeFlagField] = '0';
  FormatBounded(Field(header, ModeField), 8, "%0*o", 7, mode);
  struct tm local = mtime;
  time_t seconds = mktime(&local);
  FormatBounded(Field(header, MtimeField), 12, "%0*lo", 11, static_cast<unsigned long>(seconds));

  const bool directory = (mode & DirectoryBit) != 0;
  char name[CtarBlockSize] = {};
  size_t length = strlen(path) + (directory ? strlen(CtarDirectorySuffix) : 0);
  if (length + 1 > sizeof name) {
    // Callers keep paths within the header's work area; reaching this is a
    // bug that would otherwise store a wrong name.
    VFAIL("CTAR header: path of %zu characters does not fit\n", length);
    abort();
  }
  CopyBounded(name, sizeof name, path);
  if (directory) AppendBounded(name, sizeof name, CtarDirectorySuffix);

  FillPiece(header, Pieces[0], name);
  if (length > Pieces[0].width) FillPiece(header, Pieces[1], name + Pieces[0].width);
  // A name of exactly 100 characters fills piece 1 without a terminator and
  // leaves piece 2 empty; the flag tells the reader the name still ends.
  if (length == Pieces[0].width || length >= ShortNameMax) {
    FormatBounded(Field(header, LongNameField), LongNameWidth, "%0*o", 3, LONG_NAME_FLAG);
    size_t at = length < ShortNameMax ? length : ShortNameMax;
    for (size_t piece = 2; piece < 5; piece++) {
      if (name[at] == '\0') break;
      FillPiece(header, Pieces[piece], name + at);
      at += Pieces[piece].width;
    }
  }
  if (length > CtarMaxName) VFAIL("path too long\n");

  FormatBounded(Field(header, FixedField1), 4, "%0*o", 3, 0u);
  FormatBounded(Field(header, FixedField2), 4, "%0*o", 3, 0u);
  FormatBounded(Field(header, FixedField3), 4, "%0*o", 3, 1u);
  FormatBounded(Field(header, FixedField4), 4, "%0*o", 3, 0u);

  if (size > LargestOctalSize) {
    EncodeSize64(size, header + SizeField);
    EncodeSize64(size, header + SizeCopyField);
  } else {
    auto octal = static_cast<unsigned long long>(size);
    FormatBounded(Field(header, SizeField), SizeWidth, "%0*llo", 11, octal);
    FormatBounded(Field(header, SizeCopyField), SizeWidth, "%0*llo", 11, octal);
  }

  FormatBounded(Field(header, ChecksumField), ChecksumWidth, "%0*o", 7,
                static_cast<unsigned>(HeaderChecksum(header)));
  memcpy(block, header, CtarBlockSize);
  return block;
}

unsigned char* BuildCtarSentinel(unsigned char block[CtarBlockSize]) {
  memset(block, 0, CtarBlockSize);
  FormatBounded(Field(block, ChecksumField), ChecksumWidth, "%0*o", 7,
                static_cast<unsigned>(HeaderChecksum(block)));
  return block;
}

int ReadCtarName(char* out, size_t out_size, const unsigned char header[CtarBlockSize]) {
  size_t used = 0;
  size_t first = 0;
  size_t rest = 0;
  if (out_size > 0) out[0] = '\0';
  if (TakePiece(header, Pieces[0], out, out_size, &used, &first)) return static_cast<int>(first);
  if (TakePiece(header, Pieces[1], out, out_size, &used, &rest)) return static_cast<int>(first);
  FieldText flag(header, LongNameField, LongNameWidth);
  if ((strtol(flag.text, nullptr, 8) & LONG_NAME_FLAG) == 0) return static_cast<int>(first);
  for (size_t piece = 2; piece < 5; piece++)
    if (TakePiece(header, Pieces[piece], out, out_size, &used, &rest)) break;
  return static_cast<int>(first);
}

int ReadCtarHeader(const unsigned char block[CtarBlockSize], uint64_t* size, char* name,
                   size_t name_size) {
  FieldText checksum(block, ChecksumField, ChecksumWidth);
  char* end = nullptr;
  long stored = strtol(checksum.text, &end, 8);
  // The digits must end in a NUL that is part of the field itself.
  if (end == checksum.text || *end != '\0' ||
      static_cast<size_t>(end - checksum.text) >= ChecksumWidth)
    return CtarBadChecksum;
  int computed = HeaderChecksum(block);
  if (stored != computed) return CtarBadChecksum;

  if (computed == EmptyBlockChecksum) {
    bool empty = true;
    for (size_t i = 0; i < CtarBlockSize && empty; i++)
      if ((i < ChecksumField || i >= ChecksumField + ChecksumWidth) && block[i] != 0)
        empty = false;
    if (empty) return CtarEnd;
  }

  uint64_t data_size = 0;
  if (block[SizeField] == '#') {
    DecodeSize64(&data_size, block + SizeField);
  } else {
    FieldText text(block, SizeField, SizeWidth);
    char* stop = nullptr;
    long long value = strtoll(text.text, &stop, 8);
    if (stop == text.text || *stop != '\0' || static_cast<size_t>(stop - text.text) >= SizeWidth ||
        value < 0)
      return CtarBadSize;
    data_size = static_cast<uint64_t>(value);
  }
  if (size) *size = data_size;

  if (name) CtarEntryName(block, name, name_size);
  return CtarEntry;
}

void CtarEntryName(const unsigned char block[CtarBlockSize], char* name, size_t name_size) {
  char full[CtarBlockSize];
  ReadCtarName(full, sizeof full, block);
  // The suffix is the backup's own mark of a whole directory: it goes only
  // where the backup put it. A file that is itself called "PTF.savf" keeps
  // its name.
  FieldText mode_text(block, ModeField, 8);
  char* stop = nullptr;
  const unsigned long mode = strtoul(mode_text.text, &stop, 8);
  const size_t length = strlen(full);
  const size_t suffix = strlen(CtarDirectorySuffix);
  if (stop != mode_text.text && (mode & DirectoryBit) && length >= suffix &&
      strcmp(full + length - suffix, CtarDirectorySuffix) == 0)
    full[length - suffix] = '\0';
  CopyBounded(name, name_size, full);
}

bool CtarArchiveStart(const unsigned char block[CtarBlockSize]) {
  const int judged = ReadCtarHeader(block, nullptr, nullptr, 0);
  return judged == CtarEnd || (judged == CtarEntry && !CtarHeaderOddity(block));
}

uint64_t CtarPaddedSize(uint64_t size) {
  if (size > CtarLargestSize) return UINT64_MAX;
  uint64_t tail = size % CtarBlockSize;
  return tail ? size + (CtarBlockSize - tail) : size;
}

int ReadCtarMtime(const unsigned char block[CtarBlockSize], int64_t* seconds) {
  // The field is as wide as the size field: eleven digits and a NUL.
  FieldText text(block, MtimeField, SizeWidth);
  if (text.text[0] < '0' || text.text[0] > '7') return -1;  // strtoll would skip blanks and signs
  char* stop = nullptr;
  errno = 0;
  long long value = strtoll(text.text, &stop, 8);
  if (errno != 0 || *stop != '\0' || static_cast<size_t>(stop - text.text) >= SizeWidth) return -1;
  *seconds = value;
  return 0;
}

const char* CtarHeaderOddity(const unsigned char block[CtarBlockSize]) {
  // digits octal digits and a NUL, as "%0*o" writes them.
  auto octal = [block](size_t offset, size_t digits) {
    for (size_t i = 0; i < digits; i++)
      if (block[offset + i] < '0' || block[offset + i] > '7') return false;
    return block[offset + digits] == 0;
  };
  auto text = [block](size_t offset, const char* expected, size_t width) {
    return memcmp(block + offset, expected, width) == 0;
  };
  auto zero = [block](size_t offset, size_t width) {
    for (size_t i = 0; i < width; i++)
      if (block[offset + i] != 0) return false;
    return true;
  };
  if (!octal(ChecksumField, 7)) return "checksum field";
  if (!octal(ModeField, 7)) return "mode";
  if (!text(UidField, "0000000", 8)) return "uid";
  if (!text(GidField, "0000000", 8)) return "gid";
  if (!octal(MtimeField, 11)) return "modification time";
  if (block[TypeFlagField] != '0' || !zero(TypeFlagField + 1, 2)) return "type flag";
  if (!text(FixedField1, "000", 4)) return "fixed field at 257";
  if (!text(FixedField2, "000", 4)) return "fixed field at 261";
  if (memcmp(block + SizeField, block + SizeCopyField, SizeWidth) != 0) return "size copy";
  if (!text(FixedField3, "001", 4)) return "fixed field at 277";
  if (!text(FixedField4, "000", 4)) return "fixed field at 281";
  const bool long_name = text(LongNameField, "100", LongNameWidth);
  if (!long_name && !zero(LongNameField, LongNameWidth)) return "long-name field";
  if (!long_name)
    for (size_t piece = 2; piece < 5; piece++)
      if (!zero(Pieces[piece].offset, Pieces[piece].width)) return "long-name pieces";
  // The bytes between the fields stay zero.
  if (!zero(285, 8) || !zero(297, 8) || !zero(367, 1) || !zero(438, 2) || !zero(510, 2))
    return "unused bytes";
  return nullptr;
}

