// The restore driver: one pass over a CTAR archive on the main thread,
// header after header, each entry either uploaded and restored by the
// restore command family or skipped without being sent.
#include "restore/restore.h"

#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "archive/ctar_format.h"
#include "archive/reader.h"
#include "cli/settings.h"
#include "ftp/session.h"
#include "restore/entry_selection.h"
#include "restore/restore_commands.h"
#include "support/log.h"
#include "support/run_progress.h"
#include "support/run_record.h"
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

const char* ArchivePath() { return Settings.restore_path ? Settings.restore_path : "-"; }

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

enum class Outcome { Restored, Skipped, Failed };

// Why the entry in hand failed, when its restore command said so; else the
// last failure line printed for the entry is the reason.
std::string EntryFailureReason;

// With -vv: how long the upload and the restore command of an entry took.
void ReportEntryTimes(const RestoreTimes& times, int64_t size) {
  const char* unit = "";
  if (times.transfer_seconds > 0) {
    double rate = ScaleAmount(static_cast<double>(size) / times.transfer_seconds, &unit);
    LogMessage("Transfer : %7.3f s %.3f %sB/s\n", times.transfer_seconds, rate, unit);
  }
  if (times.restore_seconds > 0) {
    double rate = ScaleAmount(static_cast<double>(size) / times.restore_seconds, &unit);
    LogMessage("Restore  : %7.3f s %.3f %sB/s\n", times.restore_seconds, rate, unit);
  }
}

// Decides what becomes of one entry and, when it is wanted, restores it.
Outcome ProcessEntry(FtpSession* session, const char* name, ArchiveReader* reader) {
  StringList* objects = SelectEntryObjects(name);
  if (!objects) return Outcome::Skipped;
  const DispatchRow& row = RowFor(name);
  RestoreTimes times{};
  if (row.run(session, name, objects, &times, reader) != 0) {
    // The restore command's own failure, before the entry's general line.
    std::string reason;
    if (LastFailureLine(&reason)) EntryFailureReason = reason;
    row.report();
    FreeStringList(objects);
    return Outcome::Failed;
  }
  if (Settings.verbosity >= 2) ReportEntryTimes(times, reader->size);
  FreeStringList(objects);
  return Outcome::Restored;
}

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

