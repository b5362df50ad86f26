// The command exchange: one command line out, its replies in, and the data
// transfer of LIST, RETR and STOR run while the final reply is awaited.
#include "net/command.h"

#include <poll.h>
#include <strings.h>

#include <cerrno>
#include <cstring>

#include "cli/settings.h"
#include "ftp/checkpoint.h"
#include "net/reply_reader.h"
#include "net/stream.h"
#include "support/log.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "socket.cpp";

namespace {

// One wait for a final reply, with the command's transfer running beside
// it: the control connection is watched while only preliminary replies
// came, the data connection while it is open.
class Exchange {
 public:
  Exchange(FtpConnection* control, const char* command, Reply* reply, const Transfer* transfer, ReplyWait wait)
      : control_(control), data_(control->data), command_(command), reply_(reply), transfer_(transfer),
        bounded_(wait == ReplyWait::Bounded) {}

  int Run() {
    for (;;) {
      if (!Watch()) break;
      if (entries_ == 0) break;
      const int step = WaitStepMs();
      if (step == 0) {
        // The grace after a termination request is over: the reply (or the
        // start of the data) is not awaited any longer.
        VFAIL("termination requested: no longer waiting for a reply\n");
        if (transfer_) CloseDataSocket(data_);
        return -1;
      }
      int ready = StreamPoll(set_, records_, entries_, step);
      if (ready < 0) {
        VFAIL("poll(): %s\n", strerror(errno));
        return -1;
      }
      if (ready == 0 && TerminationRequested.load() != 0) continue;
      if (ready == 0) {
        if (SilentStep() != 0) return -1;
      } else {
        if (control_entry_ >= 0 && (set_[control_entry_].revents & (POLLIN | POLLPRI))) TakeReplies();
        if (data_entry_ >= 0 && set_[data_entry_].revents) MoveData();
        if (InTrouble()) {
          VFAIL("poll(): revents: 0x%X, 0x%X\n", static_cast<unsigned>(set_[0].revents),
                entries_ > 1 ? static_cast<unsigned>(set_[1].revents) : 0u);
          AbandonConnections(control_);
          return -1;
        }
        waited_ = 0;
      }
      if (awaiting_ || DataLive()) continue;
      break;
    }
    // A data connection never begun (the server refused the command at
    // once) belongs to no transfer: the next command makes a fresh one.
    if (DataOpen()) CloseDataSocket(data_);
    return failure_;
  }

 private:
  bool DataOpen() const { return transfer_ && data_->descriptor >= 0; }
  // The data connection may be used: open, and (under TLS) begun.
  bool DataLive() const { return DataOpen() && !StreamAwaitsStart(data_); }

  // Fills the poll set. false when the control connection is gone (the
  // failure is then the checkpoint's answer).
  bool Watch() {
    entries_ = 0;
    control_entry_ = -1;
    data_entry_ = -1;
    if (awaiting_) {
      if (control_->descriptor < 0) {
        VFAIL("control connection gone\n");
        failure_ = AbortToCheckpoint(control_->owner);
        return false;
      }
      set_[entries_] = {control_->descriptor, POLLIN | POLLPRI, 0};
      records_[entries_] = control_;
      control_entry_ = static_cast<int>(entries_++);
      if (Settings.verbosity >= 4) VFAIL("'%c': looking for completion reply\n", '1');
    }
    if (DataLive()) {
      // The data connection has a descriptor of its own, never the control
      // connection's, so it always takes an entry of its own.
      const short events = transfer_->receive ? (POLLIN | POLLPRI) : POLLOUT;
      set_[entries_] = {data_->descriptor, events, 0};
      records_[entries_] = data_;
      data_entry_ = static_cast<int>(entries_++);
      if (Settings.verbosity >= 4) {
        if (transfer_->receive)
          VFAIL("looking for more data to read\n");
        else
          VFAIL("looking for more data to write\n");
      }
    }
    return true;
  }

  // Takes what the server has sent so far and reads every whole reply line
  // of it; a line not yet whole is waited for by the loop, step by step.
  void TakeReplies() {
    if (ReceiveReplyBytes(control_) != 0) return ReaderFailed();
    for (int held; (held = ReplyHeld(control_)) != 0;) {
      if (held < 0) return ReaderFailed();
      char got[ReplyBufferSize];
      int result = ReadReply(control_, got);
      if (result < 0) return ReaderFailed();
      CopyBounded(reply_->line, sizeof reply_->line, got);
      awaiting_ = got[0] == '1';
      if (awaiting_ && DataOpen()) StreamBegin(data_);
      if (result == 1) {
        CopyBounded(reply_->quoted, sizeof reply_->quoted, got);
        // Whichever failure came first is the one reported: a transfer
        // that already broke stays -1 even when the server then sends
        // its negative reply.
        if (got[0] != '1' && failure_ == 0) failure_ = 1;
      }
    }
  }

  // The reply cannot be read: nothing more is awaited, and the command fails.
  void ReaderFailed() {
    awaiting_ = false;
    failure_ = -1;
  }

