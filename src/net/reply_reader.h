// Reading the server's replies off the control connection, one line at a
// time, skipping the intermediate lines of multi-line replies.
#pragma once

struct FtpConnection;

// The most one reply may hold, its intermediate lines included. Generous
// for any real server (a greeting with a banner, HELP or STAT runs to a
// few dozen lines); a reply that goes on past them is a broken or hostile
// server talking without end, and the connection is given up rather than
// read forever.
constexpr int ReplyLinesMax = 1000;
constexpr int ReplyBytesMax = 256 * 1024;

// Returns one reply line in out (at least ReplyBufferSize bytes): 0 for a
// positive reply (2xx, 3xx), 1 for any other, -1 on failure.
int ReadReply(FtpConnection* control, char* out);
// For a caller that does its own waiting: takes the bytes the connection
// holds now without waiting (0), or fails as ReadReply does (-1). Under TLS
// a readable connection may bring no reply byte at all (a session ticket).
int ReceiveReplyBytes(FtpConnection* control);
// 1 when a final reply line is held, so that ReadReply returns it without
// waiting; 0 when more bytes are needed; -1 on failure.
int ReplyHeld(FtpConnection* control);
// Forgets the held bytes and the reply being read: a connection that is
// new or broken starts afresh.
void ForgetHeldReplies(FtpConnection* control);
