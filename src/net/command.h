// The command exchange on the control connection: send a command line,
// then await its final reply, running a data transfer meanwhile when the
// command has one.
#pragma once

#include "net/connection.h"
#include "net/transfer.h"

// Failure messages quote a reply cut to this many bytes, terminator
// included (127 characters).
constexpr int QuotedReplySize = 128;

// What the server answered to one command.
struct Reply {
  // The final reply line (the last line read).
  char line[ReplyBufferSize] = "";
  // The last line that was not a positive completion: a preliminary (1xx)
  // or negative reply, cut to QuotedReplySize; empty when there was none.
  // This is what a failure message quotes and what judges a failure.
  char quoted[QuotedReplySize] = "";
};

// The data transfer a command runs: one of receive (LIST, RETR) or send
// (STOR) is set.
struct Transfer {
  DataCallback receive = nullptr;
  SendCallback send = nullptr;
  void* argument = nullptr;
};

// What a debug log shows of a command: never the credential of PASS.
const char* ShownCommand(const char* command);
// false, after a message, once the grace after a termination request is
// over: no new command goes out then.
bool MaySendCommand(const char* command);
// Sends one command line (CR LF added). 0, or -1 after a message; a broken
// connection is handed to the checkpoint.
int SendCommandLine(FtpConnection* control, const char* command);
// How long a final reply is awaited: within --timeout (counted in poll
// steps), or, for the save and restore commands that run for hours on the
// server, without limit.
enum class ReplyWait { Bounded, Unbounded };
// Waits for the final reply of `command`, just sent, running the transfer
// when one is given (its data connection must be open). 0 positive, 1
// negative, -1 failure (a broken transfer stays -1 whatever the reply).
// A bounded wait that reaches --timeout gives both connections up and hands
// over to the checkpoint.
int AwaitReply(FtpConnection* control, const char* command, Reply* reply, const Transfer* transfer,
               ReplyWait wait);
// A command without data: MaySendCommand, SendCommandLine and AwaitReply,
// the reply awaited within --timeout.
int Command(FtpConnection* control, const char* command, Reply* reply = nullptr);
// The same for a save or restore command (RCMD SAV..., RST...): its reply is
// awaited without limit, with a line every poll step.
int LongCommand(FtpConnection* control, const char* command, Reply* reply = nullptr);
