// FTP transport: the control connection and its reply reader, command
// sending, passive data connections and the poll-driven transfer loop.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

struct FtpSession;

// Moves the bytes of one data transfer. Receive direction (LIST, RETR): the
// count holds the bytes in the buffer, the callback consumes them. Send
// direction (STOR): the count holds the buffer's capacity, the callback puts
// up to that many bytes at its start and sets the count (0 or less: end of
// data). Non-zero aborts the transfer.
using DataCallback = int (*)(void* argument, char* buffer, int* count);

// Every blocking wait on a socket is one poll of this many milliseconds;
// longer waits are counted in these steps against --timeout. Tests running
// in-process may lower it.
extern int PollStepMs;

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
// Returns one reply line in out (at least 4096 bytes): 0 for a positive
// reply (2xx, 3xx), 1 for any other, -1 on failure.
int ReadReply(FtpConnection* control, char* out);
// Sends one command and waits for its final reply, running the data
// transfer when a callback is given: 0 positive, 1 negative, -1 failure.
int SendCommand(FtpConnection* control, const char* command, char* reply, size_t reply_size,
                DataCallback receive, DataCallback send, void* argument);
// Reads the passive address out of a PASV reply ("227 ... h1,h2,h3,h4,p1,p2"):
// address gets family, address and port, text the dotted address as the
// reply spelled it (cut to text_size, always terminated; text_size > 0).
// 0, or -1 after reporting what is wrong with the reply.
int ParsePassiveReply(const char* reply, sockaddr_in* address, char* text, size_t text_size);
// Closes and frees a record (a control record takes its data record along).
int CloseConnection(FtpConnection* record);
// Closes the data socket if it is open.
void CloseDataSocket(FtpConnection* data);
