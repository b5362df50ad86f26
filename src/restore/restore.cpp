// The restore driver: one pass over a CTAR archive on the main thread,
// header after header, each entry either uploaded and restored by the
// restore command family or skipped without being sent.
#include "restore/restore.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include "archive/ctar_format.h"
#include "ftp/session.h"
#include "restore/restore_commands.h"
#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"
#include "cli/path_files.h"
#include "cli/settings.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "restore.cpp";

int RestoredProfiles = 0;

namespace {

constexpr int64_t Block = static_cast<int64_t>(CtarBlockSize);

// Whole blocks a count of bytes occupies; nothing for a count of 0 or less.
int64_t WholeBlocks(int64_t count) { return count > 0 ? (count + Block - 1) / Block * Block : 0; }

const char* ArchivePath() { return Settings.restore_path ? Settings.restore_path : "-"; }

// The archive when it is a pipe or another stream rather than a file:
// -1 otherwise.
int StreamDescriptor = -1;

// One read of the archive. A stream is waited for beside the termination
// wake-up: a request must not be held up by a writer that stalls. After a
// request a stream gets the grace to bring more data; one that brings
// nothing in that time is given up (errno ECANCELED).
ssize_t ReadArchive(int descriptor, void* buffer, size_t length) {
  static bool given_up = false;  // once given up, the stream is not waited for again
  while (descriptor >= 0 && descriptor == StreamDescriptor) {
    if (given_up) {
      errno = ECANCELED;
      return -1;
    }
    const int wake = TerminationWakeDescriptor();
    const bool requested = TerminationRequested.load() != 0;
    struct pollfd set[2] = {{descriptor, POLLIN, 0}, {wake, POLLIN, 0}};
    int ready = poll(set, !requested && wake >= 0 ? 2 : 1, requested ? TerminationGraceMs : -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return -1;
    if (set[0].revents) break;
    if (requested && ready == 0) {
      given_up = true;
      errno = ECANCELED;
      return -1;
    }
    // Woken by a request: wait again, now within the grace.
  }
  return read(descriptor, buffer, length);
}

// Reads until length bytes are in, the archive ends or a read fails. A pipe
// may deliver a block in pieces; gathering them keeps every later read on a
// block boundary. Gives the bytes read, or -1 (errno set) when the very
// first read failed.
ssize_t ReadWhole(int descriptor, void* buffer, size_t length) {
  auto* at = static_cast<char*>(buffer);
  size_t got = 0;
  while (got < length) {
    ssize_t n = ReadArchive(descriptor, at + got, length - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return got > 0 ? static_cast<ssize_t>(got) : -1;
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

// The archive is read with direct I/O: a restore streams gigabytes once,
// and they need not pass through the page cache.
int OpenArchive(const char* path) {
  if (strcmp(path, "-") == 0) return 0;
  int descriptor = open(path, O_RDONLY | O_DIRECT);
  // Some file systems refuse direct I/O; the archive must be restorable
  // from wherever it lies, so read it the ordinary way there.
  if (descriptor < 0 && errno == EINVAL) descriptor = open(path, O_RDONLY);
  if (descriptor < 0) {
    VFAIL("open(%s): %s\n", path, strerror(errno));
    return -1;
  }
  return descriptor;
}

// Amounts and rates of a restore step by 1000 above 2000; the unit is text,
// because plain bytes show no letter at all ("0.000 Bs").
double ScaleAmount(double value, const char** unit) {
  char letter = ' ';
  double scaled = ScaleDecimal(value, &letter);
  switch (letter) {
    case 'K': *unit = "K"; break;
    case 'M': *unit = "M"; break;
    case 'G': *unit = "G"; break;
    default: *unit = ""; break;
  }
  return scaled;
}

double Seconds(const struct timeval& t) {
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
}

// One row of the dispatch table: which entry names it takes, how it calls
// its restore command, and how it reports a failure.
struct DispatchRow {
  const char* name;  // exact name, or prefix when `prefix` is set; nullptr: anything
  bool prefix;
  EntryKind kind;  // what the row restores, for EntryKindOf
  int (*run)(FtpSession* session, const char* name, const StringList* objects,
             RestoreTimes* times, ArchiveReader* reader);
  void (*report)();
};

// Tested top to bottom; the name alone says what kind of object an entry
// holds.
const DispatchRow DispatchTable[] = {
    {"/QDLS", false, EntryKind::Documents,
     [](FtpSession* s, const char* name, const StringList*, RestoreTimes* t, ArchiveReader* r) {
       return RestoreDocuments(s, name, t, ArchiveReadCallback, r);
     },
     [] { VFAIL("DL objects restore failed\n"); }},
    {"/System Configuration", false, EntryKind::Configuration,
     [](FtpSession* s, const char* name, const StringList*, RestoreTimes* t, ArchiveReader* r) {
       return RestoreConfiguration(s, name, t, ArchiveReadCallback, r);
     },
     [] { VFAIL("configuration restore failed\n"); }},
    {"/Security Data", false, EntryKind::SecurityData,
     [](FtpSession* s, const char* name, const StringList*, RestoreTimes* t, ArchiveReader* r) {
       int result = RestoreUserProfiles(s, name, t, ArchiveReadCallback, r);
       if (result == 0) RestoredProfiles++;
       return result;
     },
     [] { VFAIL("user profile restore failed\n"); }},
    {"/QSYS.LIB/", true, EntryKind::Library,
     [](FtpSession* s, const char*, const StringList* objects, RestoreTimes* t, ArchiveReader* r) {
       return RestoreLibrary(s, objects->first, t, ArchiveReadCallback, r);
     },
     [] { VFAIL("library restore failed\n"); }},
    {nullptr, false, EntryKind::Ifs,
     [](FtpSession* s, const char*, const StringList* objects, RestoreTimes* t, ArchiveReader* r) {
       return RestoreIfsObjects(s, objects, t, ArchiveReadCallback, r);
     },
     [] { VFAIL("IFS object restore failed\n"); }},
};

const DispatchRow& RowFor(const char* name) {
  for (const DispatchRow& row : DispatchTable) {
    if (!row.name) return row;
    if (row.prefix ? strncmp(name, row.name, strlen(row.name)) == 0 : strcmp(name, row.name) == 0)
      return row;
  }
  return DispatchTable[sizeof DispatchTable / sizeof DispatchTable[0] - 1];
}

// Unlinks and frees the pair behind `previous` (the first pair when
// previous is nullptr); gives the pair that now follows `previous`.
StringPair* DropPair(StringList* list, StringPair* previous) {
  StringPair* pair = previous ? previous->next : list->first;
  StringPair* next = pair->next;
  if (previous)
    previous->next = next;
  else
    list->first = next;
  if (list->last == pair) list->last = previous;
  list->count--;
  free(pair->first);
  free(pair->second);
  delete pair;
  return next;
}

bool Excluded(const StringPair* pair) {
  if (MatchPathFile(pair->first, nullptr, Settings.exclude) != 0) return false;
  if (Settings.verbosity >= 1)
    LogMessageTo(stderr, "%s: %s: excluded\n", ProgramName, pair->first);
  return true;
}

// Removes the excluded pairs: those behind the first in list order, then
// the first.
void ApplyExcludeFile(StringList* objects) {
  if (!Settings.exclude || !objects->first) return;
  StringPair* previous = objects->first;
  for (StringPair* pair = previous->next; pair;) {
    if (Excluded(pair)) {
      pair = DropPair(objects, previous);
    } else {
      previous = pair;
      pair = pair->next;
    }
  }
  if (Excluded(objects->first)) DropPair(objects, nullptr);
}

enum class Outcome { Restored, Skipped, Failed };

// Decides what becomes of one entry and, when it is wanted, restores it.
Outcome ProcessEntry(FtpSession* session, const char* name, ArchiveReader* reader) {
  StringList* objects = NewStringList();
  // With an include file only what it names is restored: user profiles and
  // the system configuration too, which a restore of one library must not
  // put back with ALWOBJDIF(*ALL) unasked.
  if (!Settings.include) {
    AppendStringPair(objects, name, nullptr);
  } else if (MatchPathFile(name, objects, Settings.include) >= 1) {
    if (Settings.verbosity >= 1) LogMessageTo(stderr, "%s: %s: not included\n", ProgramName, name);
    FreeStringList(objects);
    return Outcome::Skipped;
  }
  ApplyExcludeFile(objects);
  if (!objects->first) {
    FreeStringList(objects);
    return Outcome::Skipped;
  }

  const DispatchRow& row = RowFor(name);
  RestoreTimes times{};
  if (row.run(session, name, objects, &times, reader) != 0) {
    row.report();
    FreeStringList(objects);
    return Outcome::Failed;
  }
  if (Settings.verbosity >= 2) {
    const char* unit = "";
    if (times.transfer_seconds > 0) {
      double rate = ScaleAmount(static_cast<double>(reader->size) / times.transfer_seconds, &unit);
      LogMessage("Transfer : %7.3f s %.3f %sB/s\n", times.transfer_seconds, rate, unit);
    }
    if (times.restore_seconds > 0) {
      double rate = ScaleAmount(static_cast<double>(reader->size) / times.restore_seconds, &unit);
      LogMessage("Restore  : %7.3f s %.3f %sB/s\n", times.restore_seconds, rate, unit);
    }
  }
  FreeStringList(objects);
  return Outcome::Restored;
}

// Scratch page for skipping on a pipe; mapped on first need and kept, so
// that its reads stay aligned for direct I/O.
char* ScratchPage = nullptr;

// Read-ahead of one entry's data. With direct I/O every read waits for the
// device, and one 64 KiB read at a time leaves the upload waiting for each.
// So while the engine sends, reader threads read the entry's next stretch
// of whole blocks (direct, 512-aligned, into page-aligned buffers) in reads
// of 1 MiB, several in flight, and the callback hands over from them, in
// order, exactly what its own read would have given. Where a stretch comes
// back short or failed (the archive ends, or the device fails), the
// callback goes back to its own reads from that point on, so an archive cut
// short or a failing device ends the upload just as before, with the same
// message. The archive's file position is kept where the callback's own
// reads would have left it. Pipes (standard input), and files the system
// refused direct I/O for, are read as they go.
class ReadAhead {
 public:
  static constexpr int64_t Step = TransferBufferSize;  // one hand-over
  static constexpr int64_t Stretch = 16 * Step;         // one read ahead
  static constexpr int Slots = 8;                       // stretches held
  static constexpr int Readers = 4;                     // reads in flight

  // Takes over an entry's reading when it is worth it: a regular file read
  // with direct I/O (elsewhere the kernel reads ahead itself) and more than
  // a few hand-overs. Called at the entry's first hand-over.
  bool Start(const ArchiveReader* reader, int64_t room) {
    Stop();
    struct stat st{};
    const int flags = fcntl(reader->descriptor, F_GETFL);
    if (room != Step || reader->left <= 2 * Step || flags < 0 || !(flags & O_DIRECT) ||
        fstat(reader->descriptor, &st) != 0 || !S_ISREG(st.st_mode))
      return false;
    const off64_t here = lseek64(reader->descriptor, 0, SEEK_CUR);
    if (here < 0) return false;
    std::unique_lock<std::mutex> hold(lock_);
    if (!StartThreads()) return false;
    reader_ = reader;
    descriptor_ = reader->descriptor;
    base_ = here;
    total_ = WholeBlocks(reader->left);
    issued_ = 0;
    taken_ = 0;
    for (Slot& slot : slots_) slot.state = SlotState::Free;
    active_ = true;
    work_.notify_all();
    return true;
  }

  bool Serves(const ArchiveReader* reader) const { return active_ && reader_ == reader; }

  // The next hand-over's bytes (its padding included) from what was read
  // ahead: the count, or -1 when the callback must read for itself from
  // here on (the read-ahead has then ended).
  ssize_t Take(char* buffer) {
    std::unique_lock<std::mutex> hold(lock_);
    const int64_t stretch = taken_ / Stretch;
    Slot& slot = slots_[stretch % Slots];
    done_.wait(hold, [&] { return slot.state == SlotState::Ready; });
    const int64_t within = taken_ - stretch * Stretch;
    const int64_t length = std::min(Step, total_ - taken_);
    if (slot.got != slot.length) {
      // A short or failed stretch: where the file position stands now, the
      // callback's own reads take over and meet the end or the failure.
      hold.unlock();
      Stop();
      return -1;
    }
    // A ready slot is the callback's until it is freed: copied unlocked.
    hold.unlock();
    memcpy(buffer, slot.data + within, static_cast<size_t>(length));
    hold.lock();
    taken_ += length;
    if (taken_ == total_ || taken_ % Stretch == 0) {
      slot.state = SlotState::Free;
      work_.notify_one();  // one more stretch may be read
    }
    const off64_t position = base_ + taken_;
    hold.unlock();
    // Where the callback's own reads would have left the file.
    lseek64(descriptor_, position, SEEK_SET);
    return static_cast<ssize_t>(length);
  }

  // Ends the current entry's read-ahead once the reads in flight are back.
  void Stop() {
    std::unique_lock<std::mutex> hold(lock_);
    if (!active_) return;
    active_ = false;
    done_.wait(hold, [&] {
      for (const Slot& slot : slots_)
        if (slot.state == SlotState::Reading) return false;
      return true;
    });
    reader_ = nullptr;
  }

 private:
  enum class SlotState { Free, Reading, Ready };
  struct Slot {
    char* data = nullptr;
    SlotState state = SlotState::Free;
    int64_t length = 0;
    int64_t got = 0;  // -1: the read failed
  };

  bool StartThreads() {
    if (started_) return true;
    for (Slot& slot : slots_) {
      if (slot.data) continue;
      void* mapped = mmap(nullptr, Stretch, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (mapped == MAP_FAILED) return false;
      slot.data = static_cast<char*>(mapped);
    }
    // The readers live as long as the process and are never joined.
    for (int i = 0; i < Readers; i++) std::thread([this] { Read(); }).detach();
    started_ = true;
    return true;
  }

  void Read() {
    std::unique_lock<std::mutex> hold(lock_);
    for (;;) {
      work_.wait(hold, [&] {
        return active_ && issued_ * Stretch < total_ && issued_ < taken_ / Stretch + Slots;
      });
      const int64_t index = issued_++;
      Slot& slot = slots_[index % Slots];
      slot.state = SlotState::Reading;
      slot.length = std::min(Stretch, total_ - index * Stretch);
      const int descriptor = descriptor_;
      const off64_t offset = base_ + index * Stretch;
      hold.unlock();
      int64_t got = 0;
      while (got < slot.length) {
        ssize_t n = pread64(descriptor, slot.data + got, static_cast<size_t>(slot.length - got), offset + got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) got = -1;
        if (n <= 0) break;
        got += n;
      }
      hold.lock();
      slot.got = got;
      slot.state = SlotState::Ready;
      done_.notify_one();  // only the callback (or Stop) waits
    }
  }

  std::mutex lock_;
  std::condition_variable work_;  // readers wait for stretches to read
  std::condition_variable done_;  // the callback waits for stretches read
  Slot slots_[Slots];
  bool started_ = false;
  bool active_ = false;
  const ArchiveReader* reader_ = nullptr;
  int descriptor_ = -1;
  off64_t base_ = 0;   // file offset of the entry's data
  int64_t total_ = 0;  // bytes the entry's reads cover (whole blocks)
  int64_t issued_ = 0;  // stretches handed to the readers
  int64_t taken_ = 0;   // bytes handed over
};

// Made once and never destroyed: its threads outlive every caller.
ReadAhead& Ahead() {
  static ReadAhead* ahead = new ReadAhead;
  return *ahead;
}

}  // namespace

EntryKind EntryKindOf(const char* name) { return RowFor(name).kind; }

int ArchiveReadCallback(void* argument, char* buffer, int* count) {
  auto* reader = static_cast<ArchiveReader*>(argument);
  if (!reader || !buffer || !count) {
    VFAIL("bad argument\n");
    return -1;
  }
  if (reader->left <= 0) {
    *count = 0;  // end of data
    return 0;
  }
  // The last data block carries the entry's padding along: the read stays a
  // whole number of blocks, which direct I/O needs and which leaves the
  // archive at the next header.
  const int64_t room = *count / Block * Block;
  const int64_t length = WholeBlocks(std::min(reader->left, room));
  if (length <= 0) {
    VFAIL("bad argument\n");  // a buffer smaller than one block
    return -1;
  }
  ReadAhead& ahead = Ahead();
  if (ahead.Serves(reader) && room != ReadAhead::Step) ahead.Stop();
  ssize_t got = -1;
  if (reader->calls == 0 ? ahead.Start(reader, room) : ahead.Serves(reader)) got = ahead.Take(buffer);
  if (got < 0) got = ReadWhole(reader->descriptor, buffer, static_cast<size_t>(length));
  if (got < 0) {
    VFAIL("read(%s,, %d): %s\n", ArchivePath(), static_cast<int>(length), strerror(errno));
    return -1;
  }
  // The padding is read but never sent.
  *count = static_cast<int>(std::min<int64_t>(got, reader->left));
  reader->calls++;
  reader->left -= got;
  return 0;
}

int SkipArchiveData(int descriptor, int64_t count) {
  const int64_t rounded = WholeBlocks(count);
  if (rounded == 0) return 0;
  errno = 0;
  if (lseek64(descriptor, rounded, SEEK_CUR) != -1 || errno == 0) return 0;
  // Standard input is usually a pipe, which cannot seek: read through it.
  if (errno != ESPIPE)
    VFAIL("lseek64(, 0x%llX,, SEEK_CUR): %s\n", static_cast<unsigned long long>(rounded),
          strerror(errno));
  const int page = getpagesize();
  if (!ScratchPage) {
    void* mapped =
        mmap(nullptr, static_cast<size_t>(page), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) {
      VFAIL("mmap(, %d,, MAP_ANONYMOUS): %s\n", page, strerror(errno));
      return -1;
    }
    ScratchPage = static_cast<char*>(mapped);
  }
  int64_t remaining = rounded;
  while (remaining > 0) {
    const int length = static_cast<int>(std::min<int64_t>(page, remaining));
    ssize_t got = ReadArchive(descriptor, ScratchPage, static_cast<size_t>(length));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) VFAIL("read(list, %d): %s\n", length, strerror(errno));
    if (got <= 0) {
      VFAIL("didn't finish consuming 0x%llX bytes\n", static_cast<unsigned long long>(remaining));
      return -1;
    }
    remaining -= got;
  }
  return 0;
}

namespace {

// The archive as the restore found it before logging in: its descriptor and
// its first block, already judged to be the start of a CTAR archive.
struct OpenedArchive {
  int descriptor = -1;
  bool prepared = false;
  alignas(CtarBlockSize) unsigned char first[CtarBlockSize];
};
OpenedArchive Opened;

// Whether what follows the end block of an archive file is empty. A backup
// made before a failed retrieval was always cut back could leave entries
// there; a restore never reaches them, and the operator must know.
bool NothingBehindTheEnd(int descriptor, int64_t end) {
  struct stat st{};
  if (fstat(descriptor, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= end) return true;
  const unsigned long long behind = static_cast<unsigned long long>(st.st_size - end);
  LogMessageTo(stderr,
               "%s: %llu bytes lie behind the end block at offset 0x%llX: entries there were not "
               "restored (ctar salvage recovers them)\n",
               ProgramName, behind, static_cast<unsigned long long>(end - Block));
  return false;
}

}  // namespace

namespace {

// Reads the header block at offset. 0, or -1 after saying why there is none:
// the read failed, or the archive ended inside or before the block.
int ReadHeaderBlock(int descriptor, unsigned char* block, int64_t offset) {
  // Cleared first, so that a failed read leaves nothing of a previous
  // header to be taken for a new one.
  memset(block, 0, CtarBlockSize);
  ssize_t got = ReadWhole(descriptor, block, CtarBlockSize);
  if (got < 0) {
    VFAIL("read(%s, 0x%X, %d): %s\n", ArchivePath(), static_cast<unsigned>(reinterpret_cast<uintptr_t>(block)),
          static_cast<int>(CtarBlockSize), strerror(errno));
    return -1;
  }
  if (got < static_cast<ssize_t>(CtarBlockSize)) {
    VFAIL("read short header at offset 0x%llX\n", static_cast<unsigned long long>(offset));
    return -1;
  }
  return 0;
}

}  // namespace

int PrepareRestore() {
  if (Opened.prepared) return 0;
  const char* path = ArchivePath();
  const int descriptor = OpenArchive(path);
  if (descriptor < 0) return -1;
  struct stat st{};
  StreamDescriptor = fstat(descriptor, &st) == 0 && S_ISREG(st.st_mode) ? -1 : descriptor;
  // The first block is read here and kept: on standard input it cannot be
  // read a second time.
  if (ReadHeaderBlock(descriptor, Opened.first, 0) != 0) {
    close(descriptor);
    return -1;
  }
  // Only a CTAR archive is restored: a tar file's first header passes the
  // checksum, and its members would be uploaded and restored as save files.
  if (!CtarArchiveStart(Opened.first)) {
    LogMessageTo(stderr, "%s: %s: not a CTAR archive: its first block is no CTAR header\n", ProgramName,
                 path);
    close(descriptor);
    return -1;
  }
  Opened.descriptor = descriptor;
  Opened.prepared = true;
  return 0;
}

int RestoreArchive(FtpSession* session) {
  if (PrepareRestore() != 0) return -1;
  const int descriptor = Opened.descriptor;
  Opened.prepared = false;
  Opened.descriptor = -1;
  struct timeval start{};
  const bool started = gettimeofday(&start, nullptr) == 0;
  int64_t offset = 0;
  // Every entry that was selected and not restored counts; a fatal error
  // (the archive cannot be read on) decides the run alone.
  int failures = 0;
  bool fatal = false;
  bool first = true;
  alignas(CtarBlockSize) unsigned char header[CtarBlockSize];

  for (;;) {
    if (first) {
      memcpy(header, Opened.first, sizeof header);
      first = false;
    } else {
      if (TerminationRequested.load()) break;  // no next entry for a run that is ending
      if (ReadHeaderBlock(descriptor, header, offset) != 0) {
        fatal = true;
        break;
      }
    }
    if (TerminationRequested.load()) break;

    uint64_t stored_size = 0;
    const int judged = ReadCtarHeader(header, &stored_size, nullptr, 0);
    if (judged == CtarBadChecksum) {
      LogMessageTo(stderr, "%s: bad header checksum at offset 0x%llX\n", ProgramName,
                   static_cast<unsigned long long>(offset));
      fatal = true;
      break;
    }
    if (judged == CtarEnd) {
      if (!NothingBehindTheEnd(descriptor, offset + Block)) failures++;
      break;
    }
    // A header whose checksum holds but which no backup wrote (a tar
    // member's, say) ends the restore like a damaged one.
    const char* oddity = judged == CtarEntry ? CtarHeaderOddity(header) : nullptr;
    if (oddity) {
      LogMessageTo(stderr, "%s: bad header at offset 0x%llX: its %s is not as a backup writes it\n",
                   ProgramName, static_cast<unsigned long long>(offset), oddity);
      fatal = true;
      break;
    }
    // A size beyond the signed range could not be skipped or counted.
    if (judged == CtarBadSize || stored_size > static_cast<uint64_t>(INT64_MAX)) {
      VFAIL("bad file size at offset 0x%llX\n", static_cast<unsigned long long>(offset));
      fatal = true;
      break;
    }
    const int64_t size = static_cast<int64_t>(stored_size);
    ArchiveReader reader{descriptor, 0, size, size};

    char name[CtarBlockSize];
    Outcome outcome;
    if (ReadCtarName(name, sizeof name, header) > static_cast<int>(sizeof name) - 1) {
      VFAIL("path too long\n");
      outcome = Outcome::Failed;
    } else {
      CtarEntryName(header, name, sizeof name);
      LogMessage("Archive  : %s\n", name);
      outcome = ProcessEntry(session, name, &reader);
      // Whatever became of the upload, no read of this entry is left in
      // flight when the archive moves on.
      Ahead().Stop();
    }

    // A run that is ending reads no further: skipping may mean reading
    // through gigabytes of a pipe.
    if (outcome != Outcome::Restored && TerminationRequested.load()) break;
    if (outcome == Outcome::Skipped && SkipArchiveData(descriptor, size) != 0)
      outcome = Outcome::Failed;
    if (outcome == Outcome::Failed) {
      VFAIL("failed to restore object at offset 0x%llX\n", static_cast<unsigned long long>(offset));
      failures++;
      // What the upload did not consume; nothing once it read the padding.
      if (SkipArchiveData(descriptor, reader.left) != 0) {
        VFAIL("couldn't skip the rest of the failed object's 0x%llX bytes\n",
              static_cast<unsigned long long>(reader.left));
        fatal = true;
        break;
      }
    }
    offset += Block + WholeBlocks(size);
  }
  close(descriptor);

  // Private authorities refer to the profiles, so they come back once,
  // after every entry, and only when profiles were restored.
  if (RestoredProfiles > 0 && RestoreAuthority(session) != 0) {
    VFAIL("failed to restore authority\n");
    failures++;
  }
  if (TerminationRequested.load()) {
    VFAIL("Restore Terminated Cleanly\n");
    exit(TerminationStatus());
  }
  if (fatal) return -1;

  struct timeval end{};
  double seconds = 0;
  if (started && gettimeofday(&end, nullptr) == 0) seconds = Seconds(end) - Seconds(start);
  const char* unit = "";
  double amount = ScaleAmount(static_cast<double>(offset), &unit);
  LogMessage("Restored %.3f %sBs in %f seconds\n", amount, unit, seconds);
  if (seconds > 0) {
    double rate = ScaleAmount(static_cast<double>(offset) / seconds, &unit);
    LogMessage("%.3f %sB/s\n", rate, unit);
  }
  // Every entry restored: 0; the archive read to its end with some entry
  // (or the closing authority restore) failed: 1.
  return failures > 0 ? 1 : 0;
}
