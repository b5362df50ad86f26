// TLS on a session's connections, with OpenSSL: one client context for the
// run, a handshake with certificate and name checks per connection, and the
// encrypted reads and writes behind net/stream.
#include "net/tls.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>

#include "cli/settings.h"
#include "net/connection.h"
#include "support/log.h"
#include "support/sysio.h"
#include "support/text.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "socket.cpp";

struct TlsResumption {
  SSL_SESSION* newest = nullptr;
};

struct TlsChannel {
  SSL* ssl = nullptr;
  bool data = false;       // a data connection (else the control connection)
  bool announced = false;  // version and cipher were logged
  bool begun = false;      // a data connection's handshake was started
  short wants = 0;         // what the last call had to wait for (POLLIN, POLLOUT)
};

namespace {

// How long a finished data connection waits for the server's close_notify
// (or its close) once ours and our end of the stream went out. A server
// answers at once; one that does not is not waited for beyond this.
constexpr int ServerEndWaitMs = 10000;

// ---- the socket under the TLS layer ----------------------------------------

// OpenSSL's own socket layer writes with write(2), which raises SIGPIPE
// when the server has gone; this one sends through the program's system-call
// layer, where a vanished peer is an ordinary error.
int SocketOf(BIO* bio) { return static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(bio))); }

int SocketWrite(BIO* bio, const char* data, int length) {
  BIO_clear_retry_flags(bio);
  ssize_t sent = SendSome(SocketOf(bio), data, static_cast<size_t>(length));
  if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) BIO_set_retry_write(bio);
  return static_cast<int>(sent);
}

int SocketRead(BIO* bio, char* data, int length) {
  BIO_clear_retry_flags(bio);
  ssize_t got = ReadSome(SocketOf(bio), data, static_cast<size_t>(length));
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) BIO_set_retry_read(bio);
  // OpenSSL asks whether the stream ended to tell a cut (no close_notify)
  // from a failure of the socket.
  if (got == 0) BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
  return static_cast<int>(got);
}

long SocketControl(BIO* bio, int command, long, void*) {
  if (command == BIO_CTRL_FLUSH) return 1;
  if (command == BIO_CTRL_EOF) return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0;
  return 0;
}

int SocketCreate(BIO* bio) {
  BIO_set_init(bio, 1);
  return 1;
}

// ---- the run's context -------------------------------------------------------

std::once_flag ContextOnce;
SSL_CTX* Context = nullptr;
BIO_METHOD* SocketMethod = nullptr;

// The reason of the error at the top of OpenSSL's queue, in words.
void OpenSslReason(char* out, size_t size, const char* otherwise) {
  unsigned long error = ERR_peek_last_error();
  const char* reason = error ? ERR_reason_error_string(error) : nullptr;
  if (reason)
    CopyBounded(out, size, reason);
  else if (error)
    ERR_error_string_n(error, out, size);
  else
    CopyBounded(out, size, otherwise);
}

bool LoadTrust(SSL_CTX* context) {
  ERR_clear_error();
  if (!Settings.cacert) {
    if (SSL_CTX_set_default_verify_paths(context) == 1) return true;
    char reason[256];
    OpenSslReason(reason, sizeof reason, "unknown error");
    VFAIL("cannot load the system's trusted certificates: %s\n", reason);
    return false;
  }
  if (SSL_CTX_load_verify_file(context, Settings.cacert) == 1) return true;
  char reason[256];
  OpenSslReason(reason, sizeof reason, "no certificate in the file");
  VFAIL("cannot load CA certificates from %s: %s\n", Settings.cacert, reason);
  return false;
}

// A server hands out sessions (TLS 1.3 tickets) after a handshake, on the
// control connection and on data connections alike; each carries a
// lifetime, after which it is no longer offered. A save may run for hours
// between two data connections, so the newest one is kept and resumed, not
// the control connection's first, which a server that insists on resumption
// (vsftpd's require_ssl_reuse) would then refuse.
int SessionArrived(SSL* ssl, SSL_SESSION* session) {
  auto* control = static_cast<FtpConnection*>(SSL_get_app_data(ssl));
  if (!control) return 0;
  if (!control->resumption) control->resumption = new TlsResumption;
  SSL_SESSION_free(control->resumption->newest);
  control->resumption->newest = session;
  return 1;  // the reference is ours now
}

