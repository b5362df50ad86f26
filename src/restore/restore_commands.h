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

struct StringList;
struct StringPair;

constexpr const char* SaveTempFile = "QTEMP/SAVTEMP";
constexpr const char* SaveTempUpload = "/QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF";
constexpr const char* SaveTempDevice = "/QSYS.LIB/QTEMP.LIB/SAVTEMP.FILE";
// Restore replies are kept to 127 characters: enough for the phrases that
// ClassifyRestoreReply looks for, and what the failure messages quote.
constexpr int RestoreReplySize = 128;

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
                      DataCallback send, void* argument);
// RSTLIB of the pair's library, under the pair's second path when given.
// A path that is not a library, or a destination that is not a library
// name of at most ten characters, is refused before anything is sent.
int RestoreLibrary(FtpSession* session, const StringPair* pair, RestoreTimes* times,
                   DataCallback send, void* argument);
// These three restore everything in the save file to its saved place.
// RestoreDocuments gives SendCommand's result (1 or -1) when RSTDLO fails.
int RestoreDocuments(FtpSession* session, const char* name, RestoreTimes* times,
                     DataCallback send, void* argument);
int RestoreUserProfiles(FtpSession* session, const char* name, RestoreTimes* times,
                        DataCallback send, void* argument);
int RestoreConfiguration(FtpSession* session, const char* name, RestoreTimes* times,
                         DataCallback send, void* argument);
// RSTAUT USRPRF(*ALL): no upload; after a recovery it is simply sent again.
int RestoreAuthority(FtpSession* session);

// Judges the reply text of a restore command the server called failed: the
// count of "<n> objects restored" or "<n> libraries restored" (0 when it is
// not a positive number followed by a blank), 1 for "Not all ..." and for an
// empty save file, -1 otherwise. Only the first occurrence of each phrase's
// initial letter is examined.
int ClassifyRestoreReply(const char* text);
