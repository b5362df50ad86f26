// Opening and closing a session's connections: name service, connect within
// the --timeout budget, the greeting, and the records' life.
#include "net/connection.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <mutex>

#include "cli/settings.h"
#include "ftp/checkpoint.h"
#include "net/command.h"
#include "net/reply_reader.h"
#include "net/stream.h"
#include "net/tls.h"
#include "support/log.h"
#include "support/text.h"
#include "support/sysio.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "socket.cpp";

namespace {

// gethostbyname and friends are not re-entrant, and workers open their
// sessions at the same time.
std::mutex NameServiceLock;

FtpConnection* NewRecord(const char* tag) {
  auto* record = static_cast<FtpConnection*>(calloc(1, sizeof(FtpConnection)));
  if (!record) {
    VFAIL("malloc(%d) failed\n", static_cast<int>(sizeof(FtpConnection)));
    return nullptr;
  }
  memcpy(record->tag, tag, 4);
  record->descriptor = -1;
  return record;
}

}  // namespace

int Port(const sockaddr_in& address) { return ntohs(address.sin_port); }

int Port(const SocketAddress& address) {
  return ntohs(address.any.sa_family == AF_INET6 ? address.v6.sin6_port : address.v4.sin_port);
}

socklen_t AddressLength(const SocketAddress& address) {
  return address.any.sa_family == AF_INET6 ? sizeof address.v6 : sizeof address.v4;
}

void AddressText(const SocketAddress& address, char* text, size_t size) {
  char shown[INET6_ADDRSTRLEN] = "";
  if (address.any.sa_family == AF_INET6) {
    inet_ntop(AF_INET6, &address.v6.sin6_addr, shown, sizeof shown);
    FormatBounded(text, size, "[%s]", shown);
  } else {
    inet_ntop(AF_INET, &address.v4.sin_addr, shown, sizeof shown);
    CopyBounded(text, size, shown);
  }
}

const char* ControlService() { return Settings.tls_mode == TlsImplicit ? "ftps" : "ftp"; }

int ControlFailed(FtpConnection* control) {
  StreamClose(control, false);
  ForgetHeldReplies(control);
  return AbortToCheckpoint(control->owner);
}

int AbandonConnections(FtpConnection* control) {
  if (IsDataRecord(control->data)) CloseDataSocket(control->data);
  StreamClose(control, false);
  return AbortToCheckpoint(control->owner);
}

bool IsControlRecord(const FtpConnection* record) {
  return record && memcmp(record->tag, "ftpc", 4) == 0;
}

bool IsDataRecord(const FtpConnection* record) {
  return record && memcmp(record->tag, "ftpd", 4) == 0;
}

void CloseDataSocket(FtpConnection* data) { StreamClose(data, false); }

void FinishDataSocket(FtpConnection* data) { StreamClose(data, true); }

namespace {

// An IPv6 literal may come in brackets, as in URLs; the name service takes
// it without them.
void BareHost(const char* host, char* bare, size_t size) {
  const size_t length = strlen(host);
  if (length >= 2 && host[0] == '[' && host[length - 1] == ']')
    FormatBounded(bare, size, "%.*s", static_cast<int>(length - 2), host + 1);
  else
    CopyBounded(bare, size, host);
}

}  // namespace

FtpConnection* OpenConnections(FtpSession* session, const char* host, const char* service) {
  char bare[256];
  BareHost(host, bare, sizeof bare);
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  int resolved;
  {
    std::lock_guard<std::mutex> hold(NameServiceLock);
    resolved = getaddrinfo(bare, service, &hints, &found);
  }
  if (resolved != 0) {
    VFAIL("getaddrinfo(%s, %s): %s\n", bare, service, resolved == EAI_SYSTEM ? strerror(errno) : gai_strerror(resolved));
    return nullptr;
  }
  // Every address the name has is tried in turn, as the resolver orders
  // them; each that fails says why.
  FtpConnection* control = nullptr;
  for (addrinfo* at = found; at && !control; at = at->ai_next) {
    if (at->ai_family != AF_INET && at->ai_family != AF_INET6) continue;
    SocketAddress peer{};
    memcpy(&peer, at->ai_addr, std::min<size_t>(at->ai_addrlen, sizeof peer));
    control = OpenConnectionsTo(session, peer, at->ai_protocol, bare);
  }
  freeaddrinfo(found);
  return control;
}

FtpConnection* OpenConnectionsTo(FtpSession* session, const SocketAddress& peer, int protocol, const char* host) {
  FtpConnection* control = NewRecord("ftpc");
  if (!control) return nullptr;
  control->owner = session;
  control->peer = peer;
  control->protocol = protocol;
  control->reply_capacity = ReplyBufferSize;
  if (host) CopyBounded(control->host, sizeof control->host, host);
  if (ConnectControl(control) != 0) {
    VFAIL("couldn't open control connection\n");
    CloseConnection(control);
    return nullptr;
  }
  FtpConnection* data = NewRecord("ftpd");
  if (!data) {
    VFAIL("couldn't create data port\n");
    CloseConnection(control);
    return nullptr;
  }
  data->protocol = protocol;
  control->data = data;
  return control;
}