void MakeContext() {
  SocketMethod = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "vondral socket");
  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  if (!SocketMethod || !context) {
    VFAIL("cannot set up TLS: out of memory\n");
    SSL_CTX_free(context);
    return;
  }
  BIO_meth_set_write(SocketMethod, SocketWrite);
  BIO_meth_set_read(SocketMethod, SocketRead);
  BIO_meth_set_ctrl(SocketMethod, SocketControl);
  BIO_meth_set_create(SocketMethod, SocketCreate);
  // Only TLS 1.2 and later; no renegotiation, which a hostile server could
  // use to make the client do work in the middle of a transfer.
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);
  SSL_CTX_sess_set_new_cb(context, SessionArrived);
  if (!LoadTrust(context)) {
    SSL_CTX_free(context);
    return;
  }
  Context = context;
}

// ---- one connection -----------------------------------------------------------

bool IsAddressLiteral(const char* host) {
  unsigned char scratch[sizeof(in6_addr)];
  return inet_pton(AF_INET, host, scratch) == 1 || inet_pton(AF_INET6, host, scratch) == 1;
}

// The name the server's certificate must carry, as the operator gave it:
// without the trailing dot of a fully qualified name, and an IPv6 address
// without its zone ("%eth0"), neither of which a certificate holds.
const char* ServerName(const FtpConnection* control) {
  thread_local char name[sizeof control->host];
  CopyBounded(name, sizeof name, control->host[0] ? control->host : control->peer_text);
  if (name[0] == '[') {
    // a peer's address text, "[::1]"
    const size_t length = strlen(name);
    memmove(name, name + 1, length);
    if (char* close = strchr(name, ']')) *close = '\0';
  }
  if (char* zone = strchr(name, '%'); zone && strchr(name, ':')) *zone = '\0';
  const size_t length = strlen(name);
  if (length > 1 && name[length - 1] == '.') name[length - 1] = '\0';
  return name;
}

// The certificate must name the server as the operator did: an address
// given to --server is checked against the certificate's IP entries, a name
// against its DNS entries (and sent as SNI).
bool NameTheServer(SSL* ssl, const char* host) {
  X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
  if (IsAddressLiteral(host)) return X509_VERIFY_PARAM_set1_ip_asc(param, host) == 1;
  SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return SSL_set1_host(ssl, host) == 1 && SSL_set_tlsext_host_name(ssl, host) == 1;
}

// A channel over the record's socket, not yet shaken hands. nullptr after a
// message.
TlsChannel* NewChannel(FtpConnection* record, FtpConnection* control, const char* host) {
  std::call_once(ContextOnce, MakeContext);
  if (!Context) return nullptr;
  if (SetNonBlocking(record->descriptor) != 0) {
    VFAIL("fcntl(, F_SETFL, O_NONBLOCK): %s\n", strerror(errno));
    return nullptr;
  }
  auto* tls = new TlsChannel;
  tls->ssl = SSL_new(Context);
  BIO* socket = tls->ssl ? BIO_new(SocketMethod) : nullptr;
  if (!socket || !NameTheServer(tls->ssl, host)) {
    VFAIL("cannot set up TLS for %s\n", host);
    BIO_free(socket);
    SSL_free(tls->ssl);
    delete tls;
    return nullptr;
  }
  BIO_set_data(socket, reinterpret_cast<void*>(static_cast<intptr_t>(record->descriptor)));
  SSL_set_bio(tls->ssl, socket, socket);
  SSL_set_app_data(tls->ssl, control);
  SSL_set_connect_state(tls->ssl);
  record->tls = tls;
  return tls;
}

const char* TextOf(const FtpConnection* record) {
  return record->tls->data ? record->server_text : record->peer_text;
}

int PortOf(const FtpConnection* record) { return Port(record->tls->data ? record->server : record->peer); }

void ReportHandshakeFailure(const FtpConnection* record, int error) {
  char reason[256];
  const long verified = SSL_get_verify_result(record->tls->ssl);
  if (verified != X509_V_OK)
    CopyBounded(reason, sizeof reason, X509_verify_cert_error_string(verified));
  else if (error == SSL_ERROR_SYSCALL && errno != 0 && ERR_peek_last_error() == 0)
    CopyBounded(reason, sizeof reason, strerror(errno));
  else
    OpenSslReason(reason, sizeof reason, "the server closed the connection");
  if (record->tls->data)
    VFAIL("TLS handshake on data connection with %s:%d failed: %s\n", TextOf(record), PortOf(record), reason);
  else
    VFAIL("TLS handshake with %s:%d failed: %s\n", TextOf(record), PortOf(record), reason);
}

