// A session's TCP connections: the control connection with its reply
// buffer, and the data connection record it owns. Opening (name service,
// connect, the greeting) and closing them.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

struct FtpSession;

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
  sockaddr_in peer;
  char peer_text[17];
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
  sockaddr_in server;
  char server_text[17];
  char* transfer_buffer;  // mapped on the first transfer
};

bool IsControlRecord(const FtpConnection* record);
bool IsDataRecord(const FtpConnection* record);

// Resolves host and service, connects, reads the greeting and makes the
// data record. Returns the control record, or nullptr after a message.
FtpConnection* OpenConnections(FtpSession* session, const char* host, const char* service);
// The same for an address already known (no name service).
FtpConnection* OpenConnectionsTo(FtpSession* session, const sockaddr_in& peer, int protocol);
// (Re)connects a closed control record and consumes the greeting.
int ConnectControl(FtpConnection* control);
// Closes and frees a record (a control record takes its data record along).
int CloseConnection(FtpConnection* record);
// Closes the data socket if it is open.
void CloseDataSocket(FtpConnection* data);

// The control connection is broken: close it, forget what it held and let
// the owner's checkpoint take over (the call does not come back when a
// protected operation is running).
int ControlFailed(FtpConnection* control);
// Drops a control connection after a fatal transfer condition and hands
// over to the checkpoint.
int AbandonConnections(FtpConnection* control);

// The port of an address, in host order, as messages show it.
int Port(const sockaddr_in& address);
