// A session's TCP connections: the control connection with its reply
// buffer, and the data connection record it owns. Opening (name service,
// connect, the greeting) and closing them.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

struct FtpSession;
struct TlsChannel;
struct TlsResumption;

// An IPv4 or IPv6 socket address.
union SocketAddress {
  sockaddr any;
  sockaddr_in v4;
  sockaddr_in6 v6;
  sockaddr_storage storage;
};
socklen_t AddressLength(const SocketAddress& address);
// Room for the text of any address: an IPv6 one is shown in brackets
// ("[::1]"), so that the ":port" after it in messages stays readable.
constexpr size_t AddressTextSize = INET6_ADDRSTRLEN + 2;
// Writes the address's text (dotted IPv4, bracketed IPv6) into text.
void AddressText(const SocketAddress& address, char* text, size_t size);

constexpr int TransferBufferSize = 65536;
constexpr int CommandBufferSize = 4096;
// The reply buffer holds the longest reply line we accept (4095 characters)
// with its CR LF, plus one byte so that a 4096-character line can be seen
// whole and refused as too long rather than taken for a missing line end.
constexpr int ReplyLineMax = 4095;
constexpr int ReplyBufferSize = ReplyLineMax + 3;

// One TCP connection. Control records ("ftpc") carry the reply buffer and
// own the session's data record ("ftpd"), which carries the passive address
// and the transfer buffer. Every operation checks the tag first.
struct FtpConnection {
  char tag[4];
  int protocol;
  int descriptor;  // -1 while closed
  // control variant
  FtpSession* owner;
  SocketAddress peer;
  char peer_text[AddressTextSize];
  // The name given for the server (or its address), which its certificate
  // must carry.
  char host[256];
  FtpConnection* data;
  int reply_capacity;
  int reply_held;
  int lines_held;
  // The reply being read (reply_reader): the code of a multi-line reply
  // whose final line has not come ("" between replies), and the lines and
  // bytes taken of it so far.
  char reply_code[4];
  int reply_lines;
  int reply_bytes;
  char reply[ReplyBufferSize];
  // data variant
  SocketAddress server;
  char server_text[AddressTextSize];
  char* transfer_buffer;  // mapped on the first transfer
  // both: the TLS state while the connection is encrypted, else nullptr
  TlsChannel* tls;
  // control: the newest TLS session the server handed out on any of the
  // session's connections, which the next data connection resumes
  TlsResumption* resumption;
};

bool IsControlRecord(const FtpConnection* record);
bool IsDataRecord(const FtpConnection* record);

// The service a session's control connection goes to: "ftps" for implicit
// TLS, else "ftp".
const char* ControlService();
// Resolves host and service (IPv4 and IPv6), connects to the first address
// that answers, reads the greeting (under TLS when the run asks for it) and
// makes the data record. Returns the control record, or nullptr after a
// message.
FtpConnection* OpenConnections(FtpSession* session, const char* host, const char* service);
// The same for an address already known (no name service).
FtpConnection* OpenConnectionsTo(FtpSession* session, const SocketAddress& peer, int protocol,
                                 const char* host = nullptr);
// (Re)connects a closed control record and consumes the greeting.
int ConnectControl(FtpConnection* control);
// Under TLS, asks for encrypted data connections (PBSZ 0, PROT P), each of
// which must be accepted. 0 (nothing sent without TLS), or -1 after a
// message.
int ProtectDataConnections(FtpConnection* control);
// Closes and frees a record (a control record takes its data record along).
int CloseConnection(FtpConnection* record);
// Closes the data socket if it is open: an abrupt end, which a server
// reading an encrypted upload sees as a cut, never as its end.
void CloseDataSocket(FtpConnection* data);
// Ends a data connection whose transfer completed: under TLS the
// close_notify goes out first, then the socket is closed.
void FinishDataSocket(FtpConnection* data);

// The control connection is broken: close it, forget what it held and let
// the owner's checkpoint take over (the call does not come back when a
// protected operation is running).
int ControlFailed(FtpConnection* control);
// Drops a control connection after a fatal transfer condition and hands
// over to the checkpoint.
int AbandonConnections(FtpConnection* control);

// The port of an address, in host order, as messages show it.
int Port(const sockaddr_in& address);
int Port(const SocketAddress& address);
