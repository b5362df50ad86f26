// The transport's reads, writes, polls and closes on a connection record:
// a plain socket goes through the system-call layer, an encrypted one
// through net/tls. Everything above this layer reads and writes the same way
// whether or not the connection is encrypted.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <cstddef>

struct FtpConnection;

// One read after a poll found the record readable. As read(2); under TLS
// -1 with EAGAIN when only part of a record came (poll again).
ssize_t StreamRead(FtpConnection* record, void* data, size_t length);
// One read that does not block: -1 with EAGAIN when nothing is waiting.
ssize_t StreamReceiveWaiting(FtpConnection* record, void* data, size_t length);
// One send; -1 with EAGAIN when the socket must be polled first.
ssize_t StreamSend(FtpConnection* record, const void* data, size_t length);
// Sends all of length bytes, as SendFull does; under TLS the waits for the
// socket are bounded by --timeout (errno ETIMEDOUT).
ssize_t StreamSendFull(FtpConnection* record, const void* data, size_t length, size_t* done = nullptr);

// Polls as PollStep does, entry i watching records[i] (nullptr: a plain
// descriptor). A record holding decrypted bytes counts as readable at once,
// and an encrypted one that must first read (or write) to go on is polled
// for that, its result reported as the event the caller asked for.
int StreamPoll(struct pollfd* set, FtpConnection* const* records, nfds_t count, int step_ms);
int StreamPollOne(FtpConnection* record, short events, int step_ms);

// A data connection is used once the server has answered the transfer
// command with a preliminary reply: under TLS its handshake starts then
// (StreamBegin), and until then StreamAwaitsStart holds and the connection
// is not watched. A plain connection never waits.
bool StreamAwaitsStart(const FtpConnection* data);
void StreamBegin(FtpConnection* data);

// Closes the record's socket if open. With finished, a transfer ended
// whole: under TLS the close_notify goes out before the close.
int StreamClose(FtpConnection* record, bool finished);
