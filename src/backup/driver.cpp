// The backup driver: the archive and the lists made first, the empty
// archive started with its end block, the workers run, the run's totals
// reported and its status judged, and the archive put in place or dropped.
#include "backup/driver.h"

#include <sys/time.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "archive/archive_file.h"
#include "archive/writer.h"
#include "backup/backup_list.h"
#include "backup/include_list.h"
#include "backup/listing_walk.h"
#include "backup/workers.h"
#include "support/log.h"
#include "support/run_progress.h"
#include "support/run_record.h"
#include "support/termination.h"
#include "support/text.h"
#include "cli/settings.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "backup.cpp";

namespace {

double Now() {
  struct timeval t{};
  gettimeofday(&t, nullptr);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1000000;
}

// What the planning made: the include tree and the kind trees sorted from
// it, freed together.
struct BackupPlan {
  ObjectNode* include_tree = nullptr;
  ObjectNode** kinds = nullptr;
  ~BackupPlan() {
    FreeBackupList(kinds);
    FreeTree(include_tree);
  }
};

// Whether a run that ends with this status puts its archive in place. A
// broken archive never. One with no entry only when nothing failed (a run
// with nothing to save makes its empty archive): a run that failed, or was
// terminated, before saving anything would otherwise replace an existing
// archive with nothing.
bool KeepArchive(int status) {
  return !ArchiveBroken && (ArchiveEntries.load() > 0 || status == 0);
}

// The totals as the summary reports them.
void RecordBackupTotals(const BackupTotals& sum) {
  RecordedTotals totals;
  totals.attempted = sum.attempted;
  totals.failed = sum.failed;
  totals.partial = sum.partial;
  totals.bytes = sum.bytes;
  RecordTotals(totals);
}

// Ends a backup that a termination request stopped: the entries written so
// far are whole, so the archive is put in place like any other, and the
// status says which signal ended the run. sum: what the workers did, when
// they ran.
[[noreturn]] void EndTerminatedBackup(const BackupTotals* sum) {
  VFAIL("Backup Terminated Cleanly\n");
  if (sum) {
    BackupTotals counted = *sum;
    counted.attempted += IncludesMissed;
    counted.failed += IncludesMissed;
    RecordBackupTotals(counted);
  }
  int status = TerminationStatus();
  if (!KeepArchive(status))
    DiscardArchiveFile();
  else if (CommitArchiveFile() != 0)
    status = 255;
  exit(EndRun(status));
}

// The objects the kind trees hold, as the run's totals count them.
uint64_t PlannedObjects(ObjectNode** kinds) {
  uint64_t objects = 0;
  for (int i = 0; i < ObjectKindCount(); i++)
    if (kinds[i]) objects += kinds[i]->count;
  return objects;
}

// Lists the server into the include tree and sorts it into the kind trees.
// false after a message (the archive file is dropped).
bool PlanBackup(FtpSession* session, BackupPlan* plan) {
  LogMessage("Building Object Lists\n");
  plan->include_tree = BuildIncludeList(session);
  if (!plan->include_tree) {
    VFAIL("BuildIncludeList failed\n");
    DiscardArchiveFile();
    return false;
  }
  LogMessage("Building Block Lists\n");
  plan->kinds = BuildBackupList(plan->include_tree);
  if (!plan->kinds) {
    VFAIL("BuildBackupList failed\n");
    DiscardArchiveFile();
    return false;
  }
  return true;
}

// The archive is valid, and empty, before any entry is appended. Without
// its end block no entry could ever be closed: the run stops here. false
// after a message (the archive file is dropped).
bool StartEmptyArchive() {
  if (AppendEndBlock(ArchiveDescriptor)) return true;
  VFAIL("CTAR sentinel failed write(): %s\n", strerror(errno));
  DiscardArchiveFile();
  return false;
}

// The listing's figures, shown when anything was listed.
void ReportListing(double list_seconds) {
  if (ListBytes <= 0) return;
  char unit;
  double shown = ScaleBinary(ListBytes, &unit);
  LogMessage("** Total List Data: %.3f %cB\n", shown, unit);
  LogMessage("** List Called    : %llu\n", static_cast<unsigned long long>(ListCalls));
  LogMessage("** Total List Time: %.3f\n", list_seconds);
  LogMessage("** Objects Found  : %llu\n", static_cast<unsigned long long>(ObjectsFound));
}

// The saving's figures, and the run's status from them: 2 when more than
// one in ten objects (or listing lines) went wrong, 1 when any did or an
// object was saved only in part, else 0.
int ReportSaving(const BackupTotals& sum, double save_seconds) {
  if (sum.attempted == 0) {
    LogMessage("** No objects attempted\n");
    return 0;
  }
  char unit;
  double shown = ScaleBinary(static_cast<double>(sum.bytes), &unit);
  LogMessage("** Backed up %.3f %cB in %.3f s\n", shown, unit, save_seconds);
  LogMessage("** Total Save Time: %.3f s\n", sum.save_seconds);
  LogMessage("** Total Wait Time: %.3f s\n", sum.wait_seconds);
  LogMessage("** Total Xfer Time: %.3f s\n", sum.transfer_seconds);
  LogMessage("** Total Objects Attempted: %d\n", static_cast<int>(sum.attempted));
  LogMessage("** Total Objects Failed   : %d\n", static_cast<int>(sum.failed));
  if (sum.partial > 0) LogMessage("** Total Objects Partial  : %d\n", static_cast<int>(sum.partial));
  uint64_t bad = ParseErrors + sum.failed;
  if (bad * 100 / (ParseErrors + sum.attempted) > 9) return 2;
  if (bad != 0 || sum.partial != 0) return 1;
  return 0;
}

// The run's closing report; returns its status.
int ReportBackup(const BackupTotals& sum, double list_seconds, double save_seconds) {
  LogMessage("** Backup Complete\n");
  ReportListing(list_seconds);
  if (ParseErrors != 0 || Settings.verbosity >= 1)
    LogMessage("** Parsing Errors : %llu\n", static_cast<unsigned long long>(ParseErrors));
  return ReportSaving(sum, save_seconds);
}

// Puts the archive in place or drops it, as the run's end calls for; the
// driver's result.
int FinishArchive(int status) {
  if (ArchiveBroken) {
    VFAIL("the archive is not whole: it is not kept\n");
    DiscardArchiveFile();
    return -1;
  }
  if (!KeepArchive(status)) {
    VFAIL("no entry was saved: no archive is made, an existing one stays\n");
    DiscardArchiveFile();
    return status;
  }
  if (CommitArchiveFile() != 0) return -1;
  return status;
}

}  // namespace

int BackupDriver(FtpSession* session) {
  const double t0 = Now();
  // Normally made before the login, so that a bad path is refused before
  // anything reaches the server.
  if (ArchiveDescriptor < 0 && PrepareArchiveFile(Settings.backup_path) != 0) return -1;
  int status;
  {
    BackupPlan plan;
    if (!PlanBackup(session, &plan)) return -1;
    const double t1 = Now();
    if (!StartEmptyArchive()) return -1;
    if (TerminationRequested.load()) EndTerminatedBackup(nullptr);

    BackupTotals sum{};
    StartBackupProgress(PlannedObjects(plan.kinds));
    RunWorkers(plan.kinds, &sum);
    StopRunProgress();
    if (TerminationRequested.load()) EndTerminatedBackup(&sum);
    const double t2 = Now();
    // What the include file named but could not be found counts as failed.
    sum.attempted += IncludesMissed;
    sum.failed += IncludesMissed;
    RecordBackupTotals(sum);
    status = ReportBackup(sum, t1 - t0, t2 - t1);
  }
  return FinishArchive(status);
}
