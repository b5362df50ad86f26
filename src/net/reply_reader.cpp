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

// The length of the first held line, its CR LF not counted; -1 after a
// message when the counted line end is not there.
int HeldLineLength(const FtpConnection* control) {
  const void* end = memmem(control->reply, static_cast<size_t>(control->reply_held), "\r\n", 2);
  if (!end) {
    VFAIL("buffered reply screw up\n");
    return -1;
  }
  return static_cast<int>(static_cast<const char*>(end) - control->reply);
}

// Removes the first held line, consumed bytes long (CR LF included).
void DropHeldLine(FtpConnection* control, int consumed) {
  memmove(control->reply, control->reply + consumed, static_cast<size_t>(control->reply_held - consumed));
  control->reply_held -= consumed;
  control->lines_held--;
}

// Counts a line of consumed bytes into the reply being read. false after a
// message when the reply has grown past its bounds.
bool CountReplyLine(FtpConnection* control, int consumed) {
  control->reply_lines++;
  control->reply_bytes += consumed;
  if (control->reply_lines <= ReplyLinesMax && control->reply_bytes <= ReplyBytesMax) return true;
  VFAIL("reply longer than %d lines or %d bytes: connection given up\n", ReplyLinesMax, ReplyBytesMax);
  return false;
}

bool IsReplyCode(const char* text) {
  return text[0] >= '0' && text[0] <= '9' && text[1] >= '0' && text[1] <= '9' && text[2] >= '0' && text[2] <= '9';
}

// Drops the lines of a multi-line reply that come before its final line
// from the front of the buffer. Such a reply opens with "nnn-" and ends
// with the first line that starts with the same code and a space; every
// line between is intermediate whatever it holds, even one that looks like
// another reply ("  230 ...", "hello"). 0 when the first held line, if
// any, is a final one; -1 after a message when the counted line is not
// there or the reply has grown past its bounds (the connection is then
// given up like a broken one).
int SkipIntermediateLines(FtpConnection* control) {
  while (control->lines_held >= 1) {
    const char* line = control->reply;
    const int length = HeldLineLength(control);
    if (length < 0) return -1;
    if (control->reply_code[0] == '\0') {
      if (length < 4 || !IsReplyCode(line) || line[3] != '-') return 0;
      memcpy(control->reply_code, line, 3);
      control->reply_code[3] = '\0';
    } else if (length >= 4 && memcmp(line, control->reply_code, 3) == 0 && line[3] == ' ') {
      return 0;
    }
    DropHeldLine(control, length + 2);
    if (!CountReplyLine(control, length + 2)) return ControlFailed(control);
  }
  return 0;
}

int AppendReplyBytes(FtpConnection* control);

// No line end in a full buffer: nothing sensible can follow, so the bytes
// are dropped and the next reply starts afresh. true when that happened.
bool DroppedFullBuffer(FtpConnection* control) {
  if (control->reply_held < control->reply_capacity) return false;
  ForgetHeldReplies(control);
  return true;
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
  return AppendReplyBytes(control);
}

// Reads what the connection holds into the reply buffer and counts the
// line ends that came. KeepReading (also when an encrypted record brought
// no reply bytes: a session ticket), or the reader's result when it must
// give up.
int AppendReplyBytes(FtpConnection* control) {
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
  // The scan starts at the last byte held before this read: a CR LF split
  // between two reads is one line end like any other.
  const int before = control->reply_held;
  control->reply_held += static_cast<int>(got);
  for (int i = before > 0 ? before - 1 : 0; i + 1 < control->reply_held; i++)
    if (control->reply[i] == '\r' && control->reply[i + 1] == '\n') control->lines_held++;
  return KeepReading;
}

// Moves the first line of the buffer into out, the final line of the
// reply being read: 0 positive, 1 other, -1 when it is too long (it is
// dropped all the same) or ends a reply grown past its bounds.
int TakeReplyLine(FtpConnection* control, char* out) {
  const int length = HeldLineLength(control);
  if (length < 0) return -1;
  int result;
  if (length > ReplyLineMax) {
    VFAIL("command reply too long\n");
    result = -1;
  } else {
    memcpy(out, control->reply, static_cast<size_t>(length));
    out[length] = '\0';
    result = (out[0] == '2' || out[0] == '3') ? 0 : 1;
  }
  DropHeldLine(control, length + 2);
  const bool bounded = CountReplyLine(control, length + 2);
  control->reply_code[0] = '\0';
  control->reply_lines = control->reply_bytes = 0;
  return bounded ? result : ControlFailed(control);
}

}  // namespace

void ForgetHeldReplies(FtpConnection* control) {
  control->reply_held = 0;
  control->lines_held = 0;
  control->reply_code[0] = '\0';
  control->reply_lines = control->reply_bytes = 0;
}

int ReceiveReplyBytes(FtpConnection* control) {
  if (!IsControlRecord(control)) return -1;
  if (DroppedFullBuffer(control)) return -1;
  const int result = AppendReplyBytes(control);
  return result == KeepReading ? 0 : result;
}

int ReplyHeld(FtpConnection* control) {
  if (!IsControlRecord(control)) return -1;
  if (SkipIntermediateLines(control) != 0) return -1;
  return control->lines_held >= 1 ? 1 : 0;
}

int ReadReply(FtpConnection* control, char* out) {
  if (!out || !IsControlRecord(control)) return -1;
  for (;;) {
    if (SkipIntermediateLines(control) != 0) return -1;
    if (control->lines_held >= 1) break;
    if (DroppedFullBuffer(control)) return -1;
    int step = ReadMoreReply(control);
    if (step != KeepReading) return step;
  }
  return TakeReplyLine(control, out);
}
