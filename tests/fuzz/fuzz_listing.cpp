// Fuzzes ParseListingChunk, the parser of the server's directory listings,
// with the placing of what it parses into the object tree.
//
// Input: one byte of settings (bits 0-1: which directory is being listed,
// bit 2: --date given, bit 3: an exclude file), four chunk lengths, then
// the listing data, handed over in chunks whose lengths cycle through the
// four, as the data connection delivers it.
//
// Besides the tree's invariants, listings of an ordinary directory without
// an exclude file are compared entry by entry with a plain reading of the
// same lines through strptime and sscanf: the parser reads the common forms
// by hand for speed and must come to the same entries, sizes and times.
#include <sys/stat.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "backup.h"
#include "fuzz_common.h"
#include "vondral.h"

namespace {

// Exclusions of the kinds an operator writes: a leading directory, a
// wild card, a library and a top-level name.
const char ExcludeText[] =
    "/home/a*/x*\n"
    "/QSYS.LIB/QGPL.LIB\n"
    "/QSYS.LIB/T*.LIB\n"
    "/tmp\n"
    "/home/sub/b?\n";

// Chunk length from one input byte: 1 to 128 bytes, or 64 to 8192 in steps
// of 64, so that both line ends in odd places and lines longer than the
// carry buffer can be reached.
int ChunkLength(uint8_t code) { return code < 128 ? code + 1 : (code - 127) * 64; }

// Checks what the parser placed: file counts roll up to every ancestor,
// and nothing with a name the walk could loop on was placed. Returns the
// files found below dir.
uint64_t CheckNode(const ObjectNode* dir) {
  // Only libraries are placed in the library directory, as files or (with
  // --date) as directories that keep the file mode they were given.
  const bool library_directory = dir->parent && dir->name && strcmp(dir->name, "/QSYS.LIB") == 0;
  uint64_t files = 0;
  for (const ObjectFile* file = dir->first_file; file; file = file->next) {
    FUZZ_CHECK(file->name && file->name[0] == '/');
    FUZZ_CHECK(strlen(file->name) < PathBufferSize);
    FUZZ_CHECK(strcmp(file->name, "/") != 0 && strcmp(file->name, "/.") != 0 &&
               strcmp(file->name, "/..") != 0);
    FUZZ_CHECK(file->parent == dir);
    FUZZ_CHECK(S_ISREG(file->mode));
    if (library_directory) {
      size_t length = strlen(file->name);
      FUZZ_CHECK(length > 4 && strcmp(file->name + length - 4, ".LIB") == 0);
    }
    files++;
  }
  for (const ObjectNode* child = dir->first_dir; child; child = child->next) {
    FUZZ_CHECK(child->name && child->name[0] == '/');
    FUZZ_CHECK(strlen(child->name) < PathBufferSize);
    FUZZ_CHECK(strcmp(child->name, "/") != 0 && strcmp(child->name, "/.") != 0 &&
               strcmp(child->name, "/..") != 0);
    FUZZ_CHECK(child->parent == dir);
    FUZZ_CHECK(S_ISDIR(child->mode) || library_directory);
    if (library_directory) {
      size_t length = strlen(child->name);
      FUZZ_CHECK(length > 4 && strcmp(child->name + length - 4, ".LIB") == 0);
    }
    FUZZ_CHECK(child->count == CheckNode(child));
    files += child->count;
  }
  return files;
}

// One entry as the plain reading expects it in the tree.
struct Expected {
  std::string name;
  uint32_t mode;
  uint64_t size;
  struct tm mtime;
};

struct Reference {
  std::vector<Expected> directories;
  std::vector<Expected> files;
  int errors = 0;
};

bool Blank(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }
const char* Blanks(const char* p) {
  while (*p && Blank(*p)) p++;
  return p;
}
const char* Word(const char* p) {
  while (*p && !Blank(*p)) p++;
  return p;
}

// One listing line read with the library's scanners, the way a listing
// line is defined: mode, three skipped fields, size, date, time or year,
// name up to " -> " or the last character.
bool ReadLine(const std::string& text, const struct tm& today, Expected* out) {
  const char* line = text.c_str();
  size_t length = strlen(line);
  uint32_t mode = line[0] == 'd' ? S_IFDIR : S_IFREG;
  static const struct {
    size_t at;
    char letter;
    uint32_t bits;
  } bits[] = {{1, 'r', 0400}, {2, 'w', 0200}, {3, 'x', 0100}, {3, 's', 04100},
              {4, 'r', 0020}, {5, 'w', 0020}, {6, 'x', 0010}, {6, 's', 02010},
              {7, 'r', 0002}, {8, 'w', 0002}, {9, 'x', 0001}, {9, 's', 01001}};
  for (const auto& b : bits)
    if (b.at < length && line[b.at] == b.letter) mode |= b.bits;
  const char* p = line + (length < 10 ? length : 10);
  for (int i = 0; i < 3; i++) p = Word(Blanks(p));
  p = Blanks(p);
  unsigned long long size = 0;
  if (sscanf(p, "%llu", &size) != 1) size = 0;
  p = Blanks(Word(p));
  struct tm when = today;
  when.tm_hour = when.tm_min = when.tm_sec = 0;
  const char* after = strptime(p, "%b %d", &when);
  if (!after) return false;
  p = Blanks(after);
  if (p[0] && p[1] && p[2] == ':') {
    after = strptime(p, "%H:%M", &when);
    if (!after) return false;
    when.tm_year = today.tm_year - (when.tm_mon > today.tm_mon ? 1 : 0);
  } else {
    after = strptime(p, "%Y", &when);
    if (!after) return false;
  }
  when.tm_isdst = -1;
  const char* name = Blanks(after);
  const char* end = line + length;
  const char* arrow = strstr(name, " -> ");
  const char* name_end = arrow ? arrow : (end > name ? end - 1 : name);
  out->name = "/" + std::string(name, static_cast<size_t>(name_end - name));
  if (out->name.size() >= PathBufferSize) return false;
  out->mode = mode;
  out->size = size;
  out->mtime = when;
  return true;
}

// Where a read entry ends up in an ordinary directory's listing.
void Place(Reference* reference, Expected entry) {
  const std::string& name = entry.name;
  if (name == "/" || name == "/." || name == "/..") return;
  bool directory = S_ISDIR(entry.mode);
  if (Settings.cutoff_flag && !directory) {
    struct tm copy = entry.mtime;
    if (static_cast<int64_t>(mktime(&copy)) < Settings.cutoff_time) return;
  }
  size_t dot = name.rfind('.');
  bool library = dot != std::string::npos && name.compare(dot, std::string::npos, ".LIB") == 0 &&
                 name != "/QSYS.LIB";
  if (library || name == "/QDLS") {
    entry.mode = (entry.mode & ~static_cast<uint32_t>(S_IFMT)) | S_IFREG;
    directory = false;
  }
  (directory ? reference->directories : reference->files).push_back(entry);
}

// The whole listing: lines are joined across chunks (a chunk without a line
// end replaces what was carried), a joined line longer than 4095 bytes is
// an error, and each line is read as far as its first NUL byte.
Reference ReadListing(const fuzz::Input& input, const int lengths[4], const struct tm& today) {
  Reference reference;
  std::string carry;
  bool overflow = false;
  auto take = [&](const std::string& line) {
    Expected entry;
    if (overflow || !ReadLine(line, today, &entry)) {
      reference.errors++;
      return;
    }
    Place(&reference, entry);
  };
  for (size_t at = 0, chunk = 0; at < input.size; chunk++) {
    size_t length = static_cast<size_t>(lengths[chunk % 4]);
    if (length > input.size - at) length = input.size - at;
    std::string data(reinterpret_cast<const char*>(input.data + at), length);
    at += length;
    while (!data.empty()) {
      size_t newline = data.find('\n');
      if (newline == std::string::npos) {
        overflow = data.size() > CarryLimit;
        carry = fuzz::AsCString(data.substr(0, CarryLimit));
        break;
      }
      if (carry.size() + newline > CarryLimit)
        overflow = true;
      else
        carry = fuzz::AsCString(carry + data.substr(0, newline));
      take(carry);
      carry.clear();
      overflow = false;
      data.erase(0, newline + 1);
    }
  }
  return reference;
}

bool SameTime(const struct tm& a, const struct tm& b) {
  return a.tm_year == b.tm_year && a.tm_mon == b.tm_mon && a.tm_mday == b.tm_mday &&
         a.tm_hour == b.tm_hour && a.tm_min == b.tm_min && a.tm_sec == b.tm_sec &&
         a.tm_isdst == b.tm_isdst;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceProgramLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input{data, size};
  uint8_t settings = input.Byte();
  int lengths[4];
  for (int& length : lengths) length = ChunkLength(input.Byte());

  Settings.cutoff_flag = (settings & 4) != 0;
  Settings.cutoff_time = 1262304000;  // 2010-01-01
  FILE* exclude = nullptr;
  if (settings & 8) {
    exclude = fmemopen(const_cast<char*>(ExcludeText), sizeof ExcludeText - 1, "r");
    if (!exclude) abort();
  }
  Settings.exclude = exclude;

  // The directory being listed, as the include list and the walk set it
  // up: the root of an include path, or a directory found below one.
  struct tm now{};
  ObjectNode* root = nullptr;
  ObjectNode* listed = nullptr;
  const char* path = nullptr;
  switch (settings & 3) {
    case 0:  // include path "/"
      root = listed = NewDirectoryNode(nullptr, "/", 0, 0, now);
      path = "/";
      break;
    case 1:  // include path whose last part is a pattern
      root = listed = NewDirectoryNode(nullptr, "/home/a*", 0, 0, now);
      path = "/home";
      break;
    case 2:  // the library directory
      root = NewDirectoryNode(nullptr, "", 0, 0, now);
      listed = AppendDirectory(root, "/QSYS.LIB", S_IFDIR | 0755, 0, now);
      path = "/QSYS.LIB";
      break;
    default:  // an ordinary directory two levels down
      root = NewDirectoryNode(nullptr, "", 0, 0, now);
      listed = AppendDirectory(AppendDirectory(root, "/home", S_IFDIR | 0755, 0, now), "/sub",
                               S_IFDIR | 0755, 0, now);
      path = "/home/sub";
      break;
  }
  if (!root || !listed) abort();

  auto* context = new ListingContext{};
  context->path = context->path_buffer;
  CopyBounded(context->path, PathBufferSize, path);
  context->directory = listed;

  time_t clock = time(nullptr);
  struct tm before{};
  localtime_r(&clock, &before);

  int errors = 0;
  int lines = 0;
  for (size_t at = 0, chunk = 0; at < input.size; chunk++) {
    size_t length = static_cast<size_t>(lengths[chunk % 4]);
    if (length > input.size - at) length = input.size - at;
    // Each chunk in a buffer of its own size, as the transfer buffer holds
    // no more than what was read.
    auto* piece = static_cast<char*>(malloc(length));
    if (!piece) abort();
    memcpy(piece, input.data + at, length);
    int found = ParseListingChunk(context, piece, static_cast<int>(length));
    free(piece);
    FUZZ_CHECK(found >= 0);
    errors += found;
    at += length;
  }
  for (size_t i = 0; i < input.size; i++) lines += input.data[i] == '\n';

  // At most one error per complete line, the carried start of a line is
  // terminated, and the listed path is cut back to what it was.
  FUZZ_CHECK(errors <= lines);
  FUZZ_CHECK(memchr(context->carry, '\0', sizeof context->carry) != nullptr);
  FUZZ_CHECK(strcmp(context->path, path) == 0);
  FUZZ_CHECK(root->count == CheckNode(root));

  clock = time(nullptr);
  struct tm after{};
  localtime_r(&clock, &after);
  // (A listing parsed across a change of month is not compared: the year of
  // a recent entry depends on the month of the day it is read.)
  bool same_month = before.tm_year == after.tm_year && before.tm_mon == after.tm_mon;
  if ((settings & 3) == 3 && !exclude && same_month) {
    Reference reference = ReadListing(input, lengths, before);
    FUZZ_CHECK(errors == reference.errors);
    size_t index = 0;
    for (const ObjectNode* child = listed->first_dir; child; child = child->next, index++) {
      FUZZ_CHECK(index < reference.directories.size());
      const Expected& expected = reference.directories[index];
      FUZZ_CHECK(expected.name == child->name);
      FUZZ_CHECK(expected.mode == child->mode);
      FUZZ_CHECK(expected.size == child->size);
      FUZZ_CHECK(SameTime(expected.mtime, child->mtime));
    }
    FUZZ_CHECK(index == reference.directories.size());
    index = 0;
    for (const ObjectFile* file = listed->first_file; file; file = file->next, index++) {
      FUZZ_CHECK(index < reference.files.size());
      const Expected& expected = reference.files[index];
      FUZZ_CHECK(expected.name == file->name);
      FUZZ_CHECK(expected.mode == file->mode);
      FUZZ_CHECK(expected.size == file->size);
      FUZZ_CHECK(SameTime(expected.mtime, file->mtime));
    }
    FUZZ_CHECK(index == reference.files.size());
  }

  delete context;
  FreeTree(root);
  if (exclude) fclose(exclude);
  Settings.exclude = nullptr;
  return 0;
}
