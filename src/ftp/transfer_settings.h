// The transfer settings of a session (STRU, MODE, TYPE, LISTFMT, NAMEFMT):
// sent only when the server's current value differs from what the next
// command needs.
#pragma once

#include "ftp/session.h"

// What a command needs set before it runs.
struct TransferSettings {
  char type;         // 'A' for listings, 'I' for save files
  bool list_format;  // SITE LISTFMT 1: listings in the format the parser reads
  bool name_format;  // SITE NAMEFMT 1: path names for objects of the library file system
};

// Sends STRU F, MODE S, TYPE, then SITE LISTFMT 1 and SITE NAMEFMT 1 where
// wanted, each only when the session's remembered value differs. 0, or -1
// after "<label> command failed" for the first that the server refused.
int EnsureTransferSettings(FtpSession* session, const TransferSettings& wanted);
