// Commands that move data (LIST, RETR, STOR): the passive data connection
// they need, opened with PASV when none is open, then the command with its
// transfer.
#pragma once

#include "ftp/session.h"
#include "net/command.h"

// Opens the passive data connection: PASV, then a connect to the address of
// its reply. 0, or -1 after "PASV command failed".
int OpenPassiveConnection(FtpSession* session);
// Makes ready for a command that moves data: the passive data connection
// open (PASV only when none is open) and the transfer buffer there. 0, or
// -1 after a message; also -1 once a termination request allows no more
// commands, naming the command that is not sent.
int PrepareDataCommand(FtpSession* session, const char* command);
// Sends a command that moves data (made ready first where it is not yet) and awaits its final reply while the
// transfer runs. 0 positive, 1 negative, -1 failure (as AwaitReply).
int DataCommand(FtpSession* session, const char* command, const Transfer& transfer, Reply* reply = nullptr);
