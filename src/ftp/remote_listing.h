// Listing a server directory with LIST, and what a refused listing means
// for the backup's tree.
#pragma once

#include "ftp/session.h"
#include "net/transfer.h"

struct ObjectNode;

// Lists one server path with LIST, after making sure the session's transfer
// settings suit a listing, and hands the raw listing bytes to callback.
// `directory` is the tree node being listed (nullptr in list mode, which
// keeps no tree). 0 on success, else ResolveListingFailure's answer, or -1.
int ListDirectory(FtpSession* session, const char* path, DataCallback callback, void* context,
                  ObjectNode* directory);
// Deals with a failed LIST: a directory the server will not list but can
// save (and that is not the root or /QSYS.LIB) is kept in the tree as one
// object to be saved whole, and the answer is 0; any other failure is
// reported and fatal (-1); -22 for missing input.
int ResolveListingFailure(const char* reply, ObjectNode* directory);
