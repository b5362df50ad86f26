// The backup workers: saving one object and reporting it, saving a kind
// tree unit by unit, and the threads that do so each with a session of its
// own, started and collected for the driver.
#include "backup/workers.h"

#include <pthread.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "archive/archive_file.h"
#include "backup/backup_list.h"
#include "backup/catalog.h"
#include "backup/listing_walk.h"
#include "backup/save_commands.h"
#include "ftp/session.h"
#include "support/log.h"
#include "support/run_progress.h"
#include "support/run_record.h"
#include "support/termination.h"
#include "support/text.h"
#include "cli/settings.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "backup.cpp";

namespace {

using SaveFunction = int (*)(FtpSession*, ObjectFile*, int, TransferStats*, DataCallback, void*);

// The member of the save family an object's path calls for.
SaveFunction ChooseSave(const char* name) {
  if (strcmp(name, "/QDLS") == 0) return SAVDLO;
  if (strcmp(name, "/System Configuration") == 0) return SAVCFG;
  if (strcmp(name, "/Security Data") == 0) return SAVSECDTA;
  if (strncmp(name, "/QSYS.LIB/", 10) == 0) return SAVLIB;
  return SAV;
}

// Whether the object can go into the archive at all. A name the entry
// header cannot hold whole would be stored cut, and two objects could then
// share one entry name: the object fails instead, before anything is saved,
// and the rest of the night's backup goes on. Nothing more can be appended
// to a broken archive: no save is run for it.
bool CanBeArchived(const ObjectFile* object) {
  size_t stored = strlen(object->name) + (S_ISDIR(object->mode) ? strlen(CtarDirectorySuffix) : 0);
  if (stored > CtarMaxName) {
    VFAIL("path too long\n");
    return false;
  }
  if (ArchiveBroken) {
    VFAIL("the archive is broken: nothing more is appended\n");
    return false;
  }
  return true;
}

// The size and the rates of one saved object, in decimal units.
void ReportSaveFigures(const ArchiveWriter* writer, const TransferStats& stats) {
  char unit;
  double bytes = static_cast<double>(writer->bytes);
  if (writer->bytes >= 0) {
    double shown = ScaleDecimal(bytes, &unit);
    LogMessage("Size: %.3f %cB\n", shown, unit);
  }
  if (stats.save_seconds > 0) {
    double rate = ScaleDecimal(bytes / stats.save_seconds, &unit);
    LogMessage("Save: %7.3f s %.3f %cB/s\n", stats.save_seconds, rate, unit);
  }
  if (stats.wait_seconds > 0) LogMessage("Wait: %7.3f s\n", stats.wait_seconds);
  if (stats.transfer_seconds > 0) {
    double rate = ScaleDecimal(bytes / stats.transfer_seconds, &unit);
    LogMessage("Xfer: %7.3f s %.3f %cB/s\n", stats.transfer_seconds, rate, unit);
  }
}

// What a unit added to the archive, for the totals.
uint64_t SavedBytes(const ArchiveWriter* writer) {
  return static_cast<uint64_t>(writer->bytes > 0 ? writer->bytes : 0);
}

// A directory saved whole is one unit that counts its files. Failures add
// up; a directory with no files in it is still one object that was not
// saved.
void SaveDirectoryUnit(FtpSession* session, const ObjectNode* dir, int number, ArchiveWriter* writer,
                       BackupTotals* totals) {
  const uint64_t attempted = totals->attempted;
  totals->attempted += dir->count;
  ObjectFile* unit = NewFileNode(nullptr, dir->name, dir->mode, 0, dir->mtime);
  if (unit && ProcessObject(session, unit, number, writer, totals) == 0) {
    if (Settings.catalog) DumpTree(Settings.catalog, dir, true);
  } else {
    totals->failed += dir->count > 0 ? dir->count : 1;
    if (dir->count == 0) totals->attempted++;
  }
  if (unit) FreeFileList(unit);
  totals->bytes += SavedBytes(writer);
  ProgressDone(totals->attempted - attempted);
}

// A file unit, saved under its full path from a record made for the
// save alone, as a directory unit is: the backup list keeps no record per
// file.
void SaveFileUnit(FtpSession* session, const ObjectFile* file, const char* path, int number,
                  ArchiveWriter* writer, BackupTotals* totals) {
  totals->attempted++;
  ObjectFile* unit = NewFileNode(nullptr, path, file->mode, file->size, file->mtime);
  if (unit && ProcessObject(session, unit, number, writer, totals) == 0) {
    if (Settings.catalog) PrintFilePath(Settings.catalog, unit);
  } else {
    totals->failed++;
  }
  if (unit) FreeFileList(unit);
  totals->bytes += SavedBytes(writer);
  ProgressDone(1);
}

struct WorkerArgument {
  uint32_t number;  // the kind index
  ObjectNode* tree;
};

void AddTotals(const BackupTotals& part, BackupTotals* sum) {
  sum->attempted += part.attempted;
  sum->failed += part.failed;
  sum->save_seconds += part.save_seconds;
  sum->wait_seconds += part.wait_seconds;
  sum->transfer_seconds += part.transfer_seconds;
  sum->bytes += part.bytes;
  sum->partial += part.partial;
}

void ReportThreadTotals(uint32_t number, const BackupTotals& totals) {
  if (totals.attempted == 0) {
    LogMessage("** No objects attempted\n");
    return;
  }
  char unit;
  double bytes = ScaleBinary(static_cast<double>(totals.bytes), &unit);
  LogMessage("** Thread %d Complete\n", static_cast<int>(number));
  LogMessage("** Backed up %.3f %cB\n", bytes, unit);
  LogMessage("** Total Save Time: %.3f s\n", totals.save_seconds);
  LogMessage("** Total Wait Time: %.3f s\n", totals.wait_seconds);
  LogMessage("** Total Xfer Time: %.3f s\n", totals.transfer_seconds);
  LogMessage("** Total Blocks Attempted: %d\n", static_cast<int>(totals.attempted));
  LogMessage("** Total Blocks Failed   : %d\n", static_cast<int>(totals.failed));
}

void* BackupWorker(void* argument) {
  // Nothing may escape a thread.
  try {
    auto* work = static_cast<WorkerArgument*>(argument);
    auto* totals = new (std::nothrow) BackupTotals{};
    if (!totals) {
      VFAIL("Failed to allocate return structure\n");
      return nullptr;
    }
    uint32_t number = RegisterThread(-1);
    FtpSession* session = NewSession(Settings.server, ControlService());
    if (session && Login(session, Settings.user, Settings.passphrase) != 0) {
      VFAIL("login failed\n");
      Quit(session);
      session = nullptr;
    }
    SaveKindTree(session, work->tree, static_cast<int>(number), totals);
    if (session) Quit(session);
    if (Settings.verbosity >= 1) ReportThreadTotals(number, *totals);
    return totals;
  } catch (...) {
    VFAIL("worker ended by an unexpected error\n");
    return nullptr;
  }
}

// A tree no worker saved: every object in it failed.
void CountTreeFailed(const ObjectNode* tree, BackupTotals* sum) {
  sum->attempted += tree->count;
  sum->failed += tree->count;
}

// Adds what a worker returned, or counts its whole tree as failed.
void CollectWorker(pthread_t thread, int index, ObjectNode* tree, BackupTotals* sum) {
  void* returned = nullptr;
  pthread_join(thread, &returned);
  auto* totals = static_cast<BackupTotals*>(returned);
  if (!totals) {
    VFAIL("Failed to retrieve return structure from thread %d\n", index);
    CountTreeFailed(tree, sum);
    return;
  }
  AddTotals(*totals, sum);
  delete totals;
}

// Starts the worker of kind index on tree. Its argument, which lives until
// the worker is collected, or nullptr (the tree counted as failed) when it
// could not start.
WorkerArgument* StartWorker(int index, ObjectNode* tree, pthread_t* thread, BackupTotals* sum) {
  auto* argument = new (std::nothrow) WorkerArgument{static_cast<uint32_t>(index), tree};
  if (!argument) {
    VFAIL("Failed to allocate argument structure for thread %d\n", index);
    CountTreeFailed(tree, sum);
    return nullptr;
  }
  int error = pthread_create(thread, nullptr, BackupWorker, argument);
  if (error != 0) {
    VFAIL("pthread_create(): %s\n", strerror(error));
    CountTreeFailed(tree, sum);
    delete argument;
    return nullptr;
  }
  return argument;
}

}  // namespace

