// Checkpoint recovery: the abort to the protected operation, the reconnect
// and second login, and the loop that runs a protected operation again.
#include "ftp/checkpoint.h"

#include "support/log.h"
#include "support/termination.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "ftp.cpp";

namespace {

// Counts the protected operation whose body is on the stack.
struct LiveCheckpoint {
  FtpSession* session;
  explicit LiveCheckpoint(FtpSession* s) : session(s) { session->live_checkpoints++; }
  ~LiveCheckpoint() { session->live_checkpoints--; }
};

}  // namespace

int AbortToCheckpoint(FtpSession* session) {
  if (!IsSession(session)) {
    VFAIL("not a session\n");
    return -1;
  }
  if (!(session->checkpoint_flags & CHECKPOINT_ARMED) || session->live_checkpoints <= 0) {
    VFAIL("jump buffer invalid\n");
    return -1;
  }
  // Whatever the frames in between hold (the archive lock of a retrieval,
  // with its cut-back) is given back by their guards as the abort passes.
  throw CheckpointAbort{session};
}

int RecoverCheckpoint(FtpSession* session) {
  if (!IsSession(session)) return -1;
  VFAIL("recovering checkpoint\n");
  // A data connection left open by the broken exchange belongs to the dead
  // control connection; the next transfer must make a fresh one.
  if (IsDataRecord(session->control->data)) CloseDataSocket(session->control->data);
  if (ConnectControl(session->control) != 0) {
    VFAIL("can't reopen control connection\n");
    return -1;
  }
  if (Login(session, nullptr, nullptr) != 0) {
    VFAIL("login failed\n");
    return -1;
  }
  // The new connection has the server's defaults again.
  session->mode = session->structure = session->type = 0;
  session->name_format = session->list_format = 0;
  return 0;
}

int RunProtectedOperation(FtpSession* session, int (*body)(void*), void* argument) {
  const uint8_t outer = session->checkpoint_flags;
  for (;;) {
    session->checkpoint_flags |= CHECKPOINT_ARMED | CHECKPOINT_RETRY;
    try {
      LiveCheckpoint live(session);
      int result = body(argument);
      session->checkpoint_flags = outer;
      return result;
    } catch (const CheckpointAbort& abort) {
      if (abort.session != session) throw;
    }
    // A run that is ending does not open new connections: the operation
    // fails here, its guards have already undone what it began.
    if (TerminationRequested.load() != 0) {
      VFAIL("termination requested: not recovering\n");
      session->checkpoint_flags = outer;
      return -1;
    }
    // Back through the checkpoint. The body is no longer running, so a
    // failure during recovery fails the recovery instead of aborting again.
    if (RecoverCheckpoint(session) != 0) {
      VFAIL("can't recover checkpoint\n");
      return -1;
    }
    if (!(session->checkpoint_flags & CHECKPOINT_RETRY)) {
      session->checkpoint_flags = outer;
      return -1;
    }
  }
}

void PassPointOfNoReturn(FtpSession* session) {
  session->checkpoint_flags = static_cast<uint8_t>(session->checkpoint_flags & ~CHECKPOINT_RETRY);
}

