// Checkpoint recovery: a protected operation arms its session's checkpoint;
// when the control connection breaks, the transport aborts to it with an
// exception, and the operation reconnects, logs in again and runs again
// from its start, or fails once past its point of no return.
#pragma once

#include <cstdint>
#include <type_traits>

#include "ftp/session.h"

// Thrown by AbortToCheckpoint and caught by the protected operation that
// armed the session's checkpoint.
struct CheckpointAbort {
  FtpSession* session;
};

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

