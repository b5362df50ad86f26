// The reply reader: bytes off the control connection into whole reply lines.
#include "net/reply_reader.h"

#include <poll.h>

#include <cerrno>
#include <cstring>

#include "cli/settings.h"
#include "net/connection.h"
#include "net/stream.h"
#include "support/log.h"
#include "support/sysio.h"
#include "support/termination.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "socket.cpp";

namespace {

// What a step of reading gives when the caller should go on reading.
constexpr int KeepReading = 2;

// Drops the intermediate lines ("nnn-") of a multi-line reply from the
// front of the buffer. 0, or -1 when the counted lines are not there.
int SkipIntermediateLines(FtpConnection* control) {
  char* buffer = control->reply;
  while (control->lines_held >= 1 && control->reply_held >= 4 && buffer[3] == '-') {
    char* end = static_cast<char*>(memmem(buffer, static_cast<size_t>(control->reply_held), "\r\n", 2));
    if (!end) {
      VFAIL("buffered reply screw up\n");
      return -1;
    }
    int length = static_cast<int>(end - buffer) + 2;
    memmove(buffer, buffer + length, static_cast<size_t>(control->reply_held - length));
    control->reply_held -= length;
    control->lines_held--;
  }
  return 0;
}

// Waits one step for more reply bytes and takes what came. KeepReading,
// or the reader's result when it must give up.
int ReadMoreReply(FtpConnection* control) {
  // Checked at every step, not only when a poll finds nothing: a server
  // that talks without end must not hold a terminating run either.
  const int step = WaitStepMs();
  if (step == 0) {
    VFAIL("termination requested: no longer waiting for a reply\n");
    return -1;
  }
  int ready = StreamPollOne(control, POLLIN | POLLPRI, step);
  if (ready < 0) {
    VFAIL("poll(): %s\n", strerror(errno));
    return ControlFailed(control);
  }
  if (ready == 0 && TerminationRequested.load() != 0) return KeepReading;
  if (ready == 0) {
    // Reported, but the connection stays: a slow server is not a dead one.
    VFAIL("poll(): timedout on control read after %.2fs\n", PollStepSeconds());
    return -1;
  }
  char* fresh = control->reply + control->reply_held;
  ssize_t got = StreamRead(control, fresh, static_cast<size_t>(control->reply_capacity - control->reply_held));
  if (got < 0 && errno == EAGAIN) return KeepReading;  // part of an encrypted record: poll again
  if (got < 0) {
    VFAIL("read(%s:%d): %s\n", control->peer_text, Port(control->peer), strerror(errno));
    return ControlFailed(control);
  }
  if (got == 0) {
    VFAIL("%s:%d: control connection closed\n", control->peer_text, Port(control->peer));
    return ControlFailed(control);
  }
  if (Settings.verbosity >= 4) LogMessage("%.*s", static_cast<int>(got), fresh);
  control->reply_held += static_cast<int>(got);
  // Only the bytes of this read are scanned: a CR LF split between two
  // reads is not counted, and a later read must bring a counted one.
  for (ssize_t i = 0; i + 1 < got; i++)
    if (fresh[i] == '\r' && fresh[i + 1] == '\n') control->lines_held++;
  return SkipIntermediateLines(control) == 0 ? KeepReading : -1;
}

// Moves the first line of the buffer into out: 0 positive, 1 other, -1
// when it is too long (it is dropped all the same).
int TakeReplyLine(FtpConnection* control, char* out) {
  char* buffer = control->reply;
  char* end = static_cast<char*>(memmem(buffer, static_cast<size_t>(control->reply_held), "\r\n", 2));
  if (!end) {
    VFAIL("buffered reply screw up\n");
    return -1;
  }
  int length = static_cast<int>(end - buffer);
  int consumed = length + 2;
  int result;
  if (length > ReplyLineMax) {
    VFAIL("command reply too long\n");
    result = -1;
  } else {
    memcpy(out, buffer, static_cast<size_t>(length));
    out[length] = '\0';
    result = (out[0] == '2' || out[0] == '3') ? 0 : 1;
  }
  memmove(buffer, buffer + consumed, static_cast<size_t>(control->reply_held - consumed));
  control->reply_held -= consumed;
  control->lines_held--;
  return result;
}

}  // namespace

int ReadReply(FtpConnection* control, char* out) {
  if (!out || !IsControlRecord(control)) return -1;
  while (control->lines_held < 1) {
    if (control->reply_held >= control->reply_capacity) {
      // No line end in a full buffer: nothing sensible can follow, so the
      // bytes are dropped and the next reply starts afresh.
      control->reply_held = 0;
      return -1;
    }
    int step = ReadMoreReply(control);
    if (step != KeepReading) return step;
  }
  return TakeReplyLine(control, out);
}