void Announce(FtpConnection* record) {
  TlsChannel* tls = record->tls;
  if (tls->announced || !SSL_is_init_finished(tls->ssl)) return;
  tls->announced = true;
  if (Settings.verbosity < 4) return;
  if (tls->data)
    LogMessage("%s: TLS data connection to %s:%d: %s, cipher %s, session %s\n", ProgramName, TextOf(record),
               PortOf(record), SSL_get_version(tls->ssl), SSL_get_cipher_name(tls->ssl),
               SSL_session_reused(tls->ssl) ? "resumed" : "new");
  else
    LogMessage("%s: TLS control connection to %s:%d: %s, cipher %s\n", ProgramName, TextOf(record),
               PortOf(record), SSL_get_version(tls->ssl), SSL_get_cipher_name(tls->ssl));
}

bool UnexpectedEnd() {
  unsigned long error = ERR_peek_last_error();
  return ERR_GET_LIB(error) == ERR_LIB_SSL && ERR_GET_REASON(error) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
}

// A read or write that did not complete: the caller's result.
ssize_t Unfinished(FtpConnection* record, int result, const char* direction, bool reading = true) {
  TlsChannel* tls = record->tls;
  const int saved = errno;
  const int error = SSL_get_error(tls->ssl, result);
  // A data connection that carries no byte (an empty listing) ends at its
  // first read; its handshake is named all the same.
  Announce(record);
  if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
    tls->wants = error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
    errno = EAGAIN;
    return -1;
  }
  tls->wants = 0;
  if (error == SSL_ERROR_ZERO_RETURN) return 0;
  const bool handshaken = SSL_is_init_finished(tls->ssl);
  if (UnexpectedEnd()) {
    // The control connection's end is its own: no reply can be cut short
    // unseen, since only whole lines count. A data connection the server
    // closed before sending any TLS byte was never started: the server
    // refused the command, and its reply says so; an upload, which has data
    // to send, has failed all the same.
    if (!tls->data || (reading && !handshaken && BIO_number_read(SSL_get_rbio(tls->ssl)) == 0)) return 0;
  }
  if (error == SSL_ERROR_SYSCALL && saved != 0 && ERR_peek_last_error() == 0) {
    // A reset or a broken pipe reads as it does without TLS, named as a
    // failed handshake when it cut one short.
    errno = saved;
    if (!handshaken) ReportHandshakeFailure(record, error);
    errno = saved;
    return -1;
  }
  if (!handshaken) {
    ReportHandshakeFailure(record, error);
  } else {
    char reason[256];
    OpenSslReason(reason, sizeof reason, "the connection ended");
    VFAIL("TLS %s %s:%d failed: %s\n", direction, TextOf(record), PortOf(record), reason);
  }
  errno = EPROTO;
  return -1;
}

}  // namespace

bool TlsRequested() { return Settings.tls_mode != TlsOff; }

int StartControlTls(FtpConnection* control) {
  ForgetTlsSession(control);  // sessions of an earlier connection
  TlsChannel* tls = NewChannel(control, control, ServerName(control));
  if (!tls) return -1;
  // The handshake is waited for in poll steps, bounded like a reply.
  int silent = 0;
  for (;;) {
    ERR_clear_error();
    errno = 0;
    const int result = SSL_do_handshake(tls->ssl);
    if (result == 1) break;
    // Every failure but the server's plain close is reported by Unfinished.
    const ssize_t outcome = Unfinished(control, result, "handshake with");
    if (outcome == 0) ReportHandshakeFailure(control, SSL_ERROR_ZERO_RETURN);
    if (outcome == 0 || errno != EAGAIN) return -1;
    if (WaitSocketStep(control->descriptor, tls->wants, Settings.timeout_minutes, &silent) >= 0) continue;
    if (errno == ECANCELED || errno == ETIMEDOUT)
      VFAIL("TLS handshake with %s:%d failed: %s\n", control->peer_text, Port(control->peer),
            errno == ECANCELED ? "termination requested" : "no answer within the time-out");
    else
      VFAIL("poll(): %s\n", strerror(errno));
    return -1;
  }
  Announce(control);
  return 0;
}

