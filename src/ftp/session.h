// FTP session: login and server checks, checkpoint recovery after a broken
// control connection, and the remote listing.
#pragma once

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <type_traits>

#include "net/socket.h"

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
