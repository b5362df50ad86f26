// Commands with a data transfer, on a passive data connection.
#include "ftp/data_command.h"

#include "net/data_connection.h"
#include "support/log.h"

// The module this file reports as in failure messages: these steps were
// always the transport's.
static constexpr const char* kModule = "socket.cpp";

int OpenPassiveConnection(FtpSession* session) {
  Reply reply;
  const char* passive = PassiveCommand(session->control);
  int result = Command(session->control, passive, &reply);
  if (result == 0 && ConnectDataConnection(session->control, reply.line) != 0) {
    VFAIL("can't connect data port\n");
    result = -1;
  }
  if (result != 0) {
    VFAIL("%s command failed\n", passive);
    return -1;
  }
  return 0;
}

int DataCommand(FtpSession* session, const char* command, const Transfer& transfer, Reply* reply) {
  FtpConnection* control = session->control;
  if (!IsControlRecord(control)) return -1;
  // Checked before PASV, so that a run past its grace names the command it
  // did not send.
  if (!MaySendCommand(command)) return -1;
  FtpConnection* data = control->data;
  if (!IsDataRecord(data)) return -1;
  if (data->descriptor < 0 && OpenPassiveConnection(session) != 0) return -1;
  if (EnsureTransferBuffer(data) != 0) return -1;
  if (SendCommandLine(control, command) != 0) return -1;
  return AwaitReply(control, command, reply, &transfer, ReplyWait::Bounded);
}
