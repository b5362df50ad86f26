// The progress of a backup or restore for a person at a terminal: one status
// line at the bottom of standard error (objects or entries done, bytes,
// rate, elapsed and estimated time left, the object in hand), redrawn every
// second by a thread of its own and around every log line. It exists only
// when standard error is a terminal; logs, pipes and schedulers see none of
// it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// What the line shows, at one moment.
struct ProgressFigures {
  bool restore = false;      // entries of an archive, else objects of a backup
  uint64_t done = 0;         // objects or entries finished, whatever their outcome
  uint64_t total = 0;        // objects planned; 0: not known (a restore)
  uint64_t bytes = 0;        // backup: save file bytes archived; restore: archive bytes read
  uint64_t bytes_total = 0;  // restore: the archive's size; 0: not known (a pipe)
  double elapsed = 0;        // seconds since the run's progress started
  std::string in_hand;       // the object or entry last begun
};

// The line's text for `figures`, behind the program's name.
void FormatProgress(const ProgressFigures& figures, const char* program, char* out, size_t capacity);

// Starts the line for a backup of `objects` objects, or the restore of an
// archive of `archive_bytes` bytes (0: not known). Nothing when standard
// error is not a terminal, or when the line already runs.
void StartBackupProgress(uint64_t objects);
void StartRestoreProgress(uint64_t archive_bytes);
// Erases the line for good and ends its thread; safe to call at any time,
// more than once, and at exit.
void StopRunProgress();

// What the run reports as it goes; cheap, from any thread, and nothing when
// no line runs.
void ProgressInHand(const char* name);
void ProgressDone(uint64_t count);
void ProgressBytes(uint64_t count);
// Restore: the archive is read up to `position`.
void ProgressPosition(uint64_t position);
