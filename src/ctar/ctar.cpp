// ctar: the operator's tool for CTAR archives. It lists what a backup holds,
// verifies that an archive is whole before a restore needs it, writes single
// save files out so they can be moved by hand, and salvages the entries that
// a broken retrieval hid behind a premature sentinel.
//
// Every header is judged by the format code that backup and restore share
// (ctar_format.h) and every entry's kind comes from the restore dispatch
// (restore.h): the tool cannot disagree with what a restore would do.
#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "archive/ctar_format.h"
#include "restore/restore.h"
#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"

static_assert(sizeof(off_t) == 8, "archives exceed 2 GiB; off_t must be 64 bits");

namespace {

// ---------------------------------------------------------------------------
// Exit statuses
// ---------------------------------------------------------------------------

enum Status : int {
  StatusWhole = 0,        // success; for verify: the archive is whole
  StatusDamaged = 1,      // a CTAR archive, but not whole
  StatusNotArchive = 2,   // empty, a directory, or no CTAR header at its start
  StatusUnreadable = 3,   // cannot be opened or read
  StatusWriteFailed = 4,  // an output file or standard output could not be written
  StatusNotFound = 5,     // extract: a named entry is not in the archive
  StatusUsage = 64,       // the command line is wrong
};

// When several things went wrong the status names the one that matters most
// to the operator: a bad command line, then a failing disk, then a file that
// is no archive, then damage, and a missing name last.
int Worse(int a, int b) {
  static const int order[] = {StatusUsage,   StatusUnreadable, StatusWriteFailed, StatusNotArchive,
                              StatusDamaged, StatusNotFound,   StatusWhole};
  for (int status : order)
    if (a == status || b == status) return status;
  return a;
}

constexpr uint64_t Block = CtarBlockSize;
// Data moves in pieces of this size; it bounds memory, not the archive.
constexpr size_t ChunkSize = 1 << 20;

// ---------------------------------------------------------------------------
// Descriptors, progress and messages
// ---------------------------------------------------------------------------

// A descriptor this program opened; closed when its owner goes.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Reset(); }
  int Get() const { return fd_; }
  void Reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }
  // Closes now and tells whether the close succeeded: for written files a
  // late error shows up only here.
  bool Close() {
    int fd = fd_;
    fd_ = -1;
    return fd < 0 || close(fd) == 0;
  }

 private:
  int fd_ = -1;
};

void HumanBytes(uint64_t bytes, char* out, size_t capacity) {
  static const char* const units[] = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < sizeof units / sizeof units[0]) {
    value /= 1024;
    unit++;
  }
  if (unit == 0)
    FormatBounded(out, capacity, "%llu bytes", static_cast<unsigned long long>(bytes));
  else
    FormatBounded(out, capacity, "%.1f %s", value, units[unit]);
}

enum class ProgressMode { Auto, Always, Never };
ProgressMode ProgressSetting = ProgressMode::Auto;

// Reading an archive of many GiB takes minutes; a person watching a terminal
// is told how far it got. Scripts and small archives see nothing.
constexpr uint64_t ProgressThreshold = 4ull << 30;

class Progress {
 public:
  void Start(const char* what, uint64_t total) {
    what_ = what;
    total_ = total;
    shown_ = false;
    last_ = 0;
    enabled_ = ProgressSetting == ProgressMode::Always ||
               (ProgressSetting == ProgressMode::Auto && isatty(STDERR_FILENO) &&
                total >= ProgressThreshold);
  }
  void Update(uint64_t done) {
    done_ = done;
    // On a pipe the size is unknown until the end; a long stream earns
    // progress once it passed the threshold.
    if (!enabled_ && ProgressSetting == ProgressMode::Auto && total_ == 0 &&
        done >= ProgressThreshold && isatty(STDERR_FILENO))
      enabled_ = true;
    if (!enabled_) return;
    double now = Now();
    if (shown_ && now - last_ < 0.5) return;
    last_ = now;
    Draw();
  }
  // Erases the progress line so that a message starts on a clean line.
  void Clear() {
    if (!shown_) return;
    fprintf(stderr, "\r%*s\r", static_cast<int>(width_), "");
    shown_ = false;
  }
  void Finish(uint64_t done) {
    if (!enabled_) return;
    done_ = done;
    Draw();
    fputc('\n', stderr);
    shown_ = false;
    enabled_ = false;
  }

 private:
  static double Now() {
    struct timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
  }
  void Draw() {
    char done[32], total[32], line[128];
    HumanBytes(done_, done, sizeof done);
    if (total_ > 0) {
      HumanBytes(total_, total, sizeof total);
      int percent = static_cast<int>(static_cast<double>(std::min(done_, total_)) * 100.0 /
                                     static_cast<double>(total_));
      FormatBounded(line, sizeof line, "ctar: %s: %s of %s (%d %%)", what_, done, total, percent);
    } else {
      FormatBounded(line, sizeof line, "ctar: %s: %s read", what_, done);
    }
    size_t length = strlen(line);
    fprintf(stderr, "\r%s%*s", line, static_cast<int>(width_ > length ? width_ - length : 0), "");
    width_ = length;
    shown_ = true;
  }

  const char* what_ = "";
  uint64_t total_ = 0;
  uint64_t done_ = 0;
  bool enabled_ = false;
  bool shown_ = false;
  double last_ = 0;
  size_t width_ = 0;
};

Progress CurrentProgress;

// The last complaint, so that the JSON listing can carry it as its problem.
char LastProblem[1024] = "";

[[gnu::format(printf, 1, 2)]] void Complain(const char* format, ...) {
  CurrentProgress.Clear();
  va_list args;
  va_start(args, format);
  vsnprintf(LastProblem, sizeof LastProblem, format, args);
  va_end(args);
  fprintf(stderr, "ctar: %s\n", LastProblem);
}

unsigned long long Ull(uint64_t value) { return static_cast<unsigned long long>(value); }

// ---------------------------------------------------------------------------
// The archive as input
// ---------------------------------------------------------------------------