  void MoveData() {
    int moved = transfer_->receive ? ReceiveData(control_, transfer_->receive, transfer_->argument)
                                   : SendData(control_, transfer_->send, transfer_->argument);
    if (moved != 0 && failure_ == 0) failure_ = -1;
  }

  // An error or hang-up on the data socket that the transfer has already
  // met (and closed the socket for) is a failed transfer, not a broken
  // session: a server refusing a LIST or RETR resets the data connection
  // while the control connection is perfectly healthy.
  bool InTrouble() const {
    const short problems = static_cast<short>(~(POLLIN | POLLPRI | POLLOUT));
    bool control_trouble = control_entry_ >= 0 && (set_[control_entry_].revents & problems);
    bool data_trouble = data_entry_ >= 0 && data_entry_ != control_entry_ &&
                        (set_[data_entry_].revents & problems) && data_->descriptor >= 0;
    return control_trouble || data_trouble;
  }

  // A poll step in which nothing came. Only a save or restore command,
  // which may run for hours on the server, waits without limit; any other
  // reply or transfer that stays silent for --timeout minutes means a server
  // that is gone or hung, and waiting on would hold the worker (and during a
  // retrieval the archive lock) for ever. 0, or -1 when the wait is given up.
  int SilentStep() {
    waited_ += PollStepMs;
    VFAIL("poll(): timedout after %.2fs (%.2fs)\n", PollStepSeconds(), waited_ / 1000.0);
    if (bounded_ && waited_ >= static_cast<long>(Settings.timeout_minutes) * PollStepMs) {
      VFAIL("no reply to %s within %d minutes: connection given up\n", ShownCommand(command_),
            Settings.timeout_minutes);
      AbandonConnections(control_);
      return -1;
    }
    return 0;
  }

  FtpConnection* control_;
  FtpConnection* data_;
  const char* command_;
  Reply* reply_;
  const Transfer* transfer_;
  bool bounded_;
  bool awaiting_ = true;  // only preliminary replies (or none) came so far
  int failure_ = 0;
  long waited_ = 0;
  struct pollfd set_[2];
  FtpConnection* records_[2] = {};
  nfds_t entries_ = 0;
  int control_entry_ = -1;
  int data_entry_ = -1;
};

}  // namespace

const char* ShownCommand(const char* command) {
  // A debug log must never carry the credential into a scheduler's files.
  if (strncasecmp(command, "PASS ", 5) == 0) return "PASS ********";
  return command;
}

bool MaySendCommand(const char* command) {
  if (TerminationMsLeft() != 0) return true;
  VFAIL("termination requested: %s not sent\n", ShownCommand(command));
  return false;
}

int SendCommandLine(FtpConnection* control, const char* command) {
  if (!IsControlRecord(control)) return -1;
  // At most 4094 bytes are kept, so a command goes out whole with its CR LF
  // only up to 4092 characters; a longer one is refused, never sent cut
  // (4093 characters would go out as CR and a zero byte, no line end).
  // A line end inside a command would make the server read a second command
  // the program never meant: a name out of a crafted archive or a hostile
  // listing, or a passphrase read with its line end, must never do that.
  if (strpbrk(command, "\r\n")) {
    VFAIL("command holds a line end: not sent\n");
    return -1;
  }
  char line[CommandBufferSize];
  int length = FormatBounded(line, CommandBufferSize - 1, "%s\r\n", command);
  if (length > CommandBufferSize - 2) {
    VFAIL("command too long\n");
    return -1;
  }
  size_t sent = 0;
  const ssize_t written = StreamSendFull(control, line, static_cast<size_t>(length), &sent);
  WipeBytes(line, static_cast<size_t>(length));  // the line of PASS carries the passphrase
  if (written < 0) {
    VFAIL("write(%s:%d,, %d): %s\n", control->peer_text, Port(control->peer), length - static_cast<int>(sent),
          strerror(errno));
    StreamClose(control, false);
    return AbortToCheckpoint(control->owner);
  }
  if (Settings.verbosity >= 3) LogMessage("%s: sent command \"%s\"\n", ProgramName, ShownCommand(command));
  return 0;
}

int AwaitReply(FtpConnection* control, const char* command, Reply* reply, const Transfer* transfer,
               ReplyWait wait) {
  if (!IsControlRecord(control)) return -1;
  Reply ignored;
  Exchange exchange(control, command, reply ? reply : &ignored, transfer, wait);
  return exchange.Run();
}

namespace {

int CommandWaiting(FtpConnection* control, const char* command, Reply* reply, ReplyWait wait) {
  if (!IsControlRecord(control)) return -1;
  if (!MaySendCommand(command)) return -1;
  if (SendCommandLine(control, command) != 0) return -1;
  return AwaitReply(control, command, reply, nullptr, wait);
}

}  // namespace

int Command(FtpConnection* control, const char* command, Reply* reply) {
  return CommandWaiting(control, command, reply, ReplyWait::Bounded);
}

int LongCommand(FtpConnection* control, const char* command, Reply* reply) {
  return CommandWaiting(control, command, reply, ReplyWait::Unbounded);
}