int ProcessObject(FtpSession* session, ObjectFile* object, int number, ArchiveWriter* writer,
                  BackupTotals* totals) {
  writer->objects++;
  writer->pending = 0;
  writer->calls = 0;
  writer->bytes = 0;
  writer->partial = 0;
  const SaveFunction save = ChooseSave(object->name);
  ProgressInHand(object->name);
  TransferStats stats{};
  ForgetFailureLine();
  std::string reason;
  TakePartialReason(&reason);  // none is left from an earlier object
  if (!CanBeArchived(object) || save(session, object, number, &stats, ArchiveWriteCallback, writer) != 0) {
    const bool printed = LastFailureLine(&reason);
    RecordFailedObject(object->name, printed ? &reason : nullptr);
    LogMessageTo(stderr, "Backup Failure: %s\n", object->name);
    if (Settings.notbackedup) LogMessageTo(Settings.notbackedup, "%s\n", object->name);
    writer->failures++;
    return 1;
  }
  LogMessage("Backup Success: %s\n", object->name);
  if (writer->partial) {
    totals->partial++;
    const bool given = TakePartialReason(&reason);
    RecordPartialObject(object->name, given ? &reason : nullptr);
  }
  totals->save_seconds += stats.save_seconds;
  totals->wait_seconds += stats.wait_seconds;
  totals->transfer_seconds += stats.transfer_seconds;
  if (Settings.verbosity >= 2) ReportSaveFigures(writer, stats);
  return 0;
}