struct Archive {
  const char* shown = "";  // how messages name it
  int fd = -1;
  UniqueFd owned;           // empty for standard input
  bool seekable = false;    // a file (or device) of known size
  uint64_t base = 0;        // where the archive starts in the descriptor
  uint64_t size = 0;        // bytes from base to the end, when seekable
  uint64_t position = 0;    // the sequential reader's place, from base
};

int OpenArchive(const char* path, Archive* archive) {
  if (strcmp(path, "-") == 0) {
    archive->fd = STDIN_FILENO;
    archive->shown = "standard input";
  } else {
    archive->shown = path;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
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
  off_t here = lseek(archive->fd, 0, SEEK_CUR);
  if (here >= 0 && S_ISREG(st.st_mode)) {
    archive->seekable = true;
    archive->base = static_cast<uint64_t>(here);
    archive->size = st.st_size > here ? static_cast<uint64_t>(st.st_size - here) : 0;
  } else if (here >= 0 && S_ISBLK(st.st_mode)) {
    off_t end = lseek(archive->fd, 0, SEEK_END);
    if (end >= here && lseek(archive->fd, here, SEEK_SET) == here) {
      archive->seekable = true;
      archive->base = static_cast<uint64_t>(here);
      archive->size = static_cast<uint64_t>(end - here);
    }
  }
  return StatusWhole;
}

// Reads until length bytes are in or the input ends: a pipe may hand a block
// over in pieces. The bytes read, or -1 (errno set) when a read failed.
ssize_t ReadFull(int fd, void* buffer, size_t length) {
  auto* at = static_cast<unsigned char*>(buffer);
  size_t got = 0;
  while (got < length) {
    ssize_t n = read(fd, at + got, length - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

// The same at a place in a seekable archive, leaving its position alone.
ssize_t ReadAt(const Archive& archive, void* buffer, size_t length, uint64_t offset) {
  auto* at = static_cast<unsigned char*>(buffer);
  size_t got = 0;
  while (got < length) {
    ssize_t n = pread(archive.fd, at + got, length - got,
                      static_cast<off_t>(archive.base + offset + got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

bool WriteAll(int fd, const void* buffer, size_t length) {
  const auto* at = static_cast<const unsigned char*>(buffer);
  while (length > 0) {
    ssize_t n = write(fd, at, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    at += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

// What moving an entry's data can end in.
enum DataResult { DataDone = 0, DataEnded = 1, DataReadFailed = -1, DataWriteFailed = -2 };

// Moves the sequential reader past count bytes: a seek in a file, which
// never touches the data, or reading through a pipe.
int SkipData(Archive& archive, uint64_t count) {
  if (archive.seekable) {
    uint64_t room = archive.size > archive.position ? archive.size - archive.position : 0;
    uint64_t step = std::min(count, room);
    if (lseek(archive.fd, static_cast<off_t>(step), SEEK_CUR) < 0) return DataReadFailed;
    archive.position += step;
    return step < count ? DataEnded : DataDone;
  }
  static std::vector<unsigned char> scratch(ChunkSize);
  while (count > 0) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(count, scratch.size()));
    ssize_t got = ReadFull(archive.fd, scratch.data(), want);
    if (got < 0) return DataReadFailed;
    archive.position += static_cast<uint64_t>(got);
    count -= static_cast<uint64_t>(got);
    CurrentProgress.Update(archive.position);
    if (static_cast<size_t>(got) < want) return DataEnded;
  }
  return DataDone;
}

// Copies count bytes from the sequential reader to out.
int CopyData(Archive& archive, uint64_t count, int out) {
  static std::vector<unsigned char> buffer(ChunkSize);
  while (count > 0) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(count, buffer.size()));
    ssize_t got = ReadFull(archive.fd, buffer.data(), want);
    if (got < 0) return DataReadFailed;
    archive.position += static_cast<uint64_t>(got);
    if (!WriteAll(out, buffer.data(), static_cast<size_t>(got))) return DataWriteFailed;
    count -= static_cast<uint64_t>(got);
    CurrentProgress.Update(archive.position);
    if (static_cast<size_t>(got) < want) return DataEnded;
  }
  return DataDone;
}

// ---------------------------------------------------------------------------
// Entries as the operator sees them
// ---------------------------------------------------------------------------

struct EntryView {
  uint64_t offset = 0;  // of the header
  uint64_t size = 0;    // data bytes
  bool has_mtime = false;
  int64_t mtime = 0;
  EntryKind kind = EntryKind::Ifs;
  char name[CtarBlockSize] = "";    // the name a restore uses
  char stored[CtarBlockSize] = "";  // as stored: a whole directory keeps ".savf"
};

// Fills in what a header the library accepted as an entry shows.
void Describe(const unsigned char* header, uint64_t offset, uint64_t size, EntryView* view) {
  view->offset = offset;
  view->size = size;
  ReadCtarName(view->stored, sizeof view->stored, header);
  view->has_mtime = ReadCtarMtime(header, &view->mtime) == 0;
  view->kind = EntryKindOf(view->name);
}

const char* KindLabel(EntryKind kind) {
  switch (kind) {
    case EntryKind::Documents: return "documents";
    case EntryKind::Configuration: return "configuration";
    case EntryKind::SecurityData: return "security data";
    case EntryKind::Library: return "library";
    case EntryKind::Ifs: return "IFS";
  }
  return "IFS";
}

// Names may hold any byte but NUL; a listing line must stay one line.
void PrintName(FILE* out, const char* text) {
  for (const auto* p = reinterpret_cast<const unsigned char*>(text); *p; p++) {
    if (*p == '\\')
      fputs("\\\\", out);
    else if (*p == '\n')
      fputs("\\n", out);
    else if (*p == '\t')
      fputs("\\t", out);
    else if (*p < 0x20 || *p == 0x7F)
      fprintf(out, "\\%03o", *p);
    else
      fputc(*p, out);
  }
}

// Length of the valid UTF-8 sequence at p, or 0 when there is none.
size_t Utf8Length(const unsigned char* p) {
  size_t length;
  uint32_t point, least;
  if (p[0] >= 0xC2 && p[0] <= 0xDF) {
    length = 2, point = p[0] & 0x1F, least = 0x80;
  } else if (p[0] >= 0xE0 && p[0] <= 0xEF) {
    length = 3, point = p[0] & 0x0F, least = 0x800;
  } else if (p[0] >= 0xF0 && p[0] <= 0xF4) {
    length = 4, point = p[0] & 0x07, least = 0x10000;
  } else {
    return 0;
  }
  for (size_t i = 1; i < length; i++) {
    if ((p[i] & 0xC0) != 0x80) return 0;  // also stops at the terminator
    point = point << 6 | (p[i] & 0x3F);
  }
  if (point < least || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return 0;
  return length;
}

// JSON text must be UTF-8. Server names usually are; a byte that is not part
// of a valid sequence is written as the character of the same value
// (\u0080 to \u00ff), as if the name were Latin-1.
void PrintJsonString(FILE* out, const char* text) {
  fputc('"', out);
  const auto* p = reinterpret_cast<const unsigned char*>(text);
  while (*p) {
    if (*p == '"' || *p == '\\') {
      fputc('\\', out);
      fputc(*p++, out);
    } else if (*p < 0x20 || *p == 0x7F) {
      fprintf(out, "\\u%04x", *p++);
    } else if (*p < 0x80) {
      fputc(*p++, out);
    } else if (size_t length = Utf8Length(p)) {
      fwrite(p, 1, length, out);
      p += length;
    } else {
      fprintf(out, "\\u%04x", *p++);
    }
  }
  fputc('"', out);
}

void TimeText(const EntryView& view, char* out, size_t capacity) {
  struct tm local{};
  time_t seconds = static_cast<time_t>(view.mtime);
  if (!view.has_mtime || !localtime_r(&seconds, &local) ||
      strftime(out, capacity, "%Y-%m-%d %H:%M", &local) == 0)
    CopyBounded(out, capacity, "(no valid time) ");  // as wide as a time
}

// One line in the manner of tar -tv: kind, size, time, name; with the
// header's offset in front when asked.
void PrintEntryLine(FILE* out, const EntryView& view, bool offset) {
  char when[64];
  TimeText(view, when, sizeof when);
  if (offset) fprintf(out, "0x%010llX ", Ull(view.offset));
  fprintf(out, "%-13s %12llu %s ", KindLabel(view.kind), Ull(view.size), when);
  PrintName(out, view.name);
  fputc('\n', out);
}

void PrintJsonEntry(FILE* out, const EntryView& view, bool first) {
  fprintf(out, "%s  {\"offset\": %llu, \"kind\": \"%s\", \"size\": %llu, \"mtime\": ",
          first ? "\n" : ",\n", Ull(view.offset), KindLabel(view.kind), Ull(view.size));
  if (view.has_mtime)
    fprintf(out, "%lld", static_cast<long long>(view.mtime));
  else
    fputs("null", out);
  fputs(", \"name\": ", out);
  PrintJsonString(out, view.name);
  fputs(", \"stored_name\": ", out);
  PrintJsonString(out, view.stored);
  fputc('}', out);
}

// ---------------------------------------------------------------------------
// Walking an archive the way a restore does (list, extract)
// ---------------------------------------------------------------------------

// Whether the first block makes the file a CTAR archive; a restore asks the
// same question before it logs in.
bool LooksLikeArchiveStart(int, const unsigned char* block) { return CtarArchiveStart(block); }

// The data of one entry, taken by the sequential reader: skipped, or copied
// to out (a descriptor; -1 skips). Reports what went wrong.
int TakeData(Archive& archive, const EntryView& view, int out) {
  if (view.size > static_cast<uint64_t>(INT64_MAX)) {
    Complain("%s: the entry %s at offset 0x%llX claims %llu bytes, more than any archive holds",
             archive.shown, view.name, Ull(view.offset), Ull(view.size));
    return StatusDamaged;
  }
  const uint64_t padded = CtarPaddedSize(view.size);
  int result = DataDone;
  if (out >= 0) {
    result = CopyData(archive, view.size, out);
    if (result == DataDone) result = SkipData(archive, padded - view.size);
  } else {
    result = SkipData(archive, padded);
  }
  CurrentProgress.Update(archive.position);
  switch (result) {
    case DataDone: return StatusWhole;
    case DataEnded:
      Complain("%s: truncated: the data of %s (header at offset 0x%llX, %llu bytes) runs past "
               "the end of the archive at offset 0x%llX",
               archive.shown, view.name, Ull(view.offset), Ull(view.size), Ull(archive.position));
      return StatusDamaged;
    case DataReadFailed:
      Complain("%s: read error in the data of %s near offset 0x%llX: %s", archive.shown, view.name,
               Ull(archive.position), strerror(errno));
      return StatusUnreadable;
    default:
      Complain("%s: write failed: %s", view.name, strerror(errno));
      return StatusWriteFailed;
  }
}

// After the sentinel a whole archive ends. Anything behind it is what a
// broken retrieval leaves: a restore never sees the entries there.
int CheckBehindSentinel(Archive& archive, uint64_t sentinel) {
  uint64_t behind = 0;
  if (archive.seekable) {
    behind = archive.size > archive.position ? archive.size - archive.position : 0;
  } else {
    uint64_t before = archive.position;
    int result = SkipData(archive, UINT64_MAX);
    if (result == DataReadFailed) {
      Complain("%s: read error behind the sentinel at offset 0x%llX: %s", archive.shown,
               Ull(sentinel), strerror(errno));
      return StatusUnreadable;
    }
    behind = archive.position - before;
  }
  if (behind == 0) return StatusWhole;
  Complain("%s: %llu bytes lie behind the sentinel at offset 0x%llX: a broken retrieval may hide "
           "entries there that a restore never reaches (ctar verify names them, ctar salvage "
           "recovers them)",
           archive.shown, Ull(behind), Ull(sentinel));
  return StatusDamaged;
}

// Header after header from the start, as a restore reads them; on_entry
// must take the entry's data (TakeData) and gives a status, non-zero ending
// the walk.
int WalkArchive(Archive& archive, const char* what,
                const std::function<int(const EntryView&)>& on_entry) {
  CurrentProgress.Start(what, archive.seekable ? archive.size : 0);
  unsigned char block[CtarBlockSize];
  int status = StatusWhole;
  for (;;) {
    const uint64_t offset = archive.position;
    ssize_t got = ReadFull(archive.fd, block, sizeof block);
    if (got < 0) {
      Complain("%s: read error at offset 0x%llX: %s", archive.shown, Ull(offset), strerror(errno));
      status = StatusUnreadable;
      break;
    }
    archive.position += static_cast<uint64_t>(got);
    if (static_cast<size_t>(got) < sizeof block) {
      if (offset == 0 && got == 0) {
        Complain("%s: empty, not a CTAR archive", archive.shown);
        status = StatusNotArchive;
      } else if (offset == 0) {
        Complain("%s: only %zd bytes, not a CTAR archive", archive.shown, got);
        status = StatusNotArchive;
      } else if (got == 0) {
        Complain("%s: truncated: the archive ends at offset 0x%llX without its sentinel",
                 archive.shown, Ull(offset));
        status = StatusDamaged;
      } else {
        Complain("%s: truncated: the archive ends inside the header block at offset 0x%llX",
                 archive.shown, Ull(offset));
        status = StatusDamaged;
      }
      break;
    }
    EntryView view;
    uint64_t size = 0;
    const int judged = ReadCtarHeader(block, &size, view.name, sizeof view.name);
    if (offset == 0 && !LooksLikeArchiveStart(judged, block)) {
      Complain("%s: not a CTAR archive: its first block is no CTAR header", archive.shown);
      status = StatusNotArchive;
      break;
    }
    if (judged == CtarBadChecksum) {
      Complain("%s: bad header checksum at offset 0x%llX: a restore stops here", archive.shown,
               Ull(offset));
      status = StatusDamaged;
      break;
    }
    if (judged == CtarBadSize) {
      Complain("%s: unreadable size field in the header at offset 0x%llX: a restore stops here",
               archive.shown, Ull(offset));
      status = StatusDamaged;
      break;
    }
    if (judged == CtarEnd) {
      status = CheckBehindSentinel(archive, offset);
      break;
    }
    Describe(block, offset, size, &view);
    status = on_entry(view);
    if (status != StatusWhole) break;
  }
  CurrentProgress.Finish(archive.position);
  return status;
}

// ---------------------------------------------------------------------------
// Surveying a whole archive (verify, salvage)
// ---------------------------------------------------------------------------

struct FoundEntry {
  EntryView view;
  bool hidden;  // behind a premature sentinel or a damaged header: no restore reaches it
};

struct DroppedRange {
  uint64_t offset;
  uint64_t length;
  std::string reason;
  bool lost;  // it held (part of) an entry that had been completed
};

struct Survey {
  std::vector<FoundEntry> entries;
  std::vector<DroppedRange> dropped;
  std::vector<std::string> problems;  // for verify, in the order found
  bool restore_stops_early = false;
  uint64_t restore_stop = 0;  // offset where a restore ends before the archive does
  uint64_t data_bytes = 0;
  bool final_sentinel = false;
  uint64_t sentinel = 0;
};

[[gnu::format(printf, 2, 3)]] void Note(Survey* survey, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  survey->problems.emplace_back(text);
}

enum { JudgeReadFailed = -100, JudgeBeyondEnd = -101 };

int JudgeAt(const Archive& archive, uint64_t offset, uint64_t* size, char* name,
            size_t name_size, unsigned char* block) {
  if (offset + Block > archive.size) return JudgeBeyondEnd;
  ssize_t got = ReadAt(archive, block, Block, offset);
  if (got < 0) return JudgeReadFailed;
  if (static_cast<uint64_t>(got) < Block) return JudgeBeyondEnd;
  return ReadCtarHeader(block, size, name, name_size);
}

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
  if (size > static_cast<uint64_t>(INT64_MAX)) return 0;
  const uint64_t next = offset + Block + CtarPaddedSize(size);
  if (next > archive.size) return 0;
  if (next == archive.size) return 1;
  unsigned char block[CtarBlockSize];
  uint64_t ignored = 0;
  int judged = JudgeAt(archive, next, &ignored, nullptr, 0, block);
  if (judged == JudgeReadFailed) return -1;
  return judged == CtarEnd || (judged == CtarEntry && !CtarHeaderOddity(block)) ? 1 : 0;
}

// Looks block by block from `from` for the next entry header (see
// ChainHolds). 0 found (at *found), 1 none up to the end, -1 read error.
int ScanForHeader(const Archive& archive, uint64_t from, uint64_t* found) {
  static std::vector<unsigned char> buffer(ChunkSize);
  uint64_t at = from;
  while (at + Block <= archive.size) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(buffer.size(),
                                                         (archive.size - at) / Block * Block));
    ssize_t got = ReadAt(archive, buffer.data(), want, at);
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

// Reads an entry's data (whole blocks, padding included) and, when out is
// given, writes it there with the padding made zero. Reports a padding that
// is not zero through *clean.
int PassData(const Archive& archive, const EntryView& view, int out, bool* clean) {
  static std::vector<unsigned char> buffer(ChunkSize);
  const uint64_t start = view.offset + Block;
  const uint64_t padded = CtarPaddedSize(view.size);
  *clean = true;
  for (uint64_t done = 0; done < padded;) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(buffer.size(), padded - done));
    ssize_t got = ReadAt(archive, buffer.data(), want, start + done);
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
    if (out >= 0 && !WriteAll(out, buffer.data(), want)) return DataWriteFailed;
    done += want;
    CurrentProgress.Update(start + done);
  }
  return DataDone;
}

// Walks the whole archive: the chain a restore follows, and behind every
// place where a restore would stop (a premature sentinel, a damaged header)
// a scan for the entries that lie hidden there. With read_data every entry's
// data is read as well, so an unreadable disk shows up and the padding is
// checked. A status: whole (the survey ran; judge it by its contents), not
// an archive, or unreadable.
int RunSurvey(Archive& archive, const char* what, bool read_data, Survey* survey) {
  if (archive.size == 0) {
    Complain("%s: empty, not a CTAR archive", archive.shown);
    return StatusNotArchive;
  }
  if (archive.size < Block) {
    Complain("%s: only %llu bytes, not a CTAR archive", archive.shown, Ull(archive.size));
    return StatusNotArchive;
  }
  CurrentProgress.Start(what, archive.size);
  unsigned char block[CtarBlockSize];
  uint64_t offset = 0;
  bool hidden = false;
  int status = StatusWhole;

  // Marks where a restore stops (the first time) and scans for the next
  // entry from `from`; the range from `drop` up to it is dropped for the
  // given reason. false when nothing more is to be found.
  auto resume = [&](uint64_t stop, uint64_t drop, uint64_t from, const std::string& reason,
                    bool lost) {
    if (!survey->restore_stops_early) {
      survey->restore_stops_early = true;
      survey->restore_stop = stop;
    }
    hidden = true;
    uint64_t found = 0;
    int scanned = ScanForHeader(archive, from, &found);
    if (scanned < 0) {
      Complain("%s: read error while looking for headers behind offset 0x%llX: %s", archive.shown,
               Ull(from), strerror(errno));
      status = StatusUnreadable;
      return false;
    }
    uint64_t end = scanned == 0 ? found : archive.size;
    if (end > drop) survey->dropped.push_back({drop, end - drop, reason, lost});
    if (scanned != 0) return false;
    offset = found;
    return true;
  };

  for (;;) {
    if (offset == archive.size) {
      Note(survey, "the archive ends at offset 0x%llX without its sentinel", Ull(offset));
      break;
    }
    EntryView view;
    uint64_t size = 0;
    const int judged = JudgeAt(archive, offset, &size, view.name, sizeof view.name, block);
    if (judged == JudgeReadFailed) {
      Complain("%s: read error at offset 0x%llX: %s", archive.shown, Ull(offset), strerror(errno));
      status = StatusUnreadable;
      break;
    }
    if (judged == JudgeBeyondEnd) {
      Note(survey, "truncated: the archive ends inside the block at offset 0x%llX", Ull(offset));
      survey->dropped.push_back({offset, archive.size - offset,
                                 "a piece of a header block at the end of the file", true});
      break;
    }
    if (offset == 0 && !LooksLikeArchiveStart(judged, block)) {
      Complain("%s: not a CTAR archive: its first block is no CTAR header", archive.shown);
      status = StatusNotArchive;
      break;
    }
    if (judged == CtarBadChecksum || judged == CtarBadSize) {
      const char* what_is_bad = judged == CtarBadChecksum ? "bad header checksum"
                                                          : "unreadable size field";
      Note(survey, "%s at offset 0x%llX%s", what_is_bad, Ull(offset),
           hidden ? "" : ": a restore stops here");
      char reason[128];
      FormatBounded(reason, sizeof reason, "the entry whose header at 0x%llX is damaged (%s)",
                    Ull(offset), what_is_bad);
      if (!resume(offset, offset, offset + Block, reason, true)) break;
      continue;
    }
    if (judged == CtarEnd) {
      if (offset + Block == archive.size) {
        survey->final_sentinel = true;
        survey->sentinel = offset;
        break;
      }
      Note(survey, "%llu bytes lie behind the sentinel at offset 0x%llX%s",
           Ull(archive.size - offset - Block), Ull(offset),
           hidden ? "" : ": the trace of a broken retrieval; a restore stops at this sentinel");
      char reason[160];
      FormatBounded(reason, sizeof reason,
                    "data behind the sentinel at 0x%llX that no header describes (the partial "
                    "save file of a broken retrieval)",
                    Ull(offset));
      if (!resume(offset, offset + Block, offset + Block, reason, false)) break;
      continue;
    }
    Describe(block, offset, size, &view);
    if (const char* oddity = CtarHeaderOddity(block)) {
      if (hidden) {
        // Behind a break only genuine headers count: this one may be part
        // of the data the scan skipped.
        char reason[CtarBlockSize + 96];
        FormatBounded(reason, sizeof reason, "a block at 0x%llX that looks like a header of %s "
                      "but whose %s is not as a backup writes it", Ull(offset), view.name, oddity);
        if (!resume(offset, offset, offset + Block, reason, true)) break;
        continue;
      }
      // A restore accepts the header; it is still not as the backup wrote it.
      Note(survey, "the header of %s at offset 0x%llX: its %s is not as a backup writes it",
           view.name, Ull(offset), oddity);
    }
    const uint64_t next = size <= static_cast<uint64_t>(INT64_MAX)
                              ? offset + Block + CtarPaddedSize(size)
                              : UINT64_MAX;
    if (next > archive.size) {
      Note(survey, "truncated: the data of %s (header at offset 0x%llX, %llu bytes) runs past the "
           "end of the file", view.name, Ull(offset), Ull(size));
      char reason[CtarBlockSize + 64];
      FormatBounded(reason, sizeof reason, "the truncated entry %s", view.name);
      survey->dropped.push_back({offset, archive.size - offset, reason, true});
      break;
    }
    if (read_data) {
      bool clean = true;
      int result = PassData(archive, view, -1, &clean);
      if (result == DataReadFailed) {
        Complain("%s: read error in the data of %s (header at offset 0x%llX): %s", archive.shown,
                 view.name, Ull(offset), strerror(errno));
        status = StatusUnreadable;
        break;
      }
      if (result == DataEnded) {
        Note(survey, "the file shrank while the data of %s was read", view.name);
        break;
      }
      if (!clean)
        Note(survey, "the padding behind the data of %s (header at offset 0x%llX) is not zero",
             view.name, Ull(offset));
    }
    survey->entries.push_back({view, hidden});
    survey->data_bytes += size;
    offset = next;
    CurrentProgress.Update(offset);
  }
  CurrentProgress.Finish(survey->final_sentinel ? archive.size : offset);
  return status;
}

// verify and salvage read the archive out of order (looking ahead behind a
// candidate header), which a pipe cannot do.
int NeedSeekable(const Archive& archive, const char* command) {
  if (archive.seekable) return StatusWhole;
  Complain("%s: %s needs an archive it can seek in; save the stream to a file first",
           archive.shown, command);
  return StatusUsage;
}

// ---------------------------------------------------------------------------
// Commands
// ---------------------------------------------------------------------------

struct Options {
  bool verbose = false;
  bool json = false;
  const char* directory = nullptr;
  std::vector<const char*> operands;
};

int FlushStandardOutput(int status) {
  if (fflush(stdout) != 0 || ferror(stdout)) {
    Complain("standard output: write failed: %s", strerror(errno));
    return Worse(status, StatusWriteFailed);
  }
  return status;
}

int ListCommand(const Options& options) {
  const char* path = options.operands[0];
  if (options.json) {
    fputs("{\"archive\": ", stdout);
    PrintJsonString(stdout, path);
    fputs(", \"entries\": [", stdout);
  }
  Archive archive;
  int status = OpenArchive(path, &archive);
  bool first = true;
  if (status == StatusWhole)
    status = WalkArchive(archive, "list", [&](const EntryView& view) {
      if (options.json) {
        PrintJsonEntry(stdout, view, first);
        first = false;
      } else {
        PrintEntryLine(stdout, view, options.verbose);
      }
      return TakeData(archive, view, -1);
    });
  if (options.json) {
    fprintf(stdout, "%s], \"whole\": %s, \"status\": %d, \"problem\": ", first ? "" : "\n",
            status == StatusWhole ? "true" : "false", status);
    if (status == StatusWhole)
      fputs("null", stdout);
    else
      PrintJsonString(stdout, LastProblem);
    fputs("}\n", stdout);
  }
  return FlushStandardOutput(status);
}

// The file an entry's save file is written to: the name without its leading
// slashes, each '/' and control character turned into '_', and a leading
// '.' or '-' too, so that no name leaves the directory, hides itself or
// reads as an option; then ".savf". Names that come out alike get "~2",
// "~3", ... before the suffix.
std::string SafeFileName(const char* name, std::set<std::string>* used) {
  std::string base;
  const char* p = name;
  while (*p == '/') p++;
  for (; *p; p++) {
    auto c = static_cast<unsigned char>(*p);
    base += (c == '/' || c < 0x20 || c == 0x7F) ? '_' : static_cast<char>(c);
  }
  if (base.empty()) base = "_";
  if (base[0] == '.' || base[0] == '-') base[0] = '_';
  // A file name holds at most 255 bytes; keep room for "~nnnnnn.savf" and
  // do not leave half a UTF-8 character at the cut.
  constexpr size_t Room = 255 - 12;
  if (base.size() > Room) {
    base.resize(Room);
    while (!base.empty() && (static_cast<unsigned char>(base.back()) & 0xC0) == 0x80)
      base.pop_back();
    if (!base.empty() && static_cast<unsigned char>(base.back()) >= 0xC0) base.pop_back();
  }
  std::string file = base + CtarDirectorySuffix;
  for (int n = 2; used->count(file); n++)
    file = base + "~" + std::to_string(n) + CtarDirectorySuffix;
  used->insert(file);
  return file;
}

int ExtractCommand(const Options& options) {
  Archive archive;
  int status = OpenArchive(options.operands[0], &archive);
  if (status != StatusWhole) return status;
  UniqueFd directory_fd;
  int directory = AT_FDCWD;
  if (options.directory) {
    directory_fd.Reset(open(options.directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory_fd.Get() < 0) {
      Complain("%s: cannot open the directory: %s", options.directory, strerror(errno));
      return StatusWriteFailed;
    }
    directory = directory_fd.Get();
  }
  std::vector<const char*> wanted(options.operands.begin() + 1, options.operands.end());
  std::vector<bool> seen(wanted.size(), false);
  std::set<std::string> used;

  status = WalkArchive(archive, "extract", [&](const EntryView& view) {
    bool take = wanted.empty();
    for (size_t i = 0; i < wanted.size(); i++)
      if (strcmp(wanted[i], view.name) == 0) take = seen[i] = true;
    if (!take) return TakeData(archive, view, -1);

    const std::string file = SafeFileName(view.name, &used);
    UniqueFd out(openat(directory, file.c_str(),
                        O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (out.Get() < 0) {
      Complain("%s: cannot create: %s", file.c_str(), strerror(errno));
      return static_cast<int>(StatusWriteFailed);
    }
    int result = TakeData(archive, view, out.Get());
    if (result == StatusWhole && view.has_mtime) {
      // The save file keeps the object's time, as tar keeps a member's.
      struct timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(view.mtime), 0}};
      futimens(out.Get(), times);
    }
    if (!out.Close() && result == StatusWhole) {
      Complain("%s: write failed: %s", file.c_str(), strerror(errno));
      result = StatusWriteFailed;
    }
    if (result != StatusWhole) {
      // Half a save file must not be mistaken for one by whoever moves it.
      unlinkat(directory, file.c_str(), 0);
      return result;
    }
    PrintName(stdout, view.name);
    fputs(" -> ", stdout);
    PrintName(stdout, file.c_str());
    fputc('\n', stdout);
    return static_cast<int>(StatusWhole);
  });
  for (size_t i = 0; i < wanted.size(); i++)
    if (!seen[i]) {
      Complain("%s: not in the archive %s", wanted[i], archive.shown);
      status = Worse(status, StatusNotFound);
    }
  return FlushStandardOutput(status);
}

int VerifyCommand(const Options& options) {
  Archive archive;
  int status = OpenArchive(options.operands[0], &archive);
  if (status == StatusWhole) status = NeedSeekable(archive, "verify");
  if (status != StatusWhole) return status;
  Survey survey;
  status = RunSurvey(archive, "verify", true, &survey);
  if (status != StatusWhole) return FlushStandardOutput(status);

  size_t reachable = 0, hidden = 0;
  for (const FoundEntry& entry : survey.entries) {
    if (entry.hidden) {
      hidden++;
      fputs("hidden: ", stdout);
      PrintEntryLine(stdout, entry.view, true);
    } else {
      reachable++;
      if (options.verbose) {
        fputs("entry: ", stdout);
        PrintEntryLine(stdout, entry.view, true);
      }
    }
  }
  for (const std::string& problem : survey.problems) printf("damaged: %s\n", problem.c_str());

  char data[32];
  HumanBytes(survey.data_bytes, data, sizeof data);
  if (survey.problems.empty()) {
    printf("result: whole: %zu entries, %s of data, ended by the sentinel at offset 0x%llX\n",
           reachable, data, Ull(survey.sentinel));
    return FlushStandardOutput(StatusWhole);
  }
  if (survey.restore_stops_early)
    printf("result: damaged: a restore stops at offset 0x%llX after %zu %s; %zu more %s "
           "behind it%s\n",
           Ull(survey.restore_stop), reachable, reachable == 1 ? "entry" : "entries", hidden,
           hidden == 1 ? "entry lies" : "entries lie",
           hidden ? " (ctar salvage writes an archive that holds them)" : "");
  else
    printf("result: damaged: %zu entries, %zu %s\n", reachable, survey.problems.size(),
           survey.problems.size() == 1 ? "problem" : "problems");
  return FlushStandardOutput(StatusDamaged);
}

// Where salvage writes: a temporary file beside OUT, renamed over it only
// once the new archive is complete, or standard output.
struct SalvageOutput {
  UniqueFd owned;
  int fd = -1;
  std::vector<char> temporary;  // mkstemp's template, then the name
  const char* path = nullptr;
};

int OpenSalvageOutput(const char* path, const Archive& archive, SalvageOutput* output) {
  output->path = path;
  if (strcmp(path, "-") == 0) {
    if (isatty(STDOUT_FILENO)) {
      Complain("standard output is a terminal; give a file for the salvaged archive");
      return StatusUsage;
    }
    output->fd = STDOUT_FILENO;
    return StatusWhole;
  }
  struct stat in{}, out{};
  if (archive.owned.Get() >= 0 && fstat(archive.fd, &in) == 0 && stat(path, &out) == 0 &&
      in.st_dev == out.st_dev && in.st_ino == out.st_ino) {
    Complain("%s: is the archive being salvaged; write the new archive to another file", path);
    return StatusUsage;
  }
  std::string pattern = std::string(path) + ".XXXXXX";
  output->temporary.assign(pattern.begin(), pattern.end());
  output->temporary.push_back('\0');
  int fd = mkstemp(output->temporary.data());  // mode 0600, as backups are made
  if (fd < 0) {
    Complain("%s: cannot create: %s", pattern.c_str(), strerror(errno));
    return StatusWriteFailed;
  }
  output->owned.Reset(fd);
  output->fd = fd;
  return StatusWhole;
}

int FinishSalvageOutput(SalvageOutput* output, bool keep) {
  if (output->temporary.empty()) return StatusWhole;
  const char* temporary = output->temporary.data();
  if (keep) {
    if (fsync(output->fd) != 0 || !output->owned.Close()) {
      Complain("%s: write failed: %s", temporary, strerror(errno));
      keep = false;
    } else if (rename(temporary, output->path) != 0) {
      Complain("%s: cannot rename to %s: %s", temporary, output->path, strerror(errno));
      keep = false;
    }
  }
  if (!keep) {
    output->owned.Close();
    unlink(temporary);
    return StatusWriteFailed;
  }
  return StatusWhole;
}

int SalvageCommand(const Options& options) {
  Archive archive;
  int status = OpenArchive(options.operands[0], &archive);
  if (status == StatusWhole) status = NeedSeekable(archive, "salvage");
  if (status != StatusWhole) return status;
  Survey survey;
  status = RunSurvey(archive, "salvage: survey", false, &survey);
  if (status != StatusWhole) return status;

  SalvageOutput output;
  status = OpenSalvageOutput(options.operands[1], archive, &output);
  if (status != StatusWhole) return status;
  // Reports go to standard error when the archive itself goes to standard
  // output.
  FILE* report = output.fd == STDOUT_FILENO ? stderr : stdout;

  CurrentProgress.Start("salvage", archive.size);
  size_t recovered = 0;
  bool written = true;
  for (const FoundEntry& entry : survey.entries) {
    // The header goes over exactly as the backup wrote it; the library
    // judged it good during the survey.
    unsigned char header[CtarBlockSize];
    uint64_t size = 0;
    int judged = JudgeAt(archive, entry.view.offset, &size, nullptr, 0, header);
    int result = DataReadFailed;
    bool clean = true;
    if (judged == CtarEntry && size == entry.view.size) {
      result = WriteAll(output.fd, header, sizeof header) ? DataDone : DataWriteFailed;
      if (result == DataDone) result = PassData(archive, entry.view, output.fd, &clean);
    } else if (judged != JudgeReadFailed) {
      errno = EIO;  // the header changed since the survey
    }
    if (result == DataWriteFailed) {
      Complain("%s: write failed: %s", options.operands[1], strerror(errno));
      status = StatusWriteFailed;
      written = false;
      break;
    }
    if (result != DataDone) {
      Complain("%s: read error in %s (header at offset 0x%llX): %s", archive.shown,
               entry.view.name, Ull(entry.view.offset), strerror(errno));
      status = StatusUnreadable;
      written = false;
      break;
    }
    if (entry.hidden) {
      recovered++;
      fputs("recovered: ", report);
      PrintEntryLine(report, entry.view, true);
    } else if (options.verbose) {
      fputs("kept: ", report);
      PrintEntryLine(report, entry.view, true);
    }
  }
  if (written) {
    unsigned char sentinel[CtarBlockSize];
    if (!WriteAll(output.fd, BuildCtarSentinel(sentinel), sizeof sentinel)) {
      Complain("%s: write failed: %s", options.operands[1], strerror(errno));
      status = StatusWriteFailed;
      written = false;
    }
  }
  CurrentProgress.Finish(archive.size);
  if (FinishSalvageOutput(&output, written) != StatusWhole)
    status = Worse(status, StatusWriteFailed);
  if (!written) return FlushStandardOutput(status);

  uint64_t dropped_bytes = 0;
  bool lost = false;
  for (const DroppedRange& range : survey.dropped) {
    fprintf(report, "dropped: 0x%010llX %llu bytes: %s\n", Ull(range.offset), Ull(range.length),
            range.reason.c_str());
    dropped_bytes += range.length;
    lost = lost || range.lost;
  }
  fprintf(report, "result: %s: %zu entries written, %zu of them recovered from behind a place "
          "where a restore stops; %llu bytes dropped%s\n",
          output.fd == STDOUT_FILENO ? "standard output" : options.operands[1],
          survey.entries.size(), recovered, Ull(dropped_bytes),
          lost ? ", among them damaged or truncated entries" : "");
  if (report == stderr) fflush(stderr);
  return FlushStandardOutput(lost ? StatusDamaged : StatusWhole);
}

// ---------------------------------------------------------------------------
// Command line
// ---------------------------------------------------------------------------

const char UsageText[] =
    "Usage: ctar COMMAND [OPTION...] ARCHIVE [ARGUMENT...]\n"
    "Lists, verifies, extracts and salvages CTAR archives written by vondral.\n"
    "\n"
    "Commands:\n"
    "  list ARCHIVE                one line per entry: kind, size, modification time,\n"
    "                              the name a restore uses (-v: the header offset first)\n"
    "  verify ARCHIVE              reads everything and checks every header, size,\n"
    "                              the data and the single sentinel at the end; names\n"
    "                              the entries a broken retrieval hid from a restore\n"
    "  extract ARCHIVE [NAME...]   writes the save file of each named entry (all by\n"
    "                              default) as NAME made safe as a file name + .savf\n"
    "  salvage ARCHIVE OUT         writes a whole archive of every entry that can be\n"
    "                              recovered, hidden ones included, and reports the rest\n"
    "\n"
    "ARCHIVE may be \"-\" for standard input; verify and salvage need a file they can\n"
    "seek in. OUT may be \"-\" for standard output (not a terminal).\n"
    "\n"
    "Options:\n"
    "  -v, --verbose          list: show header offsets; verify, salvage: every entry\n"
    "      --json             list: one JSON document for scripts\n"
    "  -C, --directory DIR    extract: write the files into DIR (default: here)\n"
    "      --progress         always show progress on standard error\n"
    "      --no-progress      never show it (default: when standard error is a\n"
    "                         terminal and the archive is over 4 GiB)\n"
    "  -h, --help             this text\n"
    "\n"
    "Exit status:\n"
    "  0   success; verify: the archive is whole\n"
    "  1   damaged: truncated, a bad header, data behind the sentinel, no sentinel;\n"
    "      salvage: the new archive is written but damaged entries were lost\n"
    "  2   not a CTAR archive: empty, a directory, or no CTAR header at its start\n"
    "  3   unreadable: the archive cannot be opened or read\n"
    "  4   an output file or standard output cannot be written\n"
    "  5   extract: a named entry is not in the archive\n"
    "  64  the command line is wrong\n";

int Usage(FILE* stream, int status) {
  fputs(UsageText, stream);
  return status;
}

// What a command takes: how many operands, and which of the options.
struct CommandRow {
  const char* name;
  int (*run)(const Options&);
  size_t least;
  size_t most;  // SIZE_MAX: any number
  bool json;
  bool directory;
};

const CommandRow Commands[] = {
    {"list", ListCommand, 1, 1, true, false},
    {"verify", VerifyCommand, 1, 1, false, false},
    {"extract", ExtractCommand, 1, SIZE_MAX, false, true},
    {"salvage", SalvageCommand, 2, 2, false, false},
};

enum LongOnly { OptionJson = 256, OptionProgress, OptionNoProgress };

int CtarMain(int argc, char** argv) {
  if (argc < 2) {
    Complain("no command given");
    return Usage(stderr, StatusUsage);
  }
  if (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0 ||
      strcmp(argv[1], "help") == 0)
    return Usage(stdout, StatusWhole);
  const CommandRow* command = nullptr;
  for (const CommandRow& row : Commands)
    if (strcmp(argv[1], row.name) == 0) command = &row;
  if (!command) {
    Complain("unknown command '%s'", argv[1]);
    return Usage(stderr, StatusUsage);
  }

  static const struct option longs[] = {
      {"verbose", no_argument, nullptr, 'v'},
      {"json", no_argument, nullptr, OptionJson},
      {"directory", required_argument, nullptr, 'C'},
      {"progress", no_argument, nullptr, OptionProgress},
      {"no-progress", no_argument, nullptr, OptionNoProgress},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  Options options;
  bool bad = false;
  opterr = 0;
  optind = 1;
  // The command takes getopt's argv[0] place; options may come anywhere.
  char** arguments = argv + 1;
  const int count = argc - 1;
  // GNU getopt moves the operands behind the options, so they may be mixed
  // ("ctar extract a.ctar /QDLS -C out"); "--" ends the options.
  for (int c; (c = getopt_long(count, arguments, "vC:h", longs, nullptr)) != -1;) {
    switch (c) {
      case 'v': options.verbose = true; break;
      case OptionJson:
        if (!command->json) Complain("--json applies to list only"), bad = true;
        options.json = true;
        break;
      case 'C':
        if (!command->directory) Complain("-C applies to extract only"), bad = true;
        options.directory = optarg;
        break;
      case OptionProgress: ProgressSetting = ProgressMode::Always; break;
      case OptionNoProgress: ProgressSetting = ProgressMode::Never; break;
      case 'h': return Usage(stdout, StatusWhole);
      default:
        if (optopt == 'C')
          Complain("-C needs a directory");
        else if (optopt)
          Complain("unknown option -%c", optopt);
        else
          Complain("unknown option %s", arguments[optind - 1]);
        bad = true;
        break;
    }
  }
  for (int i = optind; i < count; i++) options.operands.push_back(arguments[i]);
  if (options.operands.size() < command->least || options.operands.size() > command->most) {
    Complain("%s takes %s", command->name,
             command->least == command->most
                 ? (command->least == 1 ? "one archive" : "an archive and an output file")
                 : "an archive and optionally entry names");
    bad = true;
  }
  if (bad) return Usage(stderr, StatusUsage);
  return command->run(options);
}

}  // namespace

int main(int argc, char** argv) {
  ProgramName = "ctar";
  return CtarMain(argc, argv);
}
