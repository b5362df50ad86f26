// What a backup or restore run did, as the run summary reports it: the
// totals, the objects that failed or were saved in part with the reason for
// each, whether an archive was left, and the one call every end of a run
// goes through.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// An object that failed, or was saved only in part, and why.
struct RecordedObject {
  std::string path;
  bool has_reason = false;  // false: nothing was printed for it
  std::string reason;
};

// The totals a run printed at its end; counted is false until they exist
// (a run that ended before its totals, such as a failed login).
struct RecordedTotals {
  bool counted = false;
  uint64_t attempted = 0;
  uint64_t failed = 0;
  uint64_t partial = 0;
  uint64_t restored = 0;
  uint64_t skipped = 0;
  uint64_t bytes = 0;
};

// A copy of everything recorded so far, taken under the record's lock.
struct RunRecord {
  RecordedTotals totals;
  std::vector<RecordedObject> failed;
  std::vector<RecordedObject> partial;
  bool archive_kept = false;  // a backup's archive was put in place
  std::string archive_path;   // where it was put
};

// Safe from any thread.
void RecordFailedObject(const char* path, const std::string* reason);
void RecordPartialObject(const char* path, const std::string* reason);
void RecordTotals(const RecordedTotals& totals);
void RecordArchiveKept(const std::string& path);
RunRecord CopyRunRecord();

// Why the object in hand on this thread was saved only in part (the
// server's quoted reply), kept from the save command until the object is
// counted.
void NotePartialReason(const char* reason);
bool TakePartialReason(std::string* reason);

// Every end of a backup or restore run, the normal return and the exits of
// a terminated run alike, passes its exit status through EndRun, which
// hands it to the hook (the summary) once and returns the status the
// process should end with. Without a hook the status is returned as it is.
using RunEndHook = int (*)(int status);
void SetRunEndHook(RunEndHook hook);
int EndRun(int status);
