// The record of a run for its summary, and the one way out of a run.
#include "support/run_record.h"

#include "support/run_progress.h"

#include <atomic>
#include <mutex>

namespace {

// Workers record side by side; the summary copies at the end.
std::mutex RecordLock;
RunRecord Record;
RunEndHook Hook = nullptr;
std::atomic<bool> Ended{false};

RecordedObject MakeObject(const char* path, const std::string* reason) {
  RecordedObject object;
  object.path = path ? path : "";
  if (reason) {
    object.has_reason = true;
    object.reason = *reason;
  }
  return object;
}

thread_local std::string PartialReason;
thread_local bool HasPartialReason = false;

}  // namespace

void NotePartialReason(const char* reason) {
  PartialReason = reason ? reason : "";
  HasPartialReason = true;
}

bool TakePartialReason(std::string* reason) {
  if (!HasPartialReason) return false;
  *reason = PartialReason;
  HasPartialReason = false;
  return true;
}

void RecordFailedObject(const char* path, const std::string* reason) {
  RecordedObject object = MakeObject(path, reason);
  std::lock_guard<std::mutex> hold(RecordLock);
  Record.failed.push_back(std::move(object));
}

void RecordPartialObject(const char* path, const std::string* reason) {
  RecordedObject object = MakeObject(path, reason);
  std::lock_guard<std::mutex> hold(RecordLock);
  Record.partial.push_back(std::move(object));
}

void RecordTotals(const RecordedTotals& totals) {
  std::lock_guard<std::mutex> hold(RecordLock);
  Record.totals = totals;
  Record.totals.counted = true;
}

void RecordArchiveKept(const std::string& path) {
  std::lock_guard<std::mutex> hold(RecordLock);
  Record.archive_kept = true;
  Record.archive_path = path;
}

RunRecord CopyRunRecord() {
  std::lock_guard<std::mutex> hold(RecordLock);
  return Record;
}

void SetRunEndHook(RunEndHook hook) { Hook = hook; }

int EndRun(int status) {
  // The progress line goes before the last words of the run.
  StopRunProgress();
  // Only the first end counts: a terminated run's exit comes from inside
  // its mode, before the caller's return could.
  if (!Hook || Ended.exchange(true)) return status;
  return Hook(status);
}
