// The passive data connection: the port of the PASV or EPSV reply, the
// connect, and TLS on it when the control connection has it.
#include "net/data_connection.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cli/settings.h"
#include "net/connection.h"
#include "net/tls.h"
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

int ParseExtendedPassiveReply(const char* reply, int* port) {
  *port = 0;
  if (strncmp(reply, "229 ", 4) != 0 || !strchr(reply + 4, '(')) {
    VFAIL("bad EPSV response\n");
    return -1;
  }
  // "(" d d d port d ")", where d is one printable delimiter. The text
  // before it may hold parentheses of its own ("(EPSV)"): the port is in
  // the last "(" that three equal delimiters follow.
  const char* open = nullptr;
  for (const char* at = strchr(reply + 4, '('); at; at = strchr(at + 1, '('))
    if (at[1] >= 33 && at[1] <= 126 && at[2] == at[1] && at[3] == at[1]) open = at;
  const char delimiter = open ? open[1] : '\0';
  const char* number = open ? open + 4 : reply;
  if (!open || !isdigit(static_cast<unsigned char>(*number))) {
    VFAIL("EPSV response port invalid\n");
    return -1;
  }
  char* end = nullptr;
  const unsigned long value = strtoul(number, &end, 10);
  if (end - number > 5 || value == 0 || value > 65535 || end[0] != delimiter || end[1] != ')') {
    VFAIL("EPSV response port invalid\n");
    return -1;
  }
  *port = static_cast<int>(value);
  return 0;
}

const char* PassiveCommand(const FtpConnection* control) {
  return control->peer.any.sa_family == AF_INET6 ? "EPSV" : "PASV";
}

namespace {

// The text field a PASV reply's address is read into: what a dotted
// address needs, so that a longer one is refused as before.
constexpr size_t PassiveTextSize = 17;

// Deliberately, only the port of a passive reply is used: the data
// connection goes to the address the control connection is connected to, as
// curl does by default. A server (or anyone able to alter its reply) could
// otherwise send the data of a backup or restore to a third host.
int ServerFromReply(const FtpConnection* control, FtpConnection* data, const char* reply) {
  data->server = control->peer;
  CopyBounded(data->server_text, sizeof data->server_text, control->peer_text);
  if (control->peer.any.sa_family == AF_INET6) {
    int port = 0;
    if (ParseExtendedPassiveReply(reply, &port) != 0) return -1;
    data->server.v6.sin6_port = htons(static_cast<uint16_t>(port));
    return 0;
  }
  sockaddr_in named{};
  char named_text[PassiveTextSize];
  if (ParsePassiveReply(reply, &named, named_text, sizeof named_text) != 0) return -1;
  if (named.sin_addr.s_addr != control->peer.v4.sin_addr.s_addr && Settings.verbosity >= 4)
    LogMessage("PASV address %s ignored: the data connection goes to %s\n", named_text, control->peer_text);
  data->server.v4.sin_port = named.sin_port;
  return 0;
}

// Socket options of a data connection; a failure is reported, not fatal,
// except for SO_REUSEADDR.
int PrepareDataSocket(int descriptor, int family) {
  int on = 1;
  if (setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    VFAIL("setsockopt(, SOL_SOCKET, SO_REUSEADDR): %s\n", strerror(errno));
    return -1;
  }
  if (family == AF_INET6) {
    int discover = IPV6_PMTUDISC_WANT;
    if (setsockopt(descriptor, SOL_IPV6, IPV6_MTU_DISCOVER, &discover, sizeof discover) != 0)
      VFAIL("setsockopt(, SOL_IPV6, IPV6_MTU_DISCOVER, %X): %s\n", discover, strerror(errno));
  } else {
    int discover = IP_PMTUDISC_WANT;
    if (setsockopt(descriptor, SOL_IP, IP_MTU_DISCOVER, &discover, sizeof discover) != 0)
      VFAIL("setsockopt(, SOL_IP, IP_MTU_DISCOVER, %X): %s\n", discover, strerror(errno));
  }
  if (setsockopt(descriptor, SOL_TCP, TCP_NODELAY, &on, sizeof on) != 0)
    VFAIL("setsockopt(, SOL_TCP, TCP_NODELAY, %X): %s\n", on, strerror(errno));
  if (EnableKeepalive(descriptor) != 0) VFAIL("setsockopt(, SOL_SOCKET, SO_KEEPALIVE): %s\n", strerror(errno));
  return 0;
}

}  // namespace

int ConnectDataConnection(FtpConnection* control, const char* passive_reply) {
  if (!IsControlRecord(control) || !IsDataRecord(control->data)) return -1;
  FtpConnection* data = control->data;
  CloseDataSocket(data);
  if (ServerFromReply(control, data, passive_reply) != 0) return -1;

  const int family = data->server.any.sa_family;
  int descriptor = socket(family, SOCK_STREAM, data->protocol);
  if (descriptor < 0) {
    VFAIL("socket(): %s\n", strerror(errno));
    return -1;
  }
  if (PrepareDataSocket(descriptor, family) != 0) {
    CloseDescriptor(&descriptor);
    return -1;
  }
  int connected = ConnectWithin(descriptor, &data->server.any, AddressLength(data->server), Settings.timeout_minutes);
  if (connected != 0) {
    VFAIL("connect(, %s:%d): %s\n", data->server_text, Port(data->server), strerror(errno));
    CloseDescriptor(&descriptor);
    data->descriptor = -1;
    return -1;
  }
  data->descriptor = descriptor;
  if (control->tls && StartDataTls(control) != 0) {
    CloseDataSocket(data);
    return -1;
  }
  return 0;
}
