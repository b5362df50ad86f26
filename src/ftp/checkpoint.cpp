// Checkpoint recovery: the abort to the protected operation, the reconnect
// and second login, and the loop that runs a protected operation again.
#include "ftp/checkpoint.h"

#include <algorithm>

#include "cli/settings.h"
#include "support/log.h"
#include "support/sysio.h"
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

// One try at a new control connection and login: 0; 1 when it may be
// tried again (no connection, or it broke during the login); -1 when the
// server refused the login. A refusal is not asked again: repeated failed
// sign-ons can disable the user profile on an IBM i.
int ReconnectOnce(FtpSession* session) {
  if (ConnectControl(session->control) != 0) {
    VFAIL("can't reopen control connection\n");
    return 1;
  }
  if (Login(session, nullptr, nullptr) != 0) {
    VFAIL("login failed\n");
    return session->control->descriptor < 0 ? 1 : -1;
  }
  return 0;
}

// Sleeps for the pause before the next try. false when a termination
// request came before or during it: a run that is ending does not wait for
// a server to come back.
bool PauseBeforeRetry(int pause_ms) {
  if (TerminationRequested.load() != 0) return false;
  PollStep(nullptr, 0, pause_ms);  // only the request's wake-up is watched
  return TerminationRequested.load() == 0;
}

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
  // A server that restarts (an IPL, the FTP server ended and started again)
  // refuses connections for a while: the tries are spaced 1, 2, 4, ...
  // seconds apart (at most a poll step, a minute) for up to --timeout
  // minutes in all, so that such a pause costs at most the object in hand.
  const int64_t budget_ms =
      session->recovery_exhausted ? 0 : static_cast<int64_t>(Settings.timeout_minutes) * PollStepMs;
  const int64_t start = MonotonicMs();
  int pause_ms = std::max(PollStepMs / 60, 1);
  for (int retry = 1;; retry++) {
    const int tried = ReconnectOnce(session);
    if (tried < 0) return -1;
    if (tried == 0) break;
    const int64_t left = start + budget_ms - MonotonicMs();
    if (left <= 0) {
      if (!session->recovery_exhausted)
        VFAIL("server not back within %d minutes\n", Settings.timeout_minutes);
      session->recovery_exhausted = 1;
      return -1;
    }
    const int pause = static_cast<int>(std::min<int64_t>(pause_ms, left));
    if (Settings.verbosity >= 1)
      LogMessage("reconnecting to %s:%d in %g s (retry %d)\n", session->control->peer_text,
                 Port(session->control->peer), pause / 1000.0, retry);
    if (!PauseBeforeRetry(pause)) {
      VFAIL("termination requested: not recovering\n");
      return -1;
    }
    pause_ms = std::min(pause_ms * 2, PollStepMs);
  }
  session->recovery_exhausted = 0;
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

