// The CTAR archive format that every reader and writer of an archive
// shares: entry headers with their name pieces, size encodings and
// checksum, and the end block.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

// ---------------------------------------------------------------------------
// CTAR archive format
//
// An archive is a run of entries (a 512-byte header, then the save file's
// bytes padded with zeros to whole blocks) ended by exactly one sentinel
// block. Everything is read and written in whole blocks.
// ---------------------------------------------------------------------------

constexpr size_t CtarBlockSize = 512;
// Value of the long-name field when name pieces 3 to 5 are in use.
constexpr int LONG_NAME_FLAG = 64;
// Longest entry name a header can hold.
constexpr size_t CtarMaxName = 400;
// Suffix of entries that hold a whole directory; stripped on reading.
constexpr const char* CtarDirectorySuffix = ".savf";

// (sum of all bytes as signed 8-bit values, the checksum field counted as
// eight spaces) modulo 65536.
int HeaderChecksum(const unsigned char block[CtarBlockSize]);

// Base-64 size form for sizes above 2147483647: '#', then eleven characters
// of six bits each, least significant first; no terminator.
void EncodeSize64(uint64_t value, unsigned char field[12]);
// 0 (decoding stops quietly at the first character outside the alphabet),
// or -1 when the field does not start with '#'.
int DecodeSize64(uint64_t* value, const unsigned char field[12]);

// Fills block with the header of an entry. Directory modes get ".savf"
// behind the name. A name of more than 400 characters is logged as "path too
// long" and stored cut. A path longer than 511 characters (506 with the
// suffix) is a caller's bug and aborts the process. Returns block.
unsigned char* BuildCtarHeader(unsigned char block[CtarBlockSize], const char* path, uint64_t size,
                               uint32_t mode, struct tm mtime);

// The end-of-archive block: zeros and the checksum 0000400. Returns block.
unsigned char* BuildCtarSentinel(unsigned char block[CtarBlockSize]);

// Reassembles the stored name (suffix included) into out, always terminated,
// dropping what does not fit. Returns the characters taken from name piece 1
// (0 to 100).
int ReadCtarName(char* out, size_t out_size, const unsigned char header[CtarBlockSize]);

// What ReadCtarHeader found in a block.
constexpr int CtarEntry = 0;
constexpr int CtarEnd = 1;           // the sentinel: the archive ends here
constexpr int CtarBadChecksum = -1;  // checksum field unreadable or wrong
constexpr int CtarBadSize = -2;      // size field unreadable

// The reader's check of one header block. For an entry, stores the data
// size and the name (see CtarEntryName) when size / name are given.
int ReadCtarHeader(const unsigned char block[CtarBlockSize], uint64_t* size, char* name,
                   size_t name_size);
// The name an entry is restored under: the stored name, without the ".savf"
// that a backup puts behind a whole directory's name (only there: at the
// end of the name of an entry whose mode says directory). Always
// terminated; cut to name_size.
void CtarEntryName(const unsigned char block[CtarBlockSize], char* name, size_t name_size);
// Whether a block can begin a CTAR archive: the end block of an empty one,
// or an entry header with every field as a backup writes it. A tar file's
// first header passes the checksum (tar and CTAR sum the same bytes when
// they are all ASCII), yet it is no CTAR archive.
bool CtarArchiveStart(const unsigned char block[CtarBlockSize]);

// The largest data size an entry can have: rounded up to whole blocks it is
// still a signed 64-bit count of bytes (2^63 - 512). A size field may hold
// more (the base-64 form reads any 64-bit value), but no archive does, and
// rounding such a size up to blocks overflows: every reader takes it for a
// bad size.
constexpr uint64_t CtarLargestSize = (uint64_t{1} << 63) - CtarBlockSize;

// Bytes an entry's data occupies in the archive: size rounded up to blocks;
// UINT64_MAX, more than any archive holds, for a size beyond
// CtarLargestSize.
uint64_t CtarPaddedSize(uint64_t size);

// The modification time an entry header stores, in seconds since the epoch.
// A restore never needs it; listings show it. 0, or -1 when the field holds
// no octal number ended by a NUL inside the field.
int ReadCtarMtime(const unsigned char block[CtarBlockSize], int64_t* seconds);

// The first field of an entry header that does not hold what
// BuildCtarHeader writes there, named for a message ("size copy", "fixed
// field at 257", ...), or nullptr when every field does. A restore ignores
// these fields; a verifier does not, and a scan for lost headers needs them
// to tell a real header from save-file data (a tar member's header, say)
// whose checksum happens to hold.
const char* CtarHeaderOddity(const unsigned char block[CtarBlockSize]);