namespace {

// A writer of the shared archive for one session; nullptr (after a
// message) when there is no archive to write.
std::unique_ptr<ArchiveWriter> NewWriter() {
  auto writer = std::make_unique<ArchiveWriter>();
  writer->descriptor = ArchiveDescriptor;
  writer->block = writer->storage;
  if (writer->descriptor < 0) {
    VFAIL("open(%s): %s\n", Settings.backup_path, strerror(EBADF));
    return nullptr;
  }
  return writer;
}

// The units of one kind tree, its directories saved whole first and then
// its files, handed out one at a time to the sessions that save the kind.
struct UnitQueue {
  std::mutex lock;
  const ObjectNode* next_dir = nullptr;
  FileUnitCursor files;
};

// Saves units taken from the queue until none is left; a termination
// request ends the saving before the next unit.
void SaveQueuedUnits(FtpSession* session, UnitQueue* queue, int number, ArchiveWriter* writer,
                     BackupTotals* totals) {
  char path[PathBufferSize];
  while (!TerminationRequested.load()) {
    const ObjectNode* dir = nullptr;
    const ObjectFile* file = nullptr;
    {
      std::lock_guard<std::mutex> hold(queue->lock);
      dir = queue->next_dir;
      if (dir)
        queue->next_dir = dir->next;
      else
        file = NextFileUnit(&queue->files, path, sizeof path);
    }
    if (dir)
      SaveDirectoryUnit(session, dir, number, writer, totals);
    else if (file)
      SaveFileUnit(session, file, path, number, writer, totals);
    else
      return;
  }
}


// The units of tree, counted up to limit (more are not needed).
size_t CountUnits(const ObjectNode* tree, size_t limit) {
  size_t units = 0;
  for (const ObjectNode* dir = tree->first_dir; dir && units < limit; dir = dir->next) units++;
  char path[PathBufferSize];
  for (FileUnitCursor files = FirstFileUnit(tree); units < limit && NextFileUnit(&files, path, sizeof path);)
    units++;
  return units;
}

// One more session saving units of a kind beside its worker (--sessions).
struct ExtraSession {
  UnitQueue* queue;
  pthread_t thread{};
  bool started = false;
  BackupTotals totals{};
  // Ended by an unexpected error: a unit it took may be neither saved nor
  // counted, so the whole kind counts as failed, as for its worker.
  bool broken = false;
};

void* RunExtraSession(void* argument) {
  auto* extra = static_cast<ExtraSession*>(argument);
  // Nothing may escape a thread.
  try {
    const uint32_t number = RegisterThread(-1);
    FtpSession* session = NewSession(Settings.server, ControlService());
    if (!session || Login(session, Settings.user, Settings.passphrase) != 0) {
      // The kind's other sessions save what this one would have.
      VFAIL("extra session: login failed\n");
      if (session) Quit(session);
      return nullptr;
    }
    std::unique_ptr<ArchiveWriter> writer = NewWriter();
    if (writer) SaveQueuedUnits(session, extra->queue, static_cast<int>(number), writer.get(), &extra->totals);
    Quit(session);
    if (Settings.verbosity >= 1) ReportThreadTotals(number, extra->totals);
  } catch (...) {
    VFAIL("extra session ended by an unexpected error\n");
    extra->broken = true;
  }
  return nullptr;
}

}  // namespace

