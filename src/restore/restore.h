// Restore driver: reads a CTAR archive entry by entry, chooses the entries
// (and the parts of them) that the include and exclude files want, and
// hands each one to the restore command family for its kind of object.
#pragma once

#include <cstdint>

struct FtpSession;

// What a restore does with an entry, decided by its name alone (the name as
// read back, without the ".savf" of a whole directory). The dispatch table
// of the restore driver is the one place this rule lives; EntryKindOf asks
// that table, so a listing can never name a kind the restore would not use.
enum class EntryKind { Documents, Configuration, SecurityData, Library, Ifs };
EntryKind EntryKindOf(const char* name);

// Successful user-profile restores of this run: private authorities are
// restored once at the end when there were any.
extern int RestoredProfiles;

// Opens the archive named by --restore ("-" is standard input) and checks
// that its first block begins a CTAR archive, before anything is sent to
// the server; the block is kept for RestoreArchive. 0, or -1 after a
// message.
int PrepareRestore();
// The restore run mode: 0 when every selected entry was restored, 1 when
// the archive was read to its end block and some entry failed (or entries
// lie hidden behind the end block), -1 for a fatal error (unreadable, not
// CTAR, a bad header, cut short). After a termination request it ends the
// process with TerminationStatus() once the current entry is done.
int RestoreArchive(FtpSession* session);
