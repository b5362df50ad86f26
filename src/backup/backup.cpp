// The backup: the object tree it is planned on, the listing parser and the
// directory walk that fill it, archive writing, and the driver with its workers.
#include "backup/backup.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <climits>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "ftp/checkpoint.h"
#include "ftp/remote_listing.h"
#include "ftp/session.h"
#include "backup/save_commands.h"
#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"
#include "cli/path_files.h"
#include "cli/settings.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "backup.cpp";

// ---------------------------------------------------------------------------
// Object tree
// ---------------------------------------------------------------------------

namespace {

// Adopted names are full server paths, which the server limits to 4095
// characters.
constexpr size_t FullPathSize = 4096;
// The catalog's path buffer starts small and doubles when a name needs it.
constexpr size_t DumpStartSize = 1024;

template <typename Record>
Record* NewRecord(const char* name) {
  auto* record = static_cast<Record*>(calloc(1, sizeof(Record)));
  if (!record) {
    VFAIL("malloc(%d) failed\n", static_cast<int>(sizeof(Record)));
    return nullptr;
  }
  if (name) {
    record->name = strdup(name);
    if (!record->name) {
      VFAIL("malloc(%d) failed\n", static_cast<int>(strlen(name) + 1));
      free(record);
      return nullptr;
    }
  }
  return record;
}

size_t NameLength(const char* name) { return name ? strlen(name) : 0; }

size_t PathLength(const ObjectNode* dir) {
  size_t length = 0;
  for (; dir; dir = dir->parent) length += NameLength(dir->name);
  return length;
}

// Names are appended from the root down; the depth of a tree is bounded by
// the server's path length, so the recursion stays shallow.
void AppendNames(const ObjectNode* dir, char* buffer, size_t capacity) {
  if (dir->parent) AppendNames(dir->parent, buffer, capacity);
  if (dir->name) AppendBounded(buffer, capacity, dir->name);
}

void LinkDirectory(ObjectNode* dir, ObjectNode* child) {
  if (dir->last_dir)
    dir->last_dir->next = child;
  else
    dir->first_dir = child;
  dir->last_dir = child;
}

void LinkFile(ObjectNode* dir, ObjectFile* file) {
  if (dir->last_file)
    dir->last_file->next = file;
  else
    dir->first_file = file;
  dir->last_file = file;
}

}  // namespace

int ObjectKindCount() { return 4; }

ObjectKind ClassifyPath(const char* path) {
  if (!path) return OBJECT_KIND_IFS;
  if (strcmp(path, "/Security Data") == 0 || strcmp(path, "/System Configuration") == 0)
    return OBJECT_KIND_SYSTEM;
  if (strcmp(path, "/QDLS") == 0) return OBJECT_KIND_QDLS;
  if (strncmp(path, "/QSYS.LIB/", 10) == 0) return OBJECT_KIND_LIBRARY;
  return OBJECT_KIND_IFS;
}

ObjectNode* NewDirectoryNode(ObjectNode* parent, const char* name, uint32_t mode, uint64_t size,
                             struct tm mtime) {
  auto* node = NewRecord<ObjectNode>(name);
  if (!node) return nullptr;
  node->parent = parent;
  node->mode = mode;
  node->mtime = mtime;
  node->size = size;
  return node;
}

ObjectFile* NewFileNode(ObjectNode* parent, const char* name, uint32_t mode, uint64_t size,
                        struct tm mtime) {
  auto* file = NewRecord<ObjectFile>(name);
  if (!file) return nullptr;
  file->parent = parent;
  file->mode = mode;
  file->size = size;
  file->mtime = mtime;
  return file;
}

ObjectNode* AppendDirectory(ObjectNode* dir, const char* name, uint32_t mode, uint64_t size,
                            struct tm mtime) {
  ObjectNode* node = NewDirectoryNode(dir, name, mode, size, mtime);
  if (!node) return nullptr;
  LinkDirectory(dir, node);
  RollUp(dir, size, false);
  return node;
}

ObjectFile* AppendFile(ObjectNode* dir, const char* name, uint32_t mode, uint64_t size,
                       struct tm mtime) {
  ObjectFile* file = NewFileNode(dir, name, mode, size, mtime);
  if (!file) return nullptr;
  LinkFile(dir, file);
  RollUp(dir, size, true);
  return file;
}

void RollUp(ObjectNode* dir, uint64_t size, bool counts) {
  for (; dir; dir = dir->parent) {
    dir->size += size;
    if (counts) dir->count++;
  }
}

void MarkPartial(ObjectNode* dir) {
  for (; dir; dir = dir->parent) dir->partial = 1;
}

int RenameNode(ObjectNode* dir, const char* name) {
  free(dir->name);
  dir->name = nullptr;
  if (!name) return 0;
  dir->name = strdup(name);
  if (!dir->name) {
    VFAIL("malloc(%d) failed\n", static_cast<int>(strlen(name) + 1));
    return -1;
  }
  return 0;
}

void ReleaseName(ObjectNode* dir) {
  if (!dir || dir->borrowed) return;
  free(dir->name);
  dir->name = nullptr;
}

// Both walks go along the sibling chain in a loop rather than by recursion:
// a directory can hold hundreds of thousands of entries. The set freed is
// the same as freeing the rest of the chain first: everything up to and
// including the first borrowed record.
void FreeTree(ObjectNode* dir) {
  while (dir) {
    ObjectNode* next = dir->next;
    bool borrowed = dir->borrowed;
    if (!borrowed) {
      FreeTree(dir->first_dir);
      FreeFileList(dir->first_file);
    }
    free(dir->name);
    free(dir);
    if (borrowed) return;
    dir = next;
  }
}

void FreeFileList(ObjectFile* file) {
  while (file) {
    ObjectFile* next = file->next;
    bool borrowed = file->borrowed;
    free(file->name);
    free(file);
    if (borrowed) return;
    file = next;
  }
}

size_t DirectoryPath(const ObjectNode* dir, bool newline, char* buffer, size_t capacity) {
  size_t length = PathLength(dir) + (newline ? 1 : 0);
  if (capacity == 0) return length;
  buffer[0] = '\0';
  if (dir) AppendNames(dir, buffer, capacity);
  if (newline) AppendBounded(buffer, capacity, "\n");
  return length;
}

size_t FilePath(const ObjectFile* file, bool newline, char* buffer, size_t capacity) {
  size_t length = PathLength(file->parent) + NameLength(file->name) + (newline ? 1 : 0);
  if (capacity == 0) return length;
  DirectoryPath(file->parent, false, buffer, capacity);
  if (file->name) AppendBounded(buffer, capacity, file->name);
  if (newline) AppendBounded(buffer, capacity, "\n");
  return length;
}

int PrintFilePath(FILE* stream, const ObjectFile* file) {
  char path[FullPathSize];
  FilePath(file, false, path, sizeof path);
  std::lock_guard<std::mutex> hold(LogLock);
  return fprintf(stream, "%s\n", path) < 0 ? -1 : 0;
}

