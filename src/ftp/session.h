// The FTP session: one logged-in control connection with the transfer
// parameters last set on it and its checkpoint state; login and QUIT.
#pragma once

#include <atomic>
#include <cstdint>

#include "net/connection.h"

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
  // Set when a recovery waited its whole --timeout in vain: later
  // recoveries on this session try once and do not wait again, so a server
  // that is gone for good costs the run one wait, not one per object.
  uint8_t recovery_exhausted;
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

