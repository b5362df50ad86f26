// TLS on a session's connections (explicit and implicit FTPS): the run's
// context with its trust store, the handshakes with their certificate
// checks, and encrypted reads and writes. Only net/stream calls the reads
// and writes; the rest of the program never knows whether a connection is
// encrypted.
#pragma once

#include <sys/types.h>

#include <cstddef>

struct FtpConnection;

// Whether the run asked for TLS (--tls or --tls-implicit).
bool TlsRequested();

// Runs the handshake on a connected control record, bounded by --timeout,
// and checks the server's certificate against the name the server was
// given by. 0, or -1 after a message naming the cause; the socket stays
// open for the caller to close.
int StartControlTls(FtpConnection* control);

// Puts the freshly connected data record under TLS, resuming the control
// connection's session; the handshake waits for BeginTls. 0, or -1 after a
// message.
int StartDataTls(FtpConnection* control);

// Servers start TLS on a data connection only once they have answered the
// transfer command (some reset a connection that speaks first), so the
// client's hello waits for that. TlsAwaitsStart: a data record not yet
// begun; BeginTls: sends the hello.
bool TlsAwaitsStart(const FtpConnection* data);
void BeginTls(FtpConnection* data);

// One read or write. As read(2) and send(2), except that -1 with EAGAIN
// means the connection needs the socket to be ready first (see
// TlsPollEvents); a failure is reported here before -1 with EPROTO. A read
// gives 0 at the server's close_notify, and also when the server closed a
// data connection without ever starting its handshake (a refused command).
ssize_t TlsRead(FtpConnection* record, void* data, size_t length);
ssize_t TlsWrite(FtpConnection* record, const void* data, size_t length);

// Decrypted bytes are waiting: a read needs no poll.
bool TlsBuffered(const FtpConnection* record);
// What to poll for when the caller wants `wanted`: a write may have to wait
// for the peer's handshake messages, and a read for room to send them.
short TlsPollEvents(const FtpConnection* record, short wanted);

// Drops the session kept for data connections to resume (the control
// record's resumption), as the record goes.
void ForgetTlsSession(FtpConnection* control);

// Ends TLS on a record. With notify, a close_notify goes out first (the
// wait for room to send it bounded by --timeout): the sign that a transfer
// ended whole.
void EndTls(FtpConnection* record, bool notify);
