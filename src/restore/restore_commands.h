// The restore command family.
//
// Each member uploads one archive entry into the session's save file
// QTEMP/SAVTEMP and runs the IBM i restore command for its kind of object.
// QTEMP is private to the server job of the session, so the name needs no
// number. All members are protected operations: a broken connection before
// the upload repeats the set-up, one during or after the upload fails the
// entry, because the archive bytes already sent cannot be read again.
#pragma once

#include "ftp/session.h"
#include "net/transfer.h"

struct StringList;
struct StringPair;

constexpr const char* SaveTempFile = "QTEMP/SAVTEMP";
constexpr const char* SaveTempUpload = "/QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF";
constexpr const char* SaveTempDevice = "/QSYS.LIB/QTEMP.LIB/SAVTEMP.FILE";

// Filled by the restore commands when the caller gives one and the clock
// can be read; the caller clears it for every entry.
struct RestoreTimes {
  double restore_seconds;   // end of the upload to the end of the (last) restore command
  double unused;            // never written here
  double transfer_seconds;  // duration of the STOR
};

// One upload, then one RST per pair of the list (path, optional new
// location), each with the exclude file's lines below the path as *OMIT.
// Below release V5R4M0 the parents of the target are made with MKD first;
// from it on RST creates them (CRTPRNDIR). Gives the last pair's result.
int RestoreIfsObjects(FtpSession* session, const StringList* objects, RestoreTimes* times,
                      SendCallback send, void* argument);
// RSTLIB of the pair's library, under the pair's second path when given.
// A path that is not a library, or a destination that is not a library
// name of at most ten characters, is refused before anything is sent.
int RestoreLibrary(FtpSession* session, const StringPair* pair, RestoreTimes* times,
                   SendCallback send, void* argument);
// These three restore everything in the save file to its saved place.
// RestoreDocuments gives Command's result (1 or -1) when RSTDLO fails.
int RestoreDocuments(FtpSession* session, const char* name, RestoreTimes* times,
                     SendCallback send, void* argument);
int RestoreUserProfiles(FtpSession* session, const char* name, RestoreTimes* times,
                        SendCallback send, void* argument);
int RestoreConfiguration(FtpSession* session, const char* name, RestoreTimes* times,
                         SendCallback send, void* argument);
// RSTAUT USRPRF(*ALL): no upload; after a recovery it is simply sent again.
int RestoreAuthority(FtpSession* session);
