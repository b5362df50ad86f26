// Restore driver: reads a CTAR archive entry by entry, chooses the entries
// (and the parts of them) that the include and exclude files want, and
// hands each one to the restore command family for its kind of object.
#pragma once

#include <cstdint>

struct FtpSession;

// Feeds one entry's data to STOR. Set up for every entry with calls 0 and
// left equal to size.
struct ArchiveReader {
  int descriptor;
  int calls;     // hand-overs so far
  int64_t left;  // data bytes not yet delivered; negative once the padding was read
  int64_t size;  // the entry's data size
};

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

// The send-direction DataCallback of STOR. Reads whole 512-byte blocks (the
// entry's padding comes with its last data, which keeps the archive on a
// block boundary) and hands over at most `left` bytes.
int ArchiveReadCallback(void* reader, char* buffer, int* count);

// Moves the archive past count bytes rounded up to whole blocks: a seek, or
// on a pipe a read through a scratch page. A count of 0 or less skips
// nothing. 0, or -1 when the archive ended first or could not be read.
int SkipArchiveData(int descriptor, int64_t count);
