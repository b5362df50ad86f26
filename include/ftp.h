// FTP session: login and server checks, checkpoint recovery after a broken
// control connection, and the archive lock that recovery must release.
#pragma once

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <type_traits>

#include "socket.h"

constexpr uint8_t CHECKPOINT_ARMED = 1;  // a protected operation may be resumed
constexpr uint8_t CHECKPOINT_RETRY = 2;  // ... and may be run again from its start

// One logged-in session, used by one thread.
struct FtpSession {
  char tag[4];  // "ftps"
  char* user;
  char* password;
  // Transfer parameters last set on the server (0: unknown), so that set-up
  // commands are sent only when they would change something.
  int mode;
  int structure;
  int type;
  int name_format;
  int list_format;
  FtpConnection* control;
  uint8_t checkpoint_flags;
  // Protected operations whose body is running on this session. A session
  // marked armed with none of them on the stack behaves as unarmed, so the
  // abort never escapes past the last place able to catch it.
  int live_checkpoints;
};

// Thrown by AbortToCheckpoint and caught by the protected operation that
// armed the session's checkpoint.
struct CheckpointAbort {
  FtpSession* session;
};

// 1 for "V5R3M0", 2 for "V5R4M0", 0 for anything else or unknown.
extern std::atomic<int> ServerRelease;

bool IsSession(const FtpSession* session);
FtpSession* NewSession(const char* host, const char* service);
FtpSession* NewSessionTo(const sockaddr_in& peer);
int Login(FtpSession* session, const char* user, const char* password);
int Quit(FtpSession* session);

// Doubles every apostrophe and double quote so that a path can stand in a
// quoted CL string. The result lives in a per-thread buffer until the next
// call on the same thread.
const char* QuoteForCL(const char* text);
// Sends MKD for every parent directory of path (results ignored).
int MakeParentDirectories(FtpSession* session, char* path);

// Called by the transport after it closed a failed control connection:
// throws CheckpointAbort when a protected operation can take over, else
// reports and returns -1.
int AbortToCheckpoint(FtpSession* session);
// Reconnects and logs in again after an abort.
int RecoverCheckpoint(FtpSession* session);

// Runs body() as a protected operation: the session's checkpoint is armed
// (with retry) around it; when the control connection breaks the session
// reconnects and logs in again, and the body runs again from its start while
// CHECKPOINT_RETRY is still set, or the operation gives -1 once the body has
// cleared it (its point of no return). The outer checkpoint is put back on
// every normal way out.
int RunProtectedOperation(FtpSession* session, int (*body)(void*), void* argument);

template <typename Body>
int RunProtected(FtpSession* session, Body&& body) {
  using Callable = std::remove_reference_t<Body>;
  return RunProtectedOperation(
      session, [](void* callable) -> int { return (*static_cast<Callable*>(callable))(); },
      const_cast<void*>(static_cast<const void*>(&body)));
}

// Clears CHECKPOINT_RETRY: from here a broken connection fails the
// operation instead of repeating it.
void PassPointOfNoReturn(FtpSession* session);

// Sends a set-up command only when the session's remembered value differs,
// and remembers it once the server accepted it. 0, or -1 after
// "<label> command failed".
int EnsureParameter(FtpSession* session, int* field, int wanted, const char* command,
                    const char* label);

struct ObjectNode;

// Lists one server path with LIST, after making sure the session's transfer
// parameters suit a listing, and hands the raw listing bytes to callback.
// `directory` is the tree node being listed (nullptr in list mode, which
// keeps no tree). 0 on success, else the judgement of ListFailed, or -1.
int ListDirectory(FtpSession* session, const char* path, DataCallback callback, void* context,
                  ObjectNode* directory);
// Judges a failed LIST: 0 when the path is kept as one object to be saved
// whole (the server refused to list it with CPF3CAA), -1 when fatal, -22
// for missing input.
int ListFailed(const char* reply, ObjectNode* directory);

// ---------------------------------------------------------------------------
// Saving objects into the session's save file and retrieving it
// ---------------------------------------------------------------------------

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

// ---------------------------------------------------------------------------
// Restore command family
//
// Each member uploads one archive entry into the session's save file
// QTEMP/SAVTEMP and runs the IBM i restore command for its kind of object.
// QTEMP is private to the server job of the session, so the name needs no
// number. All members are protected operations: a broken connection before
// the upload repeats the set-up, one during or after the upload fails the
// entry, because the archive bytes already sent cannot be read again.
// ---------------------------------------------------------------------------

struct StringList;
struct StringPair;

constexpr const char* SaveTempFile = "QTEMP/SAVTEMP";
constexpr const char* SaveTempUpload = "/QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF";
constexpr const char* SaveTempDevice = "/QSYS.LIB/QTEMP.LIB/SAVTEMP.FILE";
// Restore replies are kept to 127 characters: enough for the phrases that
// ClassifyRestoreReply looks for, and what the failure messages quote.
constexpr int RestoreReplySize = 128;

// Filled by the restore commands when the caller gives one and the clock
// can be read; the caller clears it for every entry.
struct RestoreTimes {
  double restore_seconds;   // end of the upload to the end of the (last) restore command
  double unused;            // never written here
  double transfer_seconds;  // duration of the STOR
};

// One upload, then one RST per pair of the list (path, optional new
// location), each with the exclude file's lines below the path as *OMIT.
// Below release V5R4M0 the parents of the target are made with MKD first;
// from it on RST creates them (CRTPRNDIR). Gives the last pair's result.
int RestoreIfsObjects(FtpSession* session, const StringList* objects, RestoreTimes* times,
                      DataCallback send, void* argument);
// RSTLIB of the pair's library, under the pair's second path when given.
// A path that is not a library, or a destination that is not a library
// name of at most ten characters, is refused before anything is sent.
int RestoreLibrary(FtpSession* session, const StringPair* pair, RestoreTimes* times,
                   DataCallback send, void* argument);
// These three restore everything in the save file to its saved place.
// RestoreDocuments gives SendCommand's result (1 or -1) when RSTDLO fails.
int RestoreDocuments(FtpSession* session, const char* name, RestoreTimes* times,
                     DataCallback send, void* argument);
int RestoreUserProfiles(FtpSession* session, const char* name, RestoreTimes* times,
                        DataCallback send, void* argument);
int RestoreConfiguration(FtpSession* session, const char* name, RestoreTimes* times,
                         DataCallback send, void* argument);
// RSTAUT USRPRF(*ALL): no upload; after a recovery it is simply sent again.
int RestoreAuthority(FtpSession* session);

// Judges the reply text of a restore command the server called failed: the
// count of "<n> objects restored" or "<n> libraries restored" (0 when it is
// not a positive number followed by a blank), 1 for "Not all ..." and for an
// empty save file, -1 otherwise. Only the first occurrence of each phrase's
// initial letter is examined.
int ClassifyRestoreReply(const char* text);
