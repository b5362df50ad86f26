// Reading the server's replies off the control connection, one line at a
// time, skipping the intermediate lines of multi-line replies.
#pragma once

struct FtpConnection;

// Returns one reply line in out (at least ReplyBufferSize bytes): 0 for a
// positive reply (2xx, 3xx), 1 for any other, -1 on failure.
int ReadReply(FtpConnection* control, char* out);