// Reads the header block at offset. 0, or -1 after saying why there is none:
// the read failed, or the archive ended inside or before the block.
int ReadHeaderBlock(int descriptor, unsigned char* block, int64_t offset) {
  // Cleared first, so that a failed read leaves nothing of a previous
  // header to be taken for a new one.
  memset(block, 0, CtarBlockSize);
  ssize_t got = ReadArchiveFully(descriptor, block, CtarBlockSize);
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

// Whether the entry whose header is at offset ends, its data rounded up to
// blocks, no further than CtarLargestSize. Both are whole blocks, so a size
// within the room left rounds up within it too.
bool EntryEndFits(int64_t offset, uint64_t size) {
  const uint64_t data_at = static_cast<uint64_t>(offset) + CtarBlockSize;
  return offset >= 0 && data_at <= CtarLargestSize && size <= CtarLargestSize - data_at;
}

// What the driver makes of a header block.
enum class HeaderVerdict { Entry, End, Damaged };

// Judges the header at offset: an entry (its data size in *size), the end
// block, or a header the restore cannot go past (said why).
HeaderVerdict JudgeEntryHeader(const unsigned char* header, int64_t offset, int64_t* size) {
  uint64_t stored_size = 0;
  const int judged = ReadCtarHeader(header, &stored_size, nullptr, 0);
  if (judged == CtarBadChecksum) {
    LogMessageTo(stderr, "%s: bad header checksum at offset 0x%llX\n", ProgramName,
                 static_cast<unsigned long long>(offset));
    return HeaderVerdict::Damaged;
  }
  if (judged == CtarEnd) return HeaderVerdict::End;
  // A header whose checksum holds but which no backup wrote (a tar
  // member's, say) ends the restore like a damaged one.
  const char* oddity = judged == CtarEntry ? CtarHeaderOddity(header) : nullptr;
  if (oddity) {
    LogMessageTo(stderr, "%s: bad header at offset 0x%llX: its %s is not as a backup writes it\n",
                 ProgramName, static_cast<unsigned long long>(offset), oddity);
    return HeaderVerdict::Damaged;
  }
  // The entry must end where a signed 64-bit offset still reaches: a size
  // near 2^63 could not be rounded up to blocks, skipped or counted.
  if (judged == CtarBadSize || !EntryEndFits(offset, stored_size)) {
    VFAIL("bad file size at offset 0x%llX\n", static_cast<unsigned long long>(offset));
    return HeaderVerdict::Damaged;
  }
  *size = static_cast<int64_t>(stored_size);
  return HeaderVerdict::Entry;
}

// Names the entry of the header (into name, CtarBlockSize bytes) and
// restores it when it is wanted.
Outcome RestoreNamedEntry(FtpSession* session, const unsigned char* header, ArchiveReader* reader,
                          char* name) {
  name[0] = '\0';
  if (ReadCtarName(name, CtarBlockSize, header) > static_cast<int>(CtarBlockSize) - 1) {
    VFAIL("path too long\n");
    return Outcome::Failed;
  }
  CtarEntryName(header, name, CtarBlockSize);
  LogMessage("Archive  : %s\n", name);
  ProgressInHand(name);
  const Outcome outcome = ProcessEntry(session, name, reader);
  // Whatever became of the upload, no read of this entry is left in flight
  // when the archive moves on.
  StopReadingAhead();
  return outcome;
}

// One pass over the archive: where it stands and how it fared.
struct RestorePass {
  FtpSession* session;
  int descriptor;
  int64_t offset = 0;  // of the current header; at the end, the bytes read
  // Every entry that was selected and not restored counts; a fatal error
  // (the archive cannot be read on) decides the run alone.
  int failures = 0;
  bool fatal = false;
  // Entries by outcome, for the summary.
  uint64_t restored = 0;
  uint64_t skipped = 0;
  uint64_t failed = 0;
};

// Restores or skips the entry of the header and moves the pass to the next
// header. false when the pass ends here: a run that is ending, or an
// archive that cannot be read on (fatal).
bool HandleEntry(RestorePass* pass, const unsigned char* header, int64_t size) {
  ArchiveReader reader{pass->descriptor, 0, size, size};
  ProgressPosition(static_cast<uint64_t>(pass->offset));
  // Every way out of this entry counts it done.
  struct CountDone {
    ~CountDone() { ProgressDone(1); }
  } count_done;
  char name[CtarBlockSize];
  ForgetFailureLine();
  EntryFailureReason.clear();
  Outcome outcome = RestoreNamedEntry(pass->session, header, &reader, name);
  // A run that is ending reads no further: skipping may mean reading
  // through gigabytes of a pipe.
  if (outcome != Outcome::Restored && TerminationRequested.load()) return false;
  if (outcome == Outcome::Skipped && SkipArchiveData(pass->descriptor, size) != 0)
    outcome = Outcome::Failed;
  if (outcome == Outcome::Restored) pass->restored++;
  if (outcome == Outcome::Skipped) pass->skipped++;
  if (outcome == Outcome::Failed) {
    std::string reason = EntryFailureReason;
    const bool said = !reason.empty() || LastFailureLine(&reason);
    RecordFailedObject(name, said ? &reason : nullptr);
    pass->failed++;
    VFAIL("failed to restore object at offset 0x%llX\n", static_cast<unsigned long long>(pass->offset));
    pass->failures++;
    // What the upload did not consume; nothing once it read the padding.
    if (SkipArchiveData(pass->descriptor, reader.left) != 0) {
      VFAIL("couldn't skip the rest of the failed object's 0x%llX bytes\n",
            static_cast<unsigned long long>(reader.left));
      pass->fatal = true;
      return false;
    }
  }
  pass->offset += Block + WholeBlocks(size);
  return true;
}

// Header after header from the first block (read by PrepareRestore) to the
// end block, a termination request or a fatal error.
void RunPass(RestorePass* pass, const unsigned char* first) {
  alignas(CtarBlockSize) unsigned char header[CtarBlockSize];
  memcpy(header, first, sizeof header);
  for (bool read_next = false;; read_next = true) {
    if (read_next) {
      if (TerminationRequested.load()) return;  // no next entry for a run that is ending
      if (ReadHeaderBlock(pass->descriptor, header, pass->offset) != 0) {
        pass->fatal = true;
        return;
      }
    }
    if (TerminationRequested.load()) return;
    int64_t size = 0;
    const HeaderVerdict verdict = JudgeEntryHeader(header, pass->offset, &size);
    if (verdict == HeaderVerdict::Damaged) {
      pass->fatal = true;
      return;
    }
    if (verdict == HeaderVerdict::End) {
      if (!NothingBehindTheEnd(pass->descriptor, pass->offset + Block)) pass->failures++;
      return;
    }
    if (!HandleEntry(pass, header, size)) return;
  }
}

// The closing lines of a restore: how much was read, in how long.
void ReportRestored(int64_t bytes, const struct timeval* start) {
  struct timeval end{};
  double seconds = 0;
  if (start && gettimeofday(&end, nullptr) == 0) seconds = Seconds(end) - Seconds(*start);
  const char* unit = "";
  double amount = ScaleAmount(static_cast<double>(bytes), &unit);
  LogMessage("Restored %.3f %sBs in %f seconds\n", amount, unit, seconds);
  if (seconds > 0) {
    double rate = ScaleAmount(static_cast<double>(bytes) / seconds, &unit);
    LogMessage("%.3f %sB/s\n", rate, unit);
  }
}

// The pass's totals as the summary reports them.
void RecordRestoreTotals(const RestorePass& pass) {
  RecordedTotals totals;
  totals.attempted = pass.restored + pass.failed;
  totals.failed = pass.failed;
  totals.restored = pass.restored;
  totals.skipped = pass.skipped;
  totals.bytes = static_cast<uint64_t>(pass.offset);
  RecordTotals(totals);
}

// The size of the archive when it is a regular file; 0 (not known) for a
// pipe or anything else.
uint64_t RegularFileSize(int descriptor) {
  struct stat status{};
  if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size < 0) return 0;
  return static_cast<uint64_t>(status.st_size);
}