namespace {

struct DumpPath {
  char* text;
  size_t capacity;
  size_t length;
};

bool MakeRoom(DumpPath* path, size_t needed) {
  if (needed <= path->capacity) return true;
  size_t capacity = path->capacity;
  while (capacity < needed) capacity *= 2;
  auto* grown = static_cast<char*>(realloc(path->text, capacity));
  if (!grown) {
    VFAIL("malloc(%d) failed\n", static_cast<int>(capacity));
    return false;
  }
  path->text = grown;
  path->capacity = capacity;
  return true;
}

int DumpDirectory(FILE* stream, const ObjectNode* dir, DumpPath* path);

// Subdirectories first, then the directory's own files, so a catalog lists
// the deepest files of a branch before the files that sit above them.
int DumpContents(FILE* stream, const ObjectNode* dir, DumpPath* path) {
  int result = 0;
  for (const ObjectNode* child = dir->first_dir; child; child = child->next)
    if (DumpDirectory(stream, child, path) < 0) result = -1;
  for (const ObjectFile* file = dir->first_file; file; file = file->next) {
    std::lock_guard<std::mutex> hold(LogLock);
    if (fprintf(stream, "%s%s\n", path->text, file->name ? file->name : "") < 0) result = -1;
  }
  return result;
}

int DumpDirectory(FILE* stream, const ObjectNode* dir, DumpPath* path) {
  size_t entry_length = path->length;
  size_t name_length = NameLength(dir->name);
  if (!MakeRoom(path, entry_length + name_length + 1)) return -1;
  if (dir->name) CopyBounded(path->text + entry_length, path->capacity - entry_length, dir->name);
  path->length = entry_length + name_length;
  int result = DumpContents(stream, dir, path);
  path->length = entry_length;
  path->text[entry_length] = '\0';
  return result;
}

}  // namespace

int DumpTree(FILE* stream, const ObjectNode* dir, bool full) {
  DumpPath path{static_cast<char*>(malloc(DumpStartSize)), DumpStartSize, 0};
  if (!path.text) {
    VFAIL("malloc(%d) failed\n", static_cast<int>(DumpStartSize));
    return -1;
  }
  path.text[0] = '\0';
  int result;
  if (full) {
    // The starting directory's path is made whole even when it is longer
    // than the first buffer: a cut path in the catalog would name the wrong
    // object.
    size_t length = PathLength(dir);
    if (MakeRoom(&path, length + 1)) {
      DirectoryPath(dir, false, path.text, path.capacity);
      path.length = length;
      result = DumpContents(stream, dir, &path);
    } else {
      result = -1;
    }
  } else {
    result = DumpDirectory(stream, dir, &path);
  }
  free(path.text);
  return result;
}

ObjectNode* AdoptDirectory(ObjectNode* root, const ObjectNode* dir) {
  char path[FullPathSize];
  DirectoryPath(dir, false, path, sizeof path);
  auto* copy = NewRecord<ObjectNode>(path);
  if (!copy) return nullptr;
  char* name = copy->name;
  *copy = *dir;  // the child lists are shared with the source tree
  copy->name = name;
  copy->borrowed = 1;
  copy->parent = root;
  copy->next = nullptr;
  LinkDirectory(root, copy);
  RollUp(root, copy->size, false);
  root->count += copy->count;
  return copy;
}

ObjectFile* AdoptFile(ObjectNode* root, const ObjectFile* file) {
  char path[FullPathSize];
  FilePath(file, false, path, sizeof path);
  auto* copy = NewRecord<ObjectFile>(path);
  if (!copy) return nullptr;
  char* name = copy->name;
  *copy = *file;
  copy->name = name;
  copy->borrowed = 1;
  copy->parent = root;
  copy->next = nullptr;
  LinkFile(root, copy);
  RollUp(root, copy->size, false);
  root->count += 1;
  return copy;
}

// Each nesting level of the text is one level of the tree; instead of
// recursing, the current directory moves down on ">" and back up when a
// level ends. A level that ends without its "<" hands reading back to the
// level above, which goes on; only the outermost level's end is reported.
int ReadTree(FILE* stream, ObjectNode* dir, char* line_buffer) {
  const struct tm no_time{};
  ObjectNode* current = dir;
  while (fgets(line_buffer, static_cast<int>(TreeLineSize), stream)) {
    size_t length = strlen(line_buffer);
    if (length > 0) line_buffer[length - 1] = '\0';  // the newline
    const char* name = line_buffer + 1;
    switch (line_buffer[0]) {
      case '>': {
        ObjectNode* child = AppendDirectory(current, name, 0, 1, no_time);
        if (!child) return -1;
        current = child;
        break;
      }
      case '+':
        if (!AppendFile(current, name, 0, 1, no_time)) return -1;
        break;
      case '<':
        if (current == dir) return 0;
        current = current->parent;
        break;
      default:
        if (current == dir) return -1;
        current = current->parent;
        break;
    }
  }
  return -1;
}

// ---------------------------------------------------------------------------
// Listing parser, directory walk and include list
// ---------------------------------------------------------------------------

uint64_t ListCalls = 0;
uint64_t ParseErrors = 0;
double ListBytes = 0;

