// Walking the server's directories: listings cut into lines across the
// chunks the transfer hands over, each parsed entry placed in the object
// tree or left out, and the depth-first walk that lists every directory
// found.
#include "backup/listing_walk.h"

#include <fnmatch.h>
#include <sys/stat.h>

#include <cstring>
#include <ctime>
#include <mutex>

#include "backup/listing_parser.h"
#include "ftp/session.h"
#include "support/log.h"
#include "support/termination.h"
#include "support/text.h"
#include "cli/settings.h"
#include "cli/path_files.h"
#include "ftp/remote_listing.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "backup.cpp";

uint64_t ListCalls = 0;
uint64_t ParseErrors = 0;
double ListBytes = 0;

namespace {

// ---- placing one parsed entry ----------------------------------------------

bool EndsInLib(const char* name) {
  const char* dot = strrchr(name, '.');
  return dot && strcmp(dot, ".LIB") == 0;
}

// The pattern in an include path's last part: from its last "/" on.
const char* IncludePattern(const char* listed) {
  const char* slash = strrchr(listed, '/');
  return slash ? slash : listed;
}

// Whether an entry listed under the root of an include path is one the
// include path names: every entry of the server's root ("/"), or one that
// matches the pattern in the include path's last part.
bool NamedByIncludeRoot(const ObjectNode* directory, const char* name) {
  if (directory->parent) return false;
  const char* listed = directory->name ? directory->name : "";
  if (strcmp(listed, "/") == 0) return true;
  return fnmatch(IncludePattern(listed), name, FNM_PATHNAME | FNM_LEADING_DIR) == 0;
}

// Walking into ".", ".." or an empty name would list the same directory
// (or its parent) again, without end; a server should not send them.
bool WalksInCircles(const char* name) {
  return strcmp(name, "/") == 0 || strcmp(name, "/.") == 0 || strcmp(name, "/..") == 0;
}

// Exclusion is asked with the entry's full path. Below the server's root
// the listed path already ends in "/", and the exclude file names
// top-level objects with one slash, so none is doubled. The listed path is
// cut back after the question.
bool Excluded(ListingContext* context, const char* name) {
  size_t kept = strlen(context->path);
  bool root_listing = kept > 0 && context->path[kept - 1] == '/';
  AppendBounded(context->path, PathBufferSize, root_listing ? name + 1 : name);
  bool excluded = MatchPathFile(context->path, nullptr, Settings.exclude) == 0;
  if (excluded && Settings.verbosity >= 1)
    LogMessageTo(stderr, "%s: %s: excluded\n", ProgramName, context->path);
  context->path[kept] = '\0';
  return excluded;
}

// With --date a file older than the cut-off is left out (directories are
// walked all the same: they may hold newer files).
bool OlderThanCutoff(ListingContext* context, const ParsedEntry& entry) {
  if (!Settings.cutoff_flag || S_ISDIR(entry.mode)) return false;
  struct tm copy = entry.mtime;
  if (static_cast<int64_t>(mktime(&copy)) >= Settings.cutoff_time) return false;
  if (Settings.verbosity >= 1)
    LogMessageTo(stderr, "%s: excluding %s since it's older than given time\n", ProgramName, entry.name);
  // An include path whose object is only unchanged was found all the
  // same: it is no failure of the backup.
  if (NamedByIncludeRoot(context->directory, entry.name)) context->unchanged = 1;
  return true;
}

// A library, and the document library as a whole, is saved as one object,
// so it is placed as a file. This comes after the cut-off, so libraries
// are never dropped by it. Returns whether the entry is a library.
bool RetypeWholeObjects(ParsedEntry* entry) {
  bool library = EndsInLib(entry->name) && strcmp(entry->name, "/QSYS.LIB") != 0;
  if (library || strcmp(entry->name, "/QDLS") == 0)
    entry->mode = (entry->mode & ~static_cast<uint32_t>(S_IFMT)) | S_IFREG;
  return library;
}

// Appends the entry to directory under name, as a directory or a file. The
// library directory found at the top is never saved as one unit.
void AppendEntry(ObjectNode* directory, const ParsedEntry& entry, const char* name) {
  if (!S_ISDIR(entry.mode)) {
    AppendFile(directory, name, entry.mode, entry.size, entry.mtime);
    return;
  }
  ObjectNode* added = AppendDirectory(directory, name, entry.mode, entry.size, entry.mtime);
  if (added && !directory->parent && strcmp(entry.name, "/QSYS.LIB") == 0) added->partial = 1;
}

// Puts a kept entry in the tree: in the library directory only libraries
// live on; in a walked directory (or the server's root) every entry; at
// the root of an include path whose last part is a pattern, the entries
// that match it, under their full names.
void PlaceEntry(ListingContext* context, const ParsedEntry& entry, bool library) {
  ObjectNode* directory = context->directory;
  const char* listed = directory->name ? directory->name : "";
  if (directory->parent && strcmp(listed, "/QSYS.LIB") == 0) {
    if (!library) return;
    // With --date a library is a directory, so its contents are dated.
    if (Settings.cutoff_flag)
      AppendDirectory(directory, entry.name, entry.mode, entry.size, entry.mtime);
    else
      AppendFile(directory, entry.name, entry.mode, entry.size, entry.mtime);
  } else if (directory->parent || strcmp(listed, "/") == 0) {
    AppendEntry(directory, entry, entry.name);
  } else {
    const char* pattern = IncludePattern(listed);
    if (fnmatch(pattern, entry.name, FNM_PATHNAME | FNM_LEADING_DIR) != 0) return;
    char full[PathBufferSize];
    FormatBounded(full, sizeof full, "%.*s%s", static_cast<int>(pattern - listed), listed, entry.name);
    AppendEntry(directory, entry, full);
  }
  context->found = 1;
}

// Decides what becomes of one parsed entry of the directory being listed.
void PlaceListedEntry(ListingContext* context, ParsedEntry* entry) {
  if (WalksInCircles(entry->name)) return;
  if (Excluded(context, entry->name)) {
    MarkPartial(context->directory);
    return;
  }
  if (OlderThanCutoff(context, *entry)) return;
  const bool library = RetypeWholeObjects(entry);
  PlaceEntry(context, *entry, library);
}

// ---- lines across chunks -----------------------------------------------------

// Parses and places one complete line; 1 when it failed to parse.
int TakeListingLine(ListingContext* context) {
  if (context->carry_overflow) {
    // A line longer than any path we could save is garbage, not a reason to
    // give up the whole backup: it counts as a parse error like any other.
    VFAIL("listing line too long: %.64s...\n", context->carry);
    MarkPartial(context->directory);
    return 1;
  }
  ParsedEntry entry;
  if (!ParseListingLine(context->carry, &entry)) {
    MarkPartial(context->directory);
    return 1;
  }
  PlaceListedEntry(context, &entry);
  return 0;
}

// The next line's parse starts from an empty carry.
void ClearCarry(ListingContext* context) {
  context->carry[0] = '\0';
  context->carry_overflow = false;
}

}  // namespace