// After the pass: the authorities, the end of a terminated run, the report.
int FinishRestore(RestorePass* pass, const struct timeval* start) {
  RecordRestoreTotals(*pass);
  // Private authorities refer to the profiles, so they come back once,
  // after every entry, and only when profiles were restored.
  if (RestoredProfiles > 0 && RestoreAuthority(pass->session) != 0) {
    VFAIL("failed to restore authority\n");
    pass->failures++;
  }
  if (TerminationRequested.load()) {
    VFAIL("Restore Terminated Cleanly\n");
    exit(EndRun(TerminationStatus()));
  }
  if (pass->fatal) return -1;
  ReportRestored(pass->offset, start);
  // Every entry restored: 0; the archive read to its end with some entry
  // (or the closing authority restore) failed: 1.
  return pass->failures > 0 ? 1 : 0;
}

}  // namespace

EntryKind EntryKindOf(const char* name) { return RowFor(name).kind; }

int PrepareRestore() {
  if (Opened.prepared) return 0;
  const char* path = ArchivePath();
  int descriptor = OpenArchive(path);
  if (descriptor < 0) return -1;
  // The first block is read here and kept: on standard input it cannot be
  // read a second time.
  if (ReadHeaderBlock(descriptor, Opened.first, 0) != 0) {
    CloseDescriptor(&descriptor);
    return -1;
  }
  // Only a CTAR archive is restored: a tar file's first header passes the
  // checksum, and its members would be uploaded and restored as save files.
  if (!CtarArchiveStart(Opened.first)) {
    LogMessageTo(stderr, "%s: %s: not a CTAR archive: its first block is no CTAR header\n", ProgramName,
                 path);
    CloseDescriptor(&descriptor);
    return -1;
  }
  Opened.descriptor = descriptor;
  Opened.prepared = true;
  return 0;
}

int RestoreArchive(FtpSession* session) {
  if (PrepareRestore() != 0) return -1;
  RestorePass pass{session, Opened.descriptor};
  Opened.prepared = false;
  Opened.descriptor = -1;
  struct timeval start{};
  const bool started = gettimeofday(&start, nullptr) == 0;
  StartRestoreProgress(RegularFileSize(pass.descriptor));
  RunPass(&pass, Opened.first);
  StopRunProgress();
  CloseDescriptor(&pass.descriptor);
  return FinishRestore(&pass, started ? &start : nullptr);
}
