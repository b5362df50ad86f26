// The save command family: each member saves one object into the session's
// save file and retrieves it into the archive as one entry.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "ftp/session.h"
#include "net/transfer.h"

struct ObjectFile;
struct ArchiveWriter;

// Seconds spent on one object: the save command, waiting for the archive,
// and the transfer into it.
struct TransferStats {
  double save_seconds;
  double wait_seconds;
  double transfer_seconds;
};

// The save family: each saves the object (its name a full server path) into
// QTEMP/SAV<number> and retrieves the save file into the archive through
// callback and writer. 0 on success, -1 on failure.
int SAV(FtpSession* session, ObjectFile* object, int number, TransferStats* stats, DataCallback callback,
        void* writer);
int SAVLIB(FtpSession* session, ObjectFile* object, int number, TransferStats* stats, DataCallback callback,
           void* writer);
int SAVDLO(FtpSession* session, ObjectFile* object, int number, TransferStats* stats, DataCallback callback,
           void* writer);
int SAVSECDTA(FtpSession* session, ObjectFile* object, int number, TransferStats* stats,
              DataCallback callback, void* writer);
int SAVCFG(FtpSession* session, ObjectFile* object, int number, TransferStats* stats, DataCallback callback,
           void* writer);

// Fetches the save file with RETR and appends it as one entry to the
// archive, under ArchiveLock. `checkpoint` is the caller's outer checkpoint
// flags, put back after the RETR; `locked` receives the moment the lock was
// held. 0 when the entry is whole in the archive; otherwise -1, and the
// archive is as it was before (also when a broken connection aborts the
// retrieval on its way back to the caller's checkpoint).
int RetrieveToArchive(FtpSession* session, uint8_t checkpoint, ObjectFile* object, const char* savf_path,
                      struct timeval* locked, DataCallback callback, ArchiveWriter* writer);