int SaveKindTree(FtpSession* session, ObjectNode* tree, int number, BackupTotals* totals) {
  std::unique_ptr<ArchiveWriter> writer = NewWriter();
  if (!writer) return -1;
  totals->attempted = 0;
  totals->failed = 0;
  UnitQueue queue;
  queue.next_dir = tree->first_dir;
  queue.files = FirstFileUnit(tree);
  // More sessions than units would log in for nothing.
  const size_t asked = static_cast<size_t>(Settings.sessions);
  const size_t wanted = std::min(asked, CountUnits(tree, asked));
  std::vector<ExtraSession> extras(wanted > 1 ? wanted - 1 : 0, ExtraSession{&queue});
  for (ExtraSession& extra : extras) {
    const int error = pthread_create(&extra.thread, nullptr, RunExtraSession, &extra);
    extra.started = error == 0;
    if (error != 0) VFAIL("pthread_create(): %s\n", strerror(error));
  }
  SaveQueuedUnits(session, &queue, number, writer.get(), totals);
  bool broken = false;
  for (ExtraSession& extra : extras) {
    if (!extra.started) continue;
    pthread_join(extra.thread, nullptr);
    AddTotals(extra.totals, totals);
    broken = broken || extra.broken;
  }
  if (broken) throw std::runtime_error("an extra session ended by an unexpected error");
  return 0;
}

void RunWorkers(ObjectNode** kinds, BackupTotals* sum) {
  const int kind_count = ObjectKindCount();
  std::vector<pthread_t> threads(static_cast<size_t>(kind_count));
  std::vector<WorkerArgument*> running(static_cast<size_t>(kind_count), nullptr);
  for (int i = 0; i < kind_count; i++) {
    ObjectNode* tree = kinds[i];
    // A tree of nothing but empty directories still has units to save.
    if (!tree || (!tree->first_dir && !tree->first_file)) continue;
    if (TerminationRequested.load()) break;  // no new worker for a run that is ending
    WorkerArgument* argument = StartWorker(i, tree, &threads[static_cast<size_t>(i)], sum);
    if (!argument) continue;
    if (i == 0 || !Settings.threading) {
      CollectWorker(threads[static_cast<size_t>(i)], i, tree, sum);
      delete argument;
    } else {
      running[static_cast<size_t>(i)] = argument;
    }
  }
  for (int i = 1; i < kind_count; i++) {
    WorkerArgument* argument = running[static_cast<size_t>(i)];
    if (!argument) continue;
    CollectWorker(threads[static_cast<size_t>(i)], i, kinds[i], sum);
    delete argument;
  }
}