namespace {

// Reads the greeting, with any further lines that came with it.
int ReadGreeting(FtpConnection* control) {
  ForgetHeldReplies(control);
  char line[ReplyBufferSize];
  do {
    if (ReadReply(control, line) != 0) return -1;
  } while (control->lines_held > 0);
  return 0;
}

// Explicit TLS: AUTH TLS, which must be answered 234, then the handshake.
// Nothing else is sent on a connection where either fails: the login that
// would follow is never sent in clear.
int SecureByAuth(FtpConnection* control) {
  if (SendCommandLine(control, "AUTH TLS") != 0) return -1;
  char line[ReplyBufferSize];
  do {
    if (ReadReply(control, line) < 0) return -1;
  } while (line[0] == '1' || control->lines_held > 0);
  if (strncmp(line, "234", 3) != 0) {
    char quoted[QuotedReplySize];
    CopyBounded(quoted, sizeof quoted, line);
    VFAIL("AUTH TLS refused: %s\n", quoted);
    return -1;
  }
  // Bytes that came in clear behind the 234 would pass for the server's
  // first encrypted words: anyone on the path could have put them there.
  if (control->reply_held > 0) {
    VFAIL("AUTH TLS refused: %s\n", "clear text after the 234 reply");
    return -1;
  }
  return StartControlTls(control);
}

}  // namespace

int ConnectControl(FtpConnection* control) {
  if (!IsControlRecord(control)) return -1;
  if (control->descriptor >= 0) {
    VFAIL("reopening open control connection\n");
    return -1;
  }
  int descriptor = socket(control->peer.any.sa_family, SOCK_STREAM, control->protocol);
  if (descriptor < 0) {
    VFAIL("socket(): %s\n", strerror(errno));
    return -1;
  }
  if (EnableKeepalive(descriptor) != 0) VFAIL("setsockopt(, SOL_SOCKET, SO_KEEPALIVE): %s\n", strerror(errno));
  if (BoundUnacknowledged(descriptor) != 0)
    VFAIL("setsockopt(, SOL_TCP, TCP_USER_TIMEOUT): %s\n", strerror(errno));
  char shown[AddressTextSize];
  AddressText(control->peer, shown, sizeof shown);
  int connected = ConnectWithin(descriptor, &control->peer.any, AddressLength(control->peer), Settings.timeout_minutes);
  if (connected != 0) {
    VFAIL("connect(, %s:%d): %s\n", shown, Port(control->peer), strerror(errno));
    CloseDescriptor(&descriptor);
    control->descriptor = -1;
    return -1;
  }
  socklen_t length = sizeof control->peer;
  if (getpeername(descriptor, &control->peer.any, &length) != 0) {
    VFAIL("getpeername(): %s\n", strerror(errno));
    CloseDescriptor(&descriptor);
    control->descriptor = -1;
    return -1;
  }
  AddressText(control->peer, control->peer_text, sizeof control->peer_text);
  control->descriptor = descriptor;
  if (Settings.verbosity >= 4)
    LogMessage("%s: FTP control connected to %s:%d\n", ProgramName, control->peer_text, Port(control->peer));

  bool ready = true;
  if (Settings.tls_mode == TlsImplicit) ready = StartControlTls(control) == 0;
  ready = ready && ReadGreeting(control) == 0;
  if (ready && Settings.tls_mode == TlsExplicit) ready = SecureByAuth(control) == 0;
  if (!ready) {
    StreamClose(control, false);
    return -1;
  }
  return 0;
}

int ProtectDataConnections(FtpConnection* control) {
  if (!control->tls) return 0;
  for (const char* command : {"PBSZ 0", "PROT P"}) {
    Reply reply;
    if (Command(control, command, &reply) != 0) {
      VFAIL("%s refused: %s\n", command, reply.quoted);
      return -1;
    }
  }
  return 0;
}

int CloseConnection(FtpConnection* record) {
  if (!record) return -1;
  if (IsControlRecord(record)) {
    CloseConnection(record->data);
    // A record that was never connected reports -1, as a close of nothing does.
    int result = StreamClose(record, true);
    ForgetTlsSession(record);
    free(record);
    return result;
  }
  if (IsDataRecord(record)) {
    StreamClose(record, false);
    if (record->transfer_buffer) munmap(record->transfer_buffer, TransferBufferSize);
    free(record);
    return -1;
  }
  return -1;
}
