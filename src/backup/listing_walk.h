// Walking the server's directories: each listing is cut into lines, each
// line parsed and the entry placed in the object tree (or left out: an
// exclusion, the --date cut-off), and every directory found is listed in
// turn.
#pragma once

#include <cstddef>
#include <cstdint>

#include "backup/object_tree.h"

struct FtpSession;

constexpr size_t PathBufferSize = 4096;
// A listing line longer than this cannot name anything we could save.
constexpr size_t CarryLimit = 4095;

// Shared by all listings of one include list build.
struct ListingContext {
  char carry[CarryLimit + 1];  // the line being assembled across chunks
  char* path;                  // full path of the directory being listed
  uint8_t found;               // set when an entry was appended
  ObjectNode* directory;       // where entries are appended
  int errors;                  // lines of the current listing that failed
  bool carry_overflow;         // the line being assembled is too long
  uint8_t unchanged;           // an entry it names was left out as older than --date
  char path_buffer[PathBufferSize];
};

// Run-wide listing figures, reported with the backup totals.
extern uint64_t ListCalls;
extern uint64_t ParseErrors;
extern double ListBytes;

// Cuts the chunk into lines and parses and places each complete one;
// returns the number of lines that failed to parse.
int ParseListingChunk(ListingContext* context, const char* data, int length);
// Takes the listing's last line when the server ended it without a line
// end; returns the number of lines that failed to parse (0 or 1).
int FinishListing(ListingContext* context);
// The DataCallback given to LIST: failed lines are counted in the context
// and never abort the transfer.
int ListingCallback(void* context, char* data, int* length);
// Lists path and places its entries in dir, the last line without line end
// too. Lines that failed are reported and counted in ParseErrors. Their
// number, or -1 when the listing itself failed (the caller reports it).
int ListInto(FtpSession* session, const char* path, ObjectNode* dir, ListingContext* context);
// Lists dir and every directory below it, depth first. path (a buffer of
// PathBufferSize) holds dir's parent's path; dir's name is appended to it,
// and what the walk below adds is cut back, so on return it holds dir's
// path (the caller cuts it back to its own). The sum of parse errors, or
// -1 when dir's own listing failed.
int WalkDirectory(FtpSession* session, ObjectNode* dir, char* path, ListingContext* context);
