// Opening and closing a session's connections: name service, connect within
// the --timeout budget, the greeting, and the records' life.
#include "net/connection.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "cli/settings.h"
#include "ftp/checkpoint.h"
#include "net/reply_reader.h"
#include "support/log.h"
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

int ControlFailed(FtpConnection* control) {
  CloseDescriptor(&control->descriptor);
  control->reply_held = 0;
  control->lines_held = 0;
  return AbortToCheckpoint(control->owner);
}

int AbandonConnections(FtpConnection* control) {
  if (IsDataRecord(control->data)) CloseDataSocket(control->data);
  CloseDescriptor(&control->descriptor);
  return AbortToCheckpoint(control->owner);
}

bool IsControlRecord(const FtpConnection* record) {
  return record && memcmp(record->tag, "ftpc", 4) == 0;
}

bool IsDataRecord(const FtpConnection* record) {
  return record && memcmp(record->tag, "ftpd", 4) == 0;
}

void CloseDataSocket(FtpConnection* data) { CloseDescriptor(&data->descriptor); }

FtpConnection* OpenConnections(FtpSession* session, const char* host, const char* service) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  int protocol = 0;
  {
    std::lock_guard<std::mutex> hold(NameServiceLock);
    struct hostent* entry = gethostbyname(host);
    if (!entry) {
      VFAIL("gethostbyname(%s): %s\n", host, hstrerror(h_errno));
      endhostent();
      return nullptr;
    }
    if (entry->h_length != 4) {
      VFAIL("gethostbyname(%s) address length (%d) != %d\n", host, entry->h_length, 4);
      endhostent();
      return nullptr;
    }
    memcpy(&peer.sin_addr, entry->h_addr_list[0], 4);
    endhostent();
    struct servent* serv = getservbyname(service, "tcp");
    if (!serv) {
      VFAIL("getservbyname(%s)\n", service);
      endservent();
      return nullptr;
    }
    peer.sin_port = static_cast<in_port_t>(serv->s_port);
    struct protoent* proto = getprotobyname(serv->s_proto);
    if (!proto) {
      VFAIL("getprotobyname(%s)\n", serv->s_proto);
      endprotoent();
      endservent();
      return nullptr;
    }
    protocol = proto->p_proto;
    endprotoent();
    endservent();
  }
  return OpenConnectionsTo(session, peer, protocol);
}

FtpConnection* OpenConnectionsTo(FtpSession* session, const sockaddr_in& peer, int protocol) {
  FtpConnection* control = NewRecord("ftpc");
  if (!control) return nullptr;
  control->owner = session;
  control->peer = peer;
  control->peer.sin_family = AF_INET;
  control->protocol = protocol;
  control->reply_capacity = ReplyBufferSize;
  if (ConnectControl(control) != 0) {
    VFAIL("couldn't open control connection\n");
    CloseConnection(control);
    return nullptr;
  }
  FtpConnection* data = NewRecord("ftpd");
  if (data) {
    std::lock_guard<std::mutex> hold(NameServiceLock);
    struct protoent* proto = getprotobyname("tcp");
    if (!proto) {
      VFAIL("getprotobyname(%s)\n", "tcp");
      free(data);
      data = nullptr;
    } else {
      data->protocol = proto->p_proto;
    }
    endprotoent();
  }
  if (!data) {
    VFAIL("couldn't create data port\n");
    CloseConnection(control);
    return nullptr;
  }
  control->data = data;
  return control;
}

int ConnectControl(FtpConnection* control) {
  if (!IsControlRecord(control)) return -1;
  if (control->descriptor >= 0) {
    VFAIL("reopening open control connection\n");
    return -1;
  }
  int descriptor = socket(AF_INET, SOCK_STREAM, control->protocol);
  if (descriptor < 0) {
    VFAIL("socket(): %s\n", strerror(errno));
    return -1;
  }
  if (EnableKeepalive(descriptor) != 0) VFAIL("setsockopt(, SOL_SOCKET, SO_KEEPALIVE): %s\n", strerror(errno));
  int connected = ConnectWithin(descriptor, reinterpret_cast<sockaddr*>(&control->peer), sizeof control->peer,
                                Settings.timeout_minutes);
  if (connected != 0) {
    char shown[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &control->peer.sin_addr, shown, sizeof shown);
    VFAIL("connect(, %s:%d): %s\n", shown, Port(control->peer), strerror(errno));
    CloseDescriptor(&descriptor);
    control->descriptor = -1;
    return -1;
  }
  socklen_t length = sizeof control->peer;
  if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&control->peer), &length) != 0) {
    VFAIL("getpeername(): %s\n", strerror(errno));
    CloseDescriptor(&descriptor);
    control->descriptor = -1;
    return -1;
  }
  inet_ntop(AF_INET, &control->peer.sin_addr, control->peer_text, sizeof control->peer_text);
  control->peer_text[sizeof control->peer_text - 1] = '\0';
  control->descriptor = descriptor;
  if (Settings.verbosity >= 4)
    LogMessage("%s: FTP control connected to %s:%d\n", ProgramName, control->peer_text, Port(control->peer));

  // The greeting, with any further lines that came with it.
  control->reply_held = 0;
  control->lines_held = 0;
  char line[ReplyBufferSize];
  do {
    if (ReadReply(control, line) != 0) {
      CloseDescriptor(&control->descriptor);
      return -1;
    }
  } while (control->lines_held > 0);
  return 0;
}

int CloseConnection(FtpConnection* record) {
  if (!record) return -1;
  if (IsControlRecord(record)) {
    CloseConnection(record->data);
    // A record that was never connected reports -1, as a close of nothing does.
    int result = record->descriptor >= 0 ? CloseDescriptor(&record->descriptor) : -1;
    free(record);
    return result;
  }
  if (IsDataRecord(record)) {
    CloseDataSocket(record);
    if (record->transfer_buffer) munmap(record->transfer_buffer, TransferBufferSize);
    free(record);
    return -1;
  }
  return -1;
}
