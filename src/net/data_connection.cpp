// The passive data connection: the 227 reply's address and the connect.
#include "net/data_connection.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cli/settings.h"
#include "net/connection.h"
#include "support/log.h"
#include "support/sysio.h"
#include "support/text.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "socket.cpp";

int ParsePassiveReply(const char* reply, sockaddr_in* address, char* text, size_t text_size) {
  memset(address, 0, sizeof *address);
  address->sin_family = AF_INET;
  text[0] = '\0';
  if (strncmp(reply, "227 ", 4) != 0) {
    VFAIL("bad PASV response\n");
    return -1;
  }
  const char* at = strpbrk(reply + 4, "123456789");
  if (!at) {
    VFAIL("PASV response without address\n");
    return -1;
  }
  // h1,h2,h3,h4 becomes the dotted text; the copy is bounded by the
  // caller's field, so an oversized address part is refused rather than
  // overrunning it.
  size_t used = 0;
  int commas = 0;
  bool fits = true;
  for (; *at; at++) {
    char c = *at;
    if (c == ',' && ++commas == 4) break;
    if (c == ',') c = '.';
    if (used + 1 >= text_size) {
      fits = false;
      break;
    }
    text[used++] = c;
  }
  text[used] = '\0';
  int converted = inet_pton(AF_INET, text, &address->sin_addr);
  if (converted < 0) {
    VFAIL("PASV response address: %s\n", strerror(errno));
    return -1;
  }
  if (converted == 0 || !fits || *at != ',') {
    VFAIL("PASV response address invalid\n");
    return -1;
  }
  const char* number = at + 1;
  char* end = nullptr;
  unsigned long high = strtoul(number, &end, 10);
  if (end == number || *end != ',') {
    VFAIL("PASV response port invalid\n");
    return -1;
  }
  number = end + 1;
  unsigned long low = strtoul(number, &end, 10);
  if (end == number) {
    VFAIL("PASV response port invalid\n");
    return -1;
  }
  address->sin_port = htons(static_cast<uint16_t>(((high << 8) | low) & 0xFFFF));
  return 0;
}

namespace {

// Deliberately, only the port of a 227 reply is used: the data connection
// goes to the address the control connection is connected to, as curl does
// by default. A server (or anyone able to alter its reply) could otherwise
// send the data of a backup or restore to a third host.
void UsePeerAddress(const FtpConnection* control, FtpConnection* data) {
  if (data->server.sin_addr.s_addr != control->peer.sin_addr.s_addr && Settings.verbosity >= 4)
    LogMessage("PASV address %s ignored: the data connection goes to %s\n", data->server_text, control->peer_text);
  data->server.sin_addr = control->peer.sin_addr;
  CopyBounded(data->server_text, sizeof data->server_text, control->peer_text);
}

}  // namespace

int ConnectDataConnection(FtpConnection* control, const char* passive_reply) {
  if (!IsControlRecord(control) || !IsDataRecord(control->data)) return -1;
  FtpConnection* data = control->data;
  CloseDataSocket(data);
  if (ParsePassiveReply(passive_reply, &data->server, data->server_text, sizeof data->server_text) != 0)
    return -1;
  UsePeerAddress(control, data);

  int descriptor = socket(AF_INET, SOCK_STREAM, data->protocol);
  if (descriptor < 0) {
    VFAIL("socket(): %s\n", strerror(errno));
    return -1;
  }
  int on = 1;
  if (setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    VFAIL("setsockopt(, SOL_SOCKET, SO_REUSEADDR): %s\n", strerror(errno));
    CloseDescriptor(&descriptor);
    return -1;
  }
  int discover = IP_PMTUDISC_WANT;
  if (setsockopt(descriptor, SOL_IP, IP_MTU_DISCOVER, &discover, sizeof discover) != 0)
    VFAIL("setsockopt(, SOL_IP, IP_MTU_DISCOVER, %X): %s\n", discover, strerror(errno));
  if (setsockopt(descriptor, SOL_TCP, TCP_NODELAY, &on, sizeof on) != 0)
    VFAIL("setsockopt(, SOL_TCP, TCP_NODELAY, %X): %s\n", on, strerror(errno));
  if (EnableKeepalive(descriptor) != 0) VFAIL("setsockopt(, SOL_SOCKET, SO_KEEPALIVE): %s\n", strerror(errno));
  int connected = ConnectWithin(descriptor, reinterpret_cast<sockaddr*>(&data->server), sizeof data->server,
                                Settings.timeout_minutes);
  if (connected != 0) {
    VFAIL("connect(, %s:%d): %s\n", data->server_text, Port(data->server), strerror(errno));
    CloseDescriptor(&descriptor);
    data->descriptor = -1;
    return -1;
  }
  data->descriptor = descriptor;
  return 0;
}