int StartDataTls(FtpConnection* control) {
  FtpConnection* data = control->data;
  if (!control->tls || !data) return -1;
  TlsChannel* tls = NewChannel(data, control, ServerName(control));
  if (!tls) return -1;
  tls->data = true;
  // Servers such as vsftpd accept a data connection only from the client
  // that holds the control connection's TLS session.
  if (control->resumption && control->resumption->newest) {
    SSL_set_session(tls->ssl, control->resumption->newest);
  } else if (SSL_SESSION* session = SSL_get1_session(control->tls->ssl)) {
    SSL_set_session(tls->ssl, session);
    SSL_SESSION_free(session);
  }
  return 0;
}

void ForgetTlsSession(FtpConnection* control) {
  if (!control->resumption) return;
  SSL_SESSION_free(control->resumption->newest);
  delete control->resumption;
  control->resumption = nullptr;
}

bool TlsAwaitsStart(const FtpConnection* data) { return data->tls && !data->tls->begun; }

void BeginTls(FtpConnection* data) {
  if (!TlsAwaitsStart(data)) return;
  data->tls->begun = true;
  // The client speaks first: its hello goes out now, and the server's
  // answer is what the transfer then waits for. A failure here shows again
  // at the transfer's first read or write, which reports it.
  ERR_clear_error();
  errno = 0;
  const int result = SSL_do_handshake(data->tls->ssl);
  if (result != 1) {
    const int error = SSL_get_error(data->tls->ssl, result);
    data->tls->wants = error == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN;
  }
  ERR_clear_error();
}

ssize_t TlsRead(FtpConnection* record, void* data, size_t length) {
  ERR_clear_error();
  errno = 0;
  size_t got = 0;
  const int result = SSL_read_ex(record->tls->ssl, data, length, &got);
  if (result != 1) return Unfinished(record, result, "read from");
  record->tls->wants = 0;
  Announce(record);
  return static_cast<ssize_t>(got);
}

ssize_t TlsWrite(FtpConnection* record, const void* data, size_t length) {
  ERR_clear_error();
  errno = 0;
  size_t sent = 0;
  const int result = SSL_write_ex(record->tls->ssl, data, length, &sent);
  if (result != 1) {
    ssize_t unfinished = Unfinished(record, result, "write to", false);
    // A write never meets the end of the stream as a result.
    if (unfinished == 0) errno = EPIPE;
    return unfinished == 0 ? -1 : unfinished;
  }
  record->tls->wants = 0;
  Announce(record);
  return static_cast<ssize_t>(sent);
}

bool TlsBuffered(const FtpConnection* record) { return record->tls && SSL_pending(record->tls->ssl) > 0; }

short TlsPollEvents(const FtpConnection* record, short wanted) {
  return record->tls && record->tls->wants ? record->tls->wants : wanted;
}

void EndTls(FtpConnection* record, bool notify) {
  TlsChannel* tls = record->tls;
  if (!tls) return;
  // The close_notify may have to wait for room behind the last data sent.
  // On a data connection the server's end is awaited too, briefly, after
  // our end of the stream (FIN) went out behind it: closing a socket that
  // holds unread bytes (a session ticket the server sent) resets the
  // connection, and a reset can destroy the last data of an upload before
  // the server has read it.
  const int64_t deadline = MonotonicMs() + ServerEndWaitMs;
  int silent = 0;
  for (int calls = 0; notify && SSL_is_init_finished(tls->ssl) && calls < 16; calls++) {
    ERR_clear_error();
    const int result = SSL_shutdown(tls->ssl);
    if (result == 1 || (result == 0 && !tls->data)) break;
    if (result == 0) {
      ShutdownWrite(record->descriptor);  // ours went out; now the server's
      continue;
    }
    const int error = SSL_get_error(tls->ssl, result);
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) break;
    const bool reading = error == SSL_ERROR_WANT_READ;
    const int64_t left = deadline - MonotonicMs();
    const int step = reading ? static_cast<int>(std::clamp<int64_t>(left, 0, WaitStepMs())) : WaitStepMs();
    const int ready = step > 0 ? PollStepOne(record->descriptor, reading ? POLLIN : POLLOUT, step) : 0;
    if (ready < 0 || (ready == 0 && (step == 0 || reading || ++silent >= Settings.timeout_minutes))) break;
  }
  SSL_free(tls->ssl);
  delete tls;
  record->tls = nullptr;
  ERR_clear_error();
}
