// The backup workers: one thread per kind of object, each with a session of
// its own, saving every unit of its kind tree into the shared archive.
#pragma once

#include <cstdint>

#include "archive/writer.h"
#include "backup/object_tree.h"

struct FtpSession;

// What a worker returns and the driver sums.
struct BackupTotals {
  uint64_t attempted;
  uint64_t failed;
  double save_seconds;
  double wait_seconds;
  double transfer_seconds;
  uint64_t bytes;
  uint64_t partial;  // objects saved with some of their contents left behind
};

// Saves one object with the member of the save family its path calls for
// and writes its report lines. 0 when saved, 1 when not.
int ProcessObject(FtpSession* session, ObjectFile* object, int number, ArchiveWriter* writer,
                  BackupTotals* totals);
// Saves every unit of a kind tree (its directories saved whole, then its
// files) into the archive, counting them in totals, which start from zero.
// 0, or -1 without a valid archive.
int SaveKindTree(FtpSession* session, ObjectNode* tree, int number, BackupTotals* totals);
// Runs a worker for every kind tree that holds something: the first kind
// (security data and configuration) alone and first, the others side by
// side with --threading, else one after another. Adds what each worker
// returns to sum; a worker that could not run counts its whole tree as
// failed. No new worker starts once a termination request came.
void RunWorkers(ObjectNode** kinds, BackupTotals* sum);