namespace {

// isspace() of the "C" locale, which the program never leaves, as a table:
// the parser asks it for nearly every character of a listing.
constexpr struct BlankTable {
  bool blank[256] = {};
  constexpr BlankTable() {
    for (unsigned char c : {' ', '\t', '\n', '\v', '\f', '\r'}) blank[c] = true;
  }
} Blanks;

bool IsBlank(char c) { return Blanks.blank[static_cast<unsigned char>(c)]; }

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

const char* SkipBlanks(const char* p) {
  while (*p && IsBlank(*p)) p++;
  return p;
}

const char* SkipField(const char* p) {
  while (*p && !IsBlank(*p)) p++;
  return p;
}

// The permission letters of the listing, position by position. The group and
// other rows add the bits shown here for "r" and "w" alike; saved modes have
// always been read this way, so it stays.
uint32_t ListedMode(const char* text) {
  struct Bit {
    int position;
    char letter;
    uint32_t bits;
  };
  static const Bit bits[] = {
      {1, 'r', 0400},  {2, 'w', 0200},  {3, 'x', 0100},  {3, 's', 04100},
      {4, 'r', 0020},  {5, 'w', 0020},  {6, 'x', 0010},  {6, 's', 02010},
      {7, 'r', 0002},  {8, 'w', 0002},  {9, 'x', 0001},  {9, 's', 01001},
  };
  uint32_t mode = text[0] == 'd' ? S_IFDIR : S_IFREG;
  for (const Bit& b : bits)
    if (text[b.position] == b.letter) mode |= b.bits;
  return mode;
}

struct ParsedEntry {
  uint32_t mode;
  uint64_t size;
  struct tm mtime;
  char name[4096];  // "/" and the listed name
};

// The current local time broken down, once per second rather than once per
// listing line: a walk of a million objects parses a million lines.
bool BrokenDownNow(struct tm* out) {
  thread_local time_t cached_at = -1;
  thread_local struct tm cached{};
  time_t now = time(nullptr);
  if (now != cached_at) {
    if (!localtime_r(&now, &cached)) return false;
    cached_at = now;
  }
  *out = cached;
  return true;
}

// The listed size as "%llu" reads it; plain digits (all a server sends)
// are read here, anything else by the library.
unsigned long long ListedSize(const char* p) {
  unsigned long long value = 0;
  int digits = 0;
  for (; digits < 19 && IsDigit(p[digits]); digits++) value = value * 10 + static_cast<unsigned>(p[digits] - '0');
  if (digits > 0 && !IsDigit(p[digits])) return value;
  unsigned long long size = 0;
  int consumed = 0;
  if (sscanf(p, "%llu%n", &size, &consumed) != 1) size = 0;
  return size;
}

// What strptime derives after reading a date: the day of the week and of
// the year, from the year, month and day as they stand (the day may lie
// beyond the month's end, and counts on linearly then).
void SetDerivedDays(struct tm* when) {
  static const int before_month[2][12] = {{0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334},
                                          {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335}};
  const long year = 1900L + when->tm_year;
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  // Days from 1 January of year 1 (proleptic Gregorian, a Monday); the
  // callers' years are 1000 and later.
  const long y = year - 1;
  const long day = 365 * y + y / 4 - y / 100 + y / 400 + before_month[leap][when->tm_mon] + (when->tm_mday - 1);
  when->tm_wday = static_cast<int>((day + 1) % 7);
  when->tm_yday = before_month[leap][when->tm_mon] + (when->tm_mday - 1);
}

// strptime(p, "%b %d") for the month and day every listing line has ("Mar
// 5", "MAR 05"); nullptr where the text needs the library's own reading.
const char* ReadMonthDay(const char* p, struct tm* when) {
  static const char months[12][4] = {"jan", "feb", "mar", "apr", "may", "jun",
                                     "jul", "aug", "sep", "oct", "nov", "dec"};
  auto lower = [](char c) { return static_cast<char>((c >= 'A' && c <= 'Z') ? c + ('a' - 'A') : c); };
  // A blank after three letters: no full month name can be meant.
  if (!p[0] || !p[1] || !p[2] || !IsBlank(p[3])) return nullptr;
  const char a = lower(p[0]), b = lower(p[1]), c = lower(p[2]);
  int month = -1;
  for (int m = 0; m < 12; m++)
    if (months[m][0] == a && months[m][1] == b && months[m][2] == c) month = m;
  if (month < 0) return nullptr;
  const char* q = p + 3;
  while (IsBlank(*q)) q++;
  if (!IsDigit(*q)) return nullptr;
  int day = *q++ - '0';
  if (day <= 3 && IsDigit(*q)) day = day * 10 + (*q++ - '0');
  if (day < 1 || day > 31) return nullptr;
  when->tm_mon = month;
  when->tm_mday = day;
  SetDerivedDays(when);
  return q;
}

// strptime(p, "%H:%M") for "14:07"; nullptr where the library must read it.
const char* ReadClock(const char* p, struct tm* when) {
  if (!IsDigit(p[0]) || !IsDigit(p[1]) || p[2] != ':' || !IsDigit(p[3]) || !IsDigit(p[4])) return nullptr;
  const int hour = (p[0] - '0') * 10 + (p[1] - '0');
  const int minute = (p[3] - '0') * 10 + (p[4] - '0');
  if (p[0] > '2' || hour > 23 || p[3] > '5' || minute > 59) return nullptr;
  when->tm_hour = hour;
  when->tm_min = minute;
  return p + 5;
}

// strptime(p, "%Y") for a four-digit year from 1000 on; nullptr where the
// library must read it.
const char* ReadYear(const char* p, struct tm* when) {
  if (p[0] < '1' || p[0] > '9' || !IsDigit(p[1]) || !IsDigit(p[2]) || !IsDigit(p[3])) return nullptr;
  when->tm_year = (p[0] - '0') * 1000 + (p[1] - '0') * 100 + (p[2] - '0') * 10 + (p[3] - '0') - 1900;
  SetDerivedDays(when);
  return p + 4;
}

// Parses one listing line (its CR still at the end). false after reporting
// why the line cannot be used.
bool ParseListingLine(const char* line, ParsedEntry* entry) {
  struct tm today{};
  if (!BrokenDownNow(&today)) {
    VFAIL("can't break-down now\n");
    return false;
  }
  size_t line_length = strlen(line);
  char mode_text[11] = "----------";
  memcpy(mode_text, line, line_length < 10 ? line_length : 10);
  entry->mode = ListedMode(mode_text);
  const char* p = line_length < 10 ? line + line_length : line + 10;
  for (int field = 0; field < 3; field++) p = SkipField(SkipBlanks(p));  // links, owner, group
  p = SkipBlanks(p);
  entry->size = ListedSize(p);
  p = SkipField(p);

  struct tm when = today;
  when.tm_hour = when.tm_min = when.tm_sec = 0;
  p = SkipBlanks(p);
  const char* date = ReadMonthDay(p, &when);
  if (!date) date = strptime(p, "%b %d", &when);
  if (!date) {
    VFAIL("can't parse date: %s\n", line);
    return false;
  }
  p = SkipBlanks(date);
  const char* after;
  if (p[0] && p[1] && p[2] == ':') {
    after = ReadClock(p, &when);
    if (!after) after = strptime(p, "%H:%M", &when);
    if (!after) {
      VFAIL("can't parse time: %s\n", line);
      return false;
    }
    // A recent entry shows no year: it is this year, unless its month is
    // still to come, which makes it last year.
    when.tm_year = today.tm_year - (when.tm_mon > today.tm_mon ? 1 : 0);
  } else {
    after = ReadYear(p, &when);
    if (!after) after = strptime(p, "%Y", &when);
    if (!after) {
      VFAIL("can't parse year: %s\n", line);
      return false;
    }
  }
  when.tm_isdst = -1;
  entry->mtime = when;

  const char* name = SkipBlanks(after);
  const char* end = line + line_length;  // the name stops before the last character
  const char* arrow = strstr(name, " -> ");
  const char* name_end = arrow ? arrow : (end > name ? end - 1 : name);
  const size_t name_length = static_cast<size_t>(name_end - name);
  if (name_length + 1 >= sizeof entry->name) {
    VFAIL("name too long: %s\n", name);
    return false;
  }
  entry->name[0] = '/';
  memcpy(entry->name + 1, name, name_length);
  entry->name[name_length + 1] = '\0';
  const char* rest = name_end;
  if (arrow) rest = SkipField(arrow + 4);  // the link target
  rest = SkipBlanks(rest);
  if (*rest) VFAIL("leftover %s\n", rest);
  return true;
}

bool EndsInLib(const char* name) {
  const char* dot = strrchr(name, '.');
  return dot && strcmp(dot, ".LIB") == 0;
}

// Whether an entry listed under the root of an include path is one the
// include path names: every entry of the server's root ("/"), or one that
// matches the pattern in the include path's last part.
bool NamedByIncludeRoot(const ObjectNode* directory, const char* name) {
  if (directory->parent) return false;
  const char* listed = directory->name ? directory->name : "";
  if (strcmp(listed, "/") == 0) return true;
  const char* slash = strrchr(listed, '/');
  const char* pattern = slash ? slash : listed;
  return fnmatch(pattern, name, FNM_PATHNAME | FNM_LEADING_DIR) == 0;
}

// Decides what becomes of one parsed entry of the directory being listed.
void PlaceListedEntry(ListingContext* context, ParsedEntry* entry) {
  ObjectNode* directory = context->directory;
  // Walking into ".", ".." or an empty name would list the same directory
  // (or its parent) again, without end; a server should not send them.
  if (strcmp(entry->name, "/") == 0 || strcmp(entry->name, "/.") == 0 ||
      strcmp(entry->name, "/..") == 0)
    return;

  // Exclusion is asked with the entry's full path. Below the server's root
  // the listed path already ends in "/", and the exclude file names
  // top-level objects with one slash, so none is doubled.
  size_t kept = strlen(context->path);
  bool root_listing = kept > 0 && context->path[kept - 1] == '/';
  AppendBounded(context->path, PathBufferSize, root_listing ? entry->name + 1 : entry->name);
  bool excluded = MatchPathFile(context->path, nullptr, Settings.exclude) == 0;
  if (excluded && Settings.verbosity >= 1)
    LogMessageTo(stderr, "%s: %s: excluded\n", ProgramName, context->path);
  context->path[kept] = '\0';
  if (excluded) {
    MarkPartial(directory);
    return;
  }

  bool is_directory = S_ISDIR(entry->mode);
  if (Settings.cutoff_flag && !is_directory) {
    struct tm copy = entry->mtime;
    if (static_cast<int64_t>(mktime(&copy)) < Settings.cutoff_time) {
      if (Settings.verbosity >= 1)
        LogMessageTo(stderr, "%s: excluding %s since it's older than given time\n", ProgramName,
                     entry->name);
      // An include path whose object is only unchanged was found all the
      // same: it is no failure of the backup.
      if (NamedByIncludeRoot(directory, entry->name)) context->unchanged = 1;
      return;
    }
  }
  // A library, and the document library as a whole, is saved as one
  // object: after the cut-off, so libraries are never dropped by it.
  bool library = EndsInLib(entry->name) && strcmp(entry->name, "/QSYS.LIB") != 0;
  if (library || strcmp(entry->name, "/QDLS") == 0) {
    entry->mode = (entry->mode & ~static_cast<uint32_t>(S_IFMT)) | S_IFREG;
    is_directory = false;
  }

  const char* listed = directory->name ? directory->name : "";
  if (directory->parent && strcmp(listed, "/QSYS.LIB") == 0) {
    if (!library) return;  // only libraries live on in the library directory
    if (Settings.cutoff_flag)
      AppendDirectory(directory, entry->name, entry->mode, entry->size, entry->mtime);
    else
      AppendFile(directory, entry->name, entry->mode, entry->size, entry->mtime);
    context->found = 1;
    return;
  }
  if (directory->parent || strcmp(listed, "/") == 0) {
    if (is_directory) {
      ObjectNode* added = AppendDirectory(directory, entry->name, entry->mode, entry->size, entry->mtime);
      if (added && !directory->parent && strcmp(entry->name, "/QSYS.LIB") == 0) added->partial = 1;
    } else {
      AppendFile(directory, entry->name, entry->mode, entry->size, entry->mtime);
    }
    context->found = 1;
    return;
  }
  // The root of an include path whose last part is a pattern.
  const char* slash = strrchr(listed, '/');
  const char* pattern = slash ? slash : listed;
  if (fnmatch(pattern, entry->name, FNM_PATHNAME | FNM_LEADING_DIR) != 0) return;
  char full[PathBufferSize];
  FormatBounded(full, sizeof full, "%.*s%s", static_cast<int>(pattern - listed), listed, entry->name);
  if (is_directory) {
    ObjectNode* added = AppendDirectory(directory, full, entry->mode, entry->size, entry->mtime);
    if (added && strcmp(entry->name, "/QSYS.LIB") == 0) added->partial = 1;
  } else {
    AppendFile(directory, full, entry->mode, entry->size, entry->mtime);
  }
  context->found = 1;
}

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
    context->carry[0] = '\0';
    context->carry_overflow = false;
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
  context->carry[0] = '\0';
  context->carry_overflow = false;
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

int WalkDirectory(FtpSession* session, ObjectNode* dir, char* path, ListingContext* context) {
  if (!dir->name) return 0;
  AppendBounded(path, PathBufferSize, dir->name);
  size_t kept = strlen(path);
  context->directory = dir;
  context->errors = 0;
  context->carry[0] = '\0';
  context->carry_overflow = false;
  ListCalls++;
  if (ListDirectory(session, path, ListingCallback, context, dir) != 0) {
    VFAIL("list failed\n%s\n", path);
    return -1;
  }
  int sum = context->errors + FinishListing(context);
  if (sum > 0) {
    VFAIL("%d parse errors in directory %s\n", sum, path);
    ParseErrors += static_cast<uint64_t>(sum);
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

ObjectNode* BuildIncludeList(FtpSession* session) {
  time_t now = time(nullptr);
  struct tm local{};
  localtime_r(&now, &local);
  ObjectNode* root = NewDirectoryNode(nullptr, "", 0, 0, local);
  if (!root) return nullptr;
  auto* context = new ListingContext{};
  std::unique_ptr<ListingContext> owned(context);
  char* line = context->path_buffer;
  context->path = line;

  // The two special objects are always saved unless excluded by name.
  for (const char* special : {"/Security Data", "/System Configuration"})
    if (MatchPathFile(special, nullptr, Settings.exclude) != 0)
      AppendFile(root, special, S_IFREG | 0600, 0, local);

  if (!Settings.include) {
    CopyBounded(line, PathBufferSize, "/");
  } else if (!ReadPathLine(Settings.include, line, PathBufferSize)) {
    LogMessageTo(stderr, "%s[%s:%d] : Error reading from include stream\n", ProgramName, kModule,
                 __LINE__);
    FreeTree(root);
    return nullptr;
  }
  for (;;) {
    line[PathBufferSize - 1] = '\0';
    size_t length = strlen(line);
    while (length > 1 && line[length - 1] == '\n') line[--length] = '\0';
    RenameNode(root, line);
    const char* include = root->name;
    if (strcmp(include, "/Security Data") == 0 || strcmp(include, "/System Configuration") == 0) {
      // already decided above
    } else if (!strchr(include, '/')) {
      VFAIL("Invalid object: %s\n", include);
      if (Settings.notbackedup) LogMessageTo(Settings.notbackedup, "%s\n", include);
      IncludesMissed++;
    } else {
      char* last = strrchr(line, '/');
      if (last == line)
        line[1] = '\0';  // "/x": the directory part is the root itself
      else
        *last = '\0';
      if (strpbrk(line, "*?")) {
        VFAIL("wild card error: %s\n", include);
        if (Settings.notbackedup) LogMessageTo(Settings.notbackedup, "%s\n", include);
        IncludesMissed++;
      } else {
        context->directory = root;
        context->found = 0;
        context->unchanged = 0;
        context->errors = 0;
        context->carry[0] = '\0';
        context->carry_overflow = false;
        ListCalls++;
        if (ListDirectory(session, line, ListingCallback, context, root) != 0) {
          VFAIL("list failed\n");
          FreeTree(root);
          return nullptr;
        }
        context->errors += FinishListing(context);
        if (context->errors > 0) {
          // A line that could not be read may be the very object the
          // include path names: it counts like any other parse error.
          VFAIL("%d parse errors in directory %s\n", context->errors, line);
          ParseErrors += static_cast<uint64_t>(context->errors);
        }
        if (!context->found && !context->unchanged) {
          LogMessage("Object not found: %s\n", include);
          if (Settings.notbackedup) LogMessageTo(Settings.notbackedup, "%s\n", include);
          IncludesMissed++;
        }
      }
    }
    if (TerminationRequested.load()) break;
    if (!Settings.include || !ReadPathLine(Settings.include, line, PathBufferSize)) break;
  }
  RenameNode(root, "");
  line[0] = '\0';
  for (ObjectNode* child = root->first_dir; child; child = child->next) {
    if (TerminationRequested.load()) break;
    WalkDirectory(session, child, line, context);
    line[0] = '\0';
  }
  return root;
}

// ---------------------------------------------------------------------------
// Archive writing
// ---------------------------------------------------------------------------

std::mutex ArchiveLock;
std::atomic<bool> ArchiveBroken{false};
std::atomic<uint64_t> ArchiveEntries{0};

namespace {


// A large entry's space is reserved on the file system ahead of its data
// (fallocate, keeping the file's size): writing into reserved space costs
// the file system much less than allocating as the data comes, block by
// block. What is left beyond the end is given back when the entry is
// closed. Only space is reserved, never content written; where the file
// system cannot reserve, the data is written as it comes.
void ReserveAhead(ArchiveWriter* writer) {
  constexpr uint64_t First = 16 << 20;  // smaller entries never reserve
  constexpr off64_t Ahead = 64 << 20;
  if (writer->calls == 0) writer->reserve_at = First;  // a new entry
  if (writer->bytes < 0 || static_cast<uint64_t>(writer->bytes) < writer->reserve_at) return;
  const off64_t here = lseek64(writer->descriptor, 0, SEEK_CUR);
  if (here < 0 || fallocate64(writer->descriptor, FALLOC_FL_KEEP_SIZE, here, Ahead) != 0) {
    writer->reserve_at = UINT64_MAX;  // not here: as it comes
    return;
  }
  writer->reserved = 1;
  writer->reserve_at = static_cast<uint64_t>(writer->bytes) + Ahead / 2;
}

// Cutting a file to its own size frees what was reserved beyond its end.
void ReleaseReservedSpace(int descriptor) {
  const off64_t here = lseek64(descriptor, 0, SEEK_CUR);
  const off64_t end = lseek64(descriptor, 0, SEEK_END);
  if (end >= 0 && ftruncate64(descriptor, end) != 0) {
    // Only the reservation stays; the archive is whole.
  }
  if (here >= 0) lseek64(descriptor, here, SEEK_SET);
}

}  // namespace

ArchiveAppend::ArchiveAppend(ArchiveWriter* writer) : hold_(ArchiveLock), writer_(writer) {
  if (ArchiveBroken) {
    VFAIL("the archive is broken: nothing more is appended\n");
    return;
  }
  // The archive ends with its end block; the entry's data goes behind it,
  // and the header replaces it once the entry is whole.
  start_ = lseek64(writer->descriptor, 0, SEEK_END);
  if (start_ < 0) VFAIL("lseek(): %s\n", strerror(errno));
}

void ArchiveAppend::Commit() {
  committed_ = true;
  ArchiveEntries++;
}

ArchiveAppend::~ArchiveAppend() {
  if (start_ >= 0 && !committed_) {
    bool whole = TruncateArchive(writer_->descriptor, start_) == 0;
    if (whole && end_block_touched_ && start_ >= static_cast<int64_t>(CtarBlockSize)) {
      // The header may have gone out in part: the old end block comes back.
      unsigned char block[CtarBlockSize];
      whole = PwriteFull(writer_->descriptor, BuildCtarSentinel(block), CtarBlockSize,
                         start_ - static_cast<int64_t>(CtarBlockSize)) == static_cast<ssize_t>(CtarBlockSize);
      if (!whole) VFAIL("write(): %s\n", strerror(errno));
    }
    if (!whole) {
      VFAIL("the archive could not be cut back: nothing more is appended\n");
      ArchiveBroken = true;
    }
    writer_->bytes = 0;  // nothing of it is in the archive
  }
  writer_->pending = 0;
  ReleaseArchiveReserve(writer_);
}

void ReleaseArchiveReserve(ArchiveWriter* writer) {
  if (!writer || !writer->reserved) return;
  writer->reserved = 0;
  ReleaseReservedSpace(writer->descriptor);
}

int ArchiveWriteCallback(void* argument, char* buffer, int* count) {
  auto* writer = static_cast<ArchiveWriter*>(argument);
  if (!writer) {
    VFAIL("bad argument\n");
    return -1;
  }
  if (*count <= 0) {
    writer->calls++;
    return 0;
  }
  const size_t block_size = CtarBlockSize;
  char* at = buffer;
  for (;;) {
    if (writer->pending > 0) {
      size_t room = block_size - static_cast<size_t>(writer->pending);
      size_t take = static_cast<size_t>(*count) < room ? static_cast<size_t>(*count) : room;
      memcpy(writer->block + writer->pending, at, take);
      *count -= static_cast<int>(take);
      at += take;
      writer->pending += static_cast<int>(take);
      if (writer->pending < static_cast<int>(block_size)) {
        writer->calls++;
        return *count > 0;
      }
      ssize_t written = WriteFull(writer->descriptor, writer->block, block_size);
      if (written != static_cast<ssize_t>(block_size)) {
        // The block is lost: the transfer ends here and the entry is cut
        // back, never closed with a hole in it.
        if (written < 0)
          VFAIL("write(): %s\n", strerror(errno));
        else
          VFAIL("write(,, %d) = %d\n", static_cast<int>(block_size), static_cast<int>(written));
        writer->calls++;
        return 1;
      }
      writer->bytes += static_cast<int64_t>(block_size);
      writer->pending = 0;
    }
    if (*count < static_cast<int>(block_size)) {
      memcpy(writer->block, at, static_cast<size_t>(*count));
      writer->pending = *count;
      *count = 0;
      writer->calls++;
      return 0;
    }
    // Whole blocks go out straight from the transfer buffer in one write.
    size_t whole = static_cast<size_t>(*count) / block_size * block_size;
    ReserveAhead(writer);
    ssize_t written = WriteFull(writer->descriptor, at, whole);
    if (written < 0) {
      VFAIL("write(, 0x%X, %d): %s\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(at)),
            static_cast<int>(written), strerror(errno));
      writer->calls++;
      return 1;
    }
    if (written < static_cast<ssize_t>(whole)) {
      // The file took no more: the entry cannot be completed.
      VFAIL("write(,, %d) = %d\n", static_cast<int>(whole), static_cast<int>(written));
      writer->calls++;
      return 1;
    }
    *count -= static_cast<int>(written);
    at += written;
    writer->bytes += written;
    if (*count == 0) {
      writer->calls++;
      return 0;
    }
  }
}

int TruncateArchive(int descriptor, int64_t offset) {
  if (lseek64(descriptor, offset, SEEK_SET) != offset) {
    VFAIL("lseek(): %s\n", strerror(errno));
    return -1;
  }
  if (ftruncate64(descriptor, offset) != 0) {
    VFAIL("ftruncate64(): %s\n", strerror(errno));
    return -1;
  }
  return 0;
}

// ---------------------------------------------------------------------------
// Saving objects and the backup driver
// ---------------------------------------------------------------------------

uint64_t ObjectsFound = 0;
uint64_t IncludesMissed = 0;
int ArchiveDescriptor = -1;

namespace {

uint64_t PlacedUnits = 0;

double Now() {
  struct timeval t{};
  gettimeofday(&t, nullptr);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1000000;
}

struct WorkerArgument {
  uint32_t number;  // the kind index
  ObjectNode* tree;
};

void ReportThreadTotals(uint32_t number, const BackupTotals& totals) {
  if (totals.attempted == 0) {
    LogMessage("** No objects attempted\n");
    return;
  }
  char unit;
  double bytes = ScaleBinary(static_cast<double>(totals.bytes), &unit);
  LogMessage("** Thread %d Complete\n", static_cast<int>(number));
  LogMessage("** Backed up %.3f %cB\n", bytes, unit);
  LogMessage("** Total Save Time: %.3f s\n", totals.save_seconds);
  LogMessage("** Total Wait Time: %.3f s\n", totals.wait_seconds);
  LogMessage("** Total Xfer Time: %.3f s\n", totals.transfer_seconds);
  LogMessage("** Total Blocks Attempted: %d\n", static_cast<int>(totals.attempted));
  LogMessage("** Total Blocks Failed   : %d\n", static_cast<int>(totals.failed));
}

void* BackupWorker(void* argument) {
  // Nothing may escape a thread.
  try {
    auto* work = static_cast<WorkerArgument*>(argument);
    auto* totals = new (std::nothrow) BackupTotals{};
    if (!totals) {
      VFAIL("Failed to allocate return structure\n");
      return nullptr;
    }
    uint32_t number = RegisterThread(-1);
    FtpSession* session = NewSession(Settings.server, "ftp");
    if (session && Login(session, Settings.user, Settings.passphrase) != 0) {
      VFAIL("login failed\n");
      Quit(session);
      session = nullptr;
    }
    SaveBlock(session, work->tree, static_cast<int>(number), totals);
    if (session) Quit(session);
    if (Settings.verbosity >= 1) ReportThreadTotals(number, *totals);
    return totals;
  } catch (...) {
    VFAIL("worker ended by an unexpected error\n");
    return nullptr;
  }
}

// Adds what a worker returned, or counts its whole tree as failed.
void CollectWorker(pthread_t thread, int index, ObjectNode* tree, BackupTotals* sum) {
  void* returned = nullptr;
  pthread_join(thread, &returned);
  auto* totals = static_cast<BackupTotals*>(returned);
  if (!totals) {
    VFAIL("Failed to retrieve return structure from thread %d\n", index);
    sum->attempted += tree->count;
    sum->failed += tree->count;
    return;
  }
  sum->attempted += totals->attempted;
  sum->failed += totals->failed;
  sum->save_seconds += totals->save_seconds;
  sum->wait_seconds += totals->wait_seconds;
  sum->transfer_seconds += totals->transfer_seconds;
  sum->bytes += totals->bytes;
  sum->partial += totals->partial;
  delete totals;
}

}  // namespace

int ProcessObject(FtpSession* session, ObjectFile* object, int number, ArchiveWriter* writer,
                  BackupTotals* totals) {
  writer->objects++;
  writer->pending = 0;
  writer->calls = 0;
  writer->bytes = 0;
  writer->partial = 0;
  int (*save)(FtpSession*, ObjectFile*, int, TransferStats*, DataCallback, void*) = SAV;
  const char* name = object->name;
  if (strcmp(name, "/QDLS") == 0)
    save = SAVDLO;
  else if (strcmp(name, "/System Configuration") == 0)
    save = SAVCFG;
  else if (strcmp(name, "/Security Data") == 0)
    save = SAVSECDTA;
  else if (strncmp(name, "/QSYS.LIB/", 10) == 0)
    save = SAVLIB;
  // A name the entry header cannot hold whole would be stored cut, and two
  // objects could then share one entry name: the object fails instead,
  // before anything is saved, and the rest of the night's backup goes on.
  size_t stored = strlen(name) + (S_ISDIR(object->mode) ? strlen(CtarDirectorySuffix) : 0);
  bool fits = stored <= CtarMaxName;
  if (!fits) VFAIL("path too long\n");
  // Nothing more can be appended to a broken archive: no save is run for it.
  if (fits && ArchiveBroken) {
    VFAIL("the archive is broken: nothing more is appended\n");
    fits = false;
  }
  TransferStats stats{};
  if (!fits || save(session, object, number, &stats, ArchiveWriteCallback, writer) != 0) {
    LogMessageTo(stderr, "Backup Failure: %s\n", object->name);
    if (Settings.notbackedup) LogMessageTo(Settings.notbackedup, "%s\n", object->name);
    writer->failures++;
    return 1;
  }
  LogMessage("Backup Success: %s\n", object->name);
  if (writer->partial) totals->partial++;
  totals->save_seconds += stats.save_seconds;
  totals->wait_seconds += stats.wait_seconds;
  totals->transfer_seconds += stats.transfer_seconds;
  if (Settings.verbosity >= 2) {
    char unit;
    double bytes = static_cast<double>(writer->bytes);
    if (writer->bytes >= 0) {
      double shown = ScaleDecimal(bytes, &unit);
      LogMessage("Size: %.3f %cB\n", shown, unit);
    }
    if (stats.save_seconds > 0) {
      double rate = ScaleDecimal(bytes / stats.save_seconds, &unit);
      LogMessage("Save: %7.3f s %.3f %cB/s\n", stats.save_seconds, rate, unit);
    }
    if (stats.wait_seconds > 0) LogMessage("Wait: %7.3f s\n", stats.wait_seconds);
    if (stats.transfer_seconds > 0) {
      double rate = ScaleDecimal(bytes / stats.transfer_seconds, &unit);
      LogMessage("Xfer: %7.3f s %.3f %cB/s\n", stats.transfer_seconds, rate, unit);
    }
  }
  return 0;
}

void PlaceObject(ObjectNode** kinds, ObjectNode* dir, char* path) {
  AppendBounded(path, PathBufferSize, dir->name ? dir->name : "");
  const size_t length = strlen(path);
  if (strncmp(path, "/QSYS.LIB/", 10) == 0) {
    // A library listed because of --date: saved whole, unless nothing in it
    // changed.
    if (!(Settings.cutoff_flag && dir->count == 0))
      AppendFile(kinds[ClassifyPath(path)], path, dir->mode, dir->size, dir->mtime);
    return;
  }
  if (dir->parent && !dir->partial && (dir->size <= Settings.max_block_size || dir->count == 0)) {
    if (!(Settings.cutoff_flag && dir->count == 0)) {
      AdoptDirectory(kinds[ClassifyPath(path)], dir);
      ObjectsFound += dir->count;
      PlacedUnits++;
    }
    return;
  }
  for (ObjectFile* file = dir->first_file; file; file = file->next) {
    AppendBounded(path, PathBufferSize, file->name ? file->name : "");
    ObjectKind kind = ClassifyPath(path);
    path[length] = '\0';
    AdoptFile(kinds[kind], file);
    ObjectsFound++;
    PlacedUnits++;
  }
  for (ObjectNode* child = dir->first_dir; child; child = child->next) {
    if (!child->name) continue;
    PlaceObject(kinds, child, path);
    path[length] = '\0';
  }
}

ObjectNode** BuildBackupList(ObjectNode* include_tree) {
  const int count = ObjectKindCount();
  auto** kinds = new (std::nothrow) ObjectNode*[count];
  if (!kinds) return nullptr;
  for (int i = 0; i < count; i++) {
    kinds[i] = NewDirectoryNode(nullptr, "", 0, 0, tm{});
    if (!kinds[i]) {
      delete[] kinds;
      return nullptr;
    }
  }
  char path[PathBufferSize] = "";
  PlaceObject(kinds, include_tree, path);
  return kinds;
}

// A kind root's lists are chains of borrowed copies that the root alone
// owns; FreeTree would stop at the first borrowed record of each chain
// (right for a copy met inside another tree, wrong here), so the copies
// are freed one by one without touching the children they share.
void FreeBackupList(ObjectNode** kinds) {
  if (!kinds) return;
  for (int i = 0; i < ObjectKindCount(); i++) {
    ObjectNode* root = kinds[i];
    if (!root) continue;
    for (ObjectNode* dir = root->first_dir; dir;) {
      ObjectNode* next = dir->next;
      free(dir->name);
      free(dir);
      dir = next;
    }
    for (ObjectFile* file = root->first_file; file;) {
      ObjectFile* next = file->next;
      free(file->name);
      free(file);
      file = next;
    }
    root->first_dir = nullptr;
    root->first_file = nullptr;
    FreeTree(root);
  }
  delete[] kinds;
}

int SaveBlock(FtpSession* session, ObjectNode* tree, int number, BackupTotals* totals) {
  auto writer = std::make_unique<ArchiveWriter>();
  writer->descriptor = ArchiveDescriptor;
  writer->block = writer->storage;
  if (writer->descriptor < 0) {
    VFAIL("open(%s): %s\n", Settings.backup_path, strerror(EBADF));
    return -1;
  }
  totals->attempted = 0;
  totals->failed = 0;
  // A termination request ends the block before its next object.
  for (ObjectNode* dir = tree->first_dir; dir && !TerminationRequested.load(); dir = dir->next) {
    totals->attempted += dir->count;
    ObjectFile* unit = NewFileNode(nullptr, dir->name, dir->mode, 0, dir->mtime);
    if (unit && ProcessObject(session, unit, number, writer.get(), totals) == 0) {
      if (Settings.catalog) DumpTree(Settings.catalog, dir, true);
    } else {
      // Failures add up. A directory with no files in it is still one
      // object that was not saved.
      totals->failed += dir->count > 0 ? dir->count : 1;
      if (dir->count == 0) totals->attempted++;
    }
    if (unit) FreeFileList(unit);
    totals->bytes += static_cast<uint64_t>(writer->bytes > 0 ? writer->bytes : 0);
  }
  for (ObjectFile* file = tree->first_file; file && !TerminationRequested.load(); file = file->next) {
    totals->attempted++;
    if (ProcessObject(session, file, number, writer.get(), totals) == 0) {
      if (Settings.catalog) PrintFilePath(Settings.catalog, file);
    } else {
      totals->failed++;
    }
    totals->bytes += static_cast<uint64_t>(writer->bytes > 0 ? writer->bytes : 0);
  }
  return 0;
}

// ---------------------------------------------------------------------------
// The archive file: made under a temporary name, renamed when whole
// ---------------------------------------------------------------------------

namespace {

struct ArchiveFileState {
  std::string final_path;  // where the archive goes once whole
  std::string temp_path;   // where it is written meanwhile; empty when none
};
ArchiveFileState ArchiveFile;

// What a path is when it is not a regular file, for the refusal.
const char* FileKind(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a pipe";
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISBLK(mode)) return "a block device";
  if (S_ISSOCK(mode)) return "a socket";
  return "not a regular file";
}

// The directory a path lies in ("." for a bare name).
std::string DirectoryOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

}  // namespace

int PrepareArchiveFile(const char* path) {
  DiscardArchiveFile();
  std::string final_path = path;
  struct stat st{};
  if (lstat(path, &st) == 0) {
    if (S_ISLNK(st.st_mode)) {
      // A link to an archive: the file it names is made or replaced, the
      // link stays.
      char* target = realpath(path, nullptr);
      const int error = errno;
      if (target) {
        final_path = target;
        free(target);
        if (stat(final_path.c_str(), &st) != 0) st.st_mode = S_IFREG;
      } else {
        std::vector<char> link(PATH_MAX + 1);
        ssize_t length = readlink(path, link.data(), PATH_MAX);
        if (length <= 0 || error != ENOENT) {
          LogMessageTo(stderr, "%s: --backup %s: a symbolic link that leads nowhere\n", ProgramName, path);
          return -1;
        }
        std::string named(link.data(), static_cast<size_t>(length));
        final_path = named[0] == '/' ? named : DirectoryOf(path) + "/" + named;
        st.st_mode = S_IFREG;  // a new file, made through the link's own path
      }
    }
    if (!S_ISREG(st.st_mode)) {
      LogMessageTo(stderr, "%s: --backup %s: is %s; an archive must be a regular file or a new path\n",
                   ProgramName, path, FileKind(st.st_mode));
      return -1;
    }
  } else if (errno != ENOENT) {
    LogMessageTo(stderr, "%s: --backup %s: %s\n", ProgramName, path, strerror(errno));
    return -1;
  }
  // Created exclusively, so that no other file is ever written through a
  // name someone else made; a second run beside this one gets its own.
  std::string temp = final_path + ".partial";
  int descriptor = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (descriptor < 0 && errno == EEXIST) {
    std::string pattern = final_path + ".partial.XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    descriptor = mkostemp(name.data(), O_CLOEXEC);
    temp = name.data();
  }
  if (descriptor < 0) {
    VFAIL("open(%s): %s\n", temp.c_str(), strerror(errno));
    return -1;
  }
  ArchiveFile.final_path = final_path;
  ArchiveFile.temp_path = temp;
  ArchiveDescriptor = descriptor;
  ArchiveBroken = false;
  ArchiveEntries = 0;
  return 0;
}

int CommitArchiveFile() {
  if (ArchiveFile.temp_path.empty()) return 0;
  const char* temp = ArchiveFile.temp_path.c_str();
  const char* target = ArchiveFile.final_path.c_str();
  if (fdatasync(ArchiveDescriptor) != 0) {
    VFAIL("fdatasync(%s): %s\n", temp, strerror(errno));
    DiscardArchiveFile();
    return -1;
  }
  if (rename(temp, target) != 0) {
    VFAIL("rename(%s, %s): %s\n", temp, target, strerror(errno));
    DiscardArchiveFile();
    return -1;
  }
  ArchiveFile.temp_path.clear();
  close(ArchiveDescriptor);
  ArchiveDescriptor = -1;
  // The new name must reach the disk too, or a crash could bring the old
  // archive back. The archive is whole and in place by now, though: a
  // directory that cannot be synced (some file systems refuse) is
  // reported, but fails nothing.
  std::string directory = DirectoryOf(ArchiveFile.final_path);
  int dir = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0 || fsync(dir) != 0) VFAIL("fsync(%s): %s\n", directory.c_str(), strerror(errno));
  if (dir >= 0) close(dir);
  return 0;
}

void DiscardArchiveFile() {
  if (ArchiveFile.temp_path.empty()) return;
  if (ArchiveDescriptor >= 0) close(ArchiveDescriptor);
  ArchiveDescriptor = -1;
  unlink(ArchiveFile.temp_path.c_str());
  ArchiveFile.temp_path.clear();
}

namespace {

// Whether a run that ends with this status puts its archive in place. A
// broken archive never. One with no entry only when nothing failed (a run
// with nothing to save makes its empty archive): a run that failed, or was
// terminated, before saving anything would otherwise replace an existing
// archive with nothing.
bool KeepArchive(int status) {
  return !ArchiveBroken && (ArchiveEntries.load() > 0 || status == 0);
}

// Ends a backup that a termination request stopped: the entries written so
// far are whole, so the archive is put in place like any other, and the
// status says which signal ended the run.
[[noreturn]] void EndTerminatedBackup() {
  VFAIL("Backup Terminated Cleanly\n");
  int status = TerminationStatus();
  if (!KeepArchive(status))
    DiscardArchiveFile();
  else if (CommitArchiveFile() != 0)
    status = 255;
  exit(status);
}

}  // namespace

int BackupDriver(FtpSession* session) {
  BackupTotals sum{};
  const int kind_count = ObjectKindCount();
  std::vector<pthread_t> threads(static_cast<size_t>(kind_count));
  std::vector<bool> started(static_cast<size_t>(kind_count), false);
  const double t0 = Now();

  // Normally made before the login, so that a bad path is refused before
  // anything reaches the server.
  if (ArchiveDescriptor < 0 && PrepareArchiveFile(Settings.backup_path) != 0) return -1;
  const int descriptor = ArchiveDescriptor;
  LogMessage("Building Object Lists\n");
  ObjectNode* include_tree = BuildIncludeList(session);
  if (!include_tree) {
    VFAIL("BuildIncludeList failed\n");
    DiscardArchiveFile();
    return -1;
  }
  LogMessage("Building Block Lists\n");
  ObjectNode** kinds = BuildBackupList(include_tree);
  if (!kinds) {
    VFAIL("BuildBackupList failed\n");
    DiscardArchiveFile();
    return -1;
  }
  const double t1 = Now();
  // The archive is valid, and empty, before any entry is appended. Without
  // its end block no entry could ever be closed: the run stops here.
  unsigned char sentinel[CtarBlockSize];
  if (WriteFull(descriptor, BuildCtarSentinel(sentinel), CtarBlockSize) != static_cast<ssize_t>(CtarBlockSize)) {
    VFAIL("CTAR sentinel failed write(): %s\n", strerror(errno));
    FreeBackupList(kinds);
    FreeTree(include_tree);
    DiscardArchiveFile();
    return -1;
  }
  if (TerminationRequested.load()) EndTerminatedBackup();

  // Security data and configuration run alone and first; the other kinds
  // then run side by side, or one after another without threading.
  for (int i = 0; i < kind_count; i++) {
    ObjectNode* tree = kinds[i];
    // A tree of nothing but empty directories still has units to save.
    if (!tree || (!tree->first_dir && !tree->first_file)) continue;
    if (TerminationRequested.load()) break;  // no new worker for a run that is ending
    auto* argument = new (std::nothrow) WorkerArgument{static_cast<uint32_t>(i), tree};
    if (!argument) {
      VFAIL("Failed to allocate argument structure for thread %d\n", i);
      sum.attempted += tree->count;
      sum.failed += tree->count;
      continue;
    }
    int error = pthread_create(&threads[static_cast<size_t>(i)], nullptr, BackupWorker, argument);
    if (error != 0) {
      VFAIL("pthread_create(): %s\n", strerror(error));
      sum.attempted += tree->count;
      sum.failed += tree->count;
      delete argument;
      continue;
    }
    started[static_cast<size_t>(i)] = true;
    if (i == 0 || !Settings.threading) {
      CollectWorker(threads[static_cast<size_t>(i)], i, tree, &sum);
      started[static_cast<size_t>(i)] = false;
      delete argument;
    }
  }
  for (int i = 1; i < kind_count; i++)
    if (started[static_cast<size_t>(i)]) CollectWorker(threads[static_cast<size_t>(i)], i, kinds[i], &sum);

  if (TerminationRequested.load()) EndTerminatedBackup();
  const double t2 = Now();
  // What the include file named but could not be found counts as failed.
  sum.attempted += IncludesMissed;
  sum.failed += IncludesMissed;
  LogMessage("** Backup Complete\n");
  char unit;
  if (ListBytes > 0) {
    double shown = ScaleBinary(ListBytes, &unit);
    LogMessage("** Total List Data: %.3f %cB\n", shown, unit);
    LogMessage("** List Called    : %llu\n", static_cast<unsigned long long>(ListCalls));
    LogMessage("** Total List Time: %.3f\n", t1 - t0);
    LogMessage("** Objects Found  : %llu\n", static_cast<unsigned long long>(ObjectsFound));
  }
  if (ParseErrors != 0 || Settings.verbosity >= 1)
    LogMessage("** Parsing Errors : %llu\n", static_cast<unsigned long long>(ParseErrors));
  int status = 0;
  if (sum.attempted > 0) {
    double shown = ScaleBinary(static_cast<double>(sum.bytes), &unit);
    LogMessage("** Backed up %.3f %cB in %.3f s\n", shown, unit, t2 - t1);
    LogMessage("** Total Save Time: %.3f s\n", sum.save_seconds);
    LogMessage("** Total Wait Time: %.3f s\n", sum.wait_seconds);
    LogMessage("** Total Xfer Time: %.3f s\n", sum.transfer_seconds);
    LogMessage("** Total Objects Attempted: %d\n", static_cast<int>(sum.attempted));
    LogMessage("** Total Objects Failed   : %d\n", static_cast<int>(sum.failed));
    if (sum.partial > 0) LogMessage("** Total Objects Partial  : %d\n", static_cast<int>(sum.partial));
    uint64_t bad = ParseErrors + sum.failed;
    if (bad * 100 / (ParseErrors + sum.attempted) > 9)
      status = 2;
    else if (bad != 0 || sum.partial != 0)
      status = 1;
  } else {
    LogMessage("** No objects attempted\n");
  }
  FreeBackupList(kinds);
  FreeTree(include_tree);
  if (ArchiveBroken) {
    VFAIL("the archive is not whole: it is not kept\n");
    DiscardArchiveFile();
    return -1;
  }
  if (!KeepArchive(status)) {
    VFAIL("no entry was saved: no archive is made, an existing one stays\n");
    DiscardArchiveFile();
    return status;
  }
  if (CommitArchiveFile() != 0) return -1;
  return status;
}
