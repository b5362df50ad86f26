// Commands that move data (LIST, RETR, STOR): the passive data connection
// they need, opened with PASV when none is open, then the command with its
// transfer.
#pragma once

#include "ftp/session.h"
#include "net/command.h"

// Opens the passive data connection: PASV, then a connect to the address of
// its reply. 0, or -1 after "PASV command failed".
int OpenPassiveConnection(FtpSession* session);
// Sends a command that moves data and awaits its final reply while the
// transfer runs. 0 positive, 1 negative, -1 failure (as AwaitReply).
int DataCommand(FtpSession* session, const char* command, const Transfer& transfer, Reply* reply = nullptr);