int ParseListingChunk(ListingContext* context, const char* data, int length) {
  ListBytes += length;
  if (Settings.verbosity > 4) {
    std::lock_guard<std::mutex> hold(LogLock);
    fwrite(data, 1, static_cast<size_t>(length), stdout);
  }
  int errors = 0;
  int remaining = length;
  while (remaining > 0) {
    const char* newline = static_cast<const char*>(memchr(data, '\n', static_cast<size_t>(remaining)));
    if (!newline) {
      // Part of a line whose end comes with a later chunk (or never, for a
      // last line the server leaves unterminated): added to what is
      // carried, so that a line in any number of pieces is parsed whole.
      size_t n = static_cast<size_t>(remaining);
      size_t held = strlen(context->carry);
      if (held + n > CarryLimit) {
        context->carry_overflow = true;
        n = CarryLimit - held;
      }
      memcpy(context->carry + held, data, n);
      context->carry[held + n] = '\0';
      return errors;
    }
    size_t line_length = static_cast<size_t>(newline - data);
    size_t held = strlen(context->carry);
    if (held + line_length > CarryLimit) {
      context->carry_overflow = true;
    } else {
      memcpy(context->carry + held, data, line_length);
      context->carry[held + line_length] = '\0';
    }
    errors += TakeListingLine(context);
    ClearCarry(context);
    remaining -= static_cast<int>(line_length) + 1;
    data = newline + 1;
  }
  return errors;
}

int FinishListing(ListingContext* context) {
  // A server may end its listing without a line end after the last line;
  // that line names an object like any other. It is parsed as if its CR
  // LF had come.
  const size_t held = strlen(context->carry);
  if (held == 0 && !context->carry_overflow) return 0;
  if (!context->carry_overflow && context->carry[held - 1] != '\r') {
    if (held + 1 > CarryLimit)
      context->carry_overflow = true;
    else
      CopyBounded(context->carry + held, sizeof context->carry - held, "\r");
  }
  int errors = TakeListingLine(context);
  ClearCarry(context);
  return errors;
}

int ListingCallback(void* argument, char* data, int* length) {
  auto* context = static_cast<ListingContext*>(argument);
  if (!context) {
    VFAIL("bad argument\n");
    return -1;
  }
  // Lines that fail to parse are counted, not fatal: the transfer goes on
  // and the walk reports them per directory.
  context->errors += ParseListingChunk(context, data, *length);
  *length = 0;
  return 0;
}

int ListInto(FtpSession* session, const char* path, ObjectNode* dir, ListingContext* context) {
  context->directory = dir;
  context->errors = 0;
  ClearCarry(context);
  ListCalls++;
  if (ListDirectory(session, path, ListingCallback, context, dir) != 0) return -1;
  context->errors += FinishListing(context);
  if (context->errors > 0) {
    VFAIL("%d parse errors in directory %s\n", context->errors, path);
    ParseErrors += static_cast<uint64_t>(context->errors);
  }
  return context->errors;
}

int WalkDirectory(FtpSession* session, ObjectNode* dir, char* path, ListingContext* context) {
  if (!dir->name) return 0;
  AppendBounded(path, PathBufferSize, dir->name);
  size_t kept = strlen(path);
  int sum = ListInto(session, path, dir, context);
  if (sum < 0) {
    VFAIL("list failed\n%s\n", path);
    return -1;
  }
  if (!dir->name) return sum;  // kept whole as one object of its parent
  for (ObjectNode* child = dir->first_dir; child; child = child->next) {
    // A run that is ending lists nothing more: a tree without end must not
    // hold it.
    if (TerminationRequested.load()) break;
    // A library (or anything in one) that already holds changed objects is
    // saved whole: no need to search it further.
    if (Settings.cutoff_flag && dir->count != 0 &&
        fnmatch("/QSYS.LIB/*.LIB", path, FNM_PATHNAME | FNM_LEADING_DIR) == 0)
      break;
    sum += WalkDirectory(session, child, path, context);
    path[kept] = '\0';
  }
  return sum;
}
