// Reads, writes, polls and closes of a connection record, plain or
// encrypted.
#include "net/stream.h"

#include <cerrno>

#include "cli/settings.h"
#include "net/connection.h"
#include "net/tls.h"
#include "support/sysio.h"

ssize_t StreamRead(FtpConnection* record, void* data, size_t length) {
  if (record->tls) return TlsRead(record, data, length);
  return ReadSome(record->descriptor, data, length);
}

ssize_t StreamReceiveWaiting(FtpConnection* record, void* data, size_t length) {
  if (record->tls) return TlsRead(record, data, length);  // the socket does not block
  return ReceiveWaiting(record->descriptor, data, length);
}

ssize_t StreamSend(FtpConnection* record, const void* data, size_t length) {
  if (record->tls) return TlsWrite(record, data, length);
  return SendSome(record->descriptor, data, length);
}

ssize_t StreamSendFull(FtpConnection* record, const void* data, size_t length, size_t* done) {
  if (!record->tls) return SendFull(record->descriptor, data, length, done);
  const char* bytes = static_cast<const char*>(data);
  size_t sent = 0;
  int silent = 0;
  while (sent < length) {
    const ssize_t written = TlsWrite(record, bytes + sent, length - sent);
    if (written > 0) {
      sent += static_cast<size_t>(written);
      continue;
    }
    if (written == 0 || errno != EAGAIN) break;
    if (WaitSocketStep(record->descriptor, TlsPollEvents(record, POLLOUT), Settings.timeout_minutes, &silent) < 0)
      break;
  }
  if (done) *done = sent;
  return sent == length ? static_cast<ssize_t>(length) : -1;
}

int StreamPoll(struct pollfd* set, FtpConnection* const* records, nfds_t count, int step_ms) {
  short wanted[8];
  bool waiting[8] = {};
  bool any_waiting = false;
  if (count > 8) count = 8;
  for (nfds_t i = 0; i < count; i++) {
    wanted[i] = set[i].events;
    if (!records[i] || !records[i]->tls) continue;
    waiting[i] = (wanted[i] & POLLIN) && TlsBuffered(records[i]);
    any_waiting = any_waiting || waiting[i];
    set[i].events = TlsPollEvents(records[i], wanted[i]);
  }
  const int ready = PollStep(set, count, any_waiting ? 0 : step_ms);
  int found = 0;
  for (nfds_t i = 0; i < count; i++) {
    short got = ready < 0 ? 0 : set[i].revents;
    const short asked = set[i].events;
    if (asked != wanted[i] && (got & asked & (POLLIN | POLLOUT)))
      got = static_cast<short>((got & ~asked) | (wanted[i] & (POLLIN | POLLOUT)));
    if (waiting[i]) got |= POLLIN;
    set[i].events = wanted[i];
    set[i].revents = got;
    if (got) found++;
  }
  return ready < 0 ? ready : found;
}

int StreamPollOne(FtpConnection* record, short events, int step_ms) {
  struct pollfd entry = {record->descriptor, events, 0};
  return StreamPoll(&entry, &record, 1, step_ms);
}

bool StreamAwaitsStart(const FtpConnection* data) { return TlsAwaitsStart(data); }

void StreamBegin(FtpConnection* data) { BeginTls(data); }

int StreamClose(FtpConnection* record, bool finished) {
  if (record->tls) EndTls(record, finished);
  if (record->descriptor < 0) return -1;
  return CloseDescriptor(&record->descriptor);
}
