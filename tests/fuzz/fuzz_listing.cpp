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
// same lines through strptime and sscanf (tests/common/listing_reference.h,
// which the unit tests use too): the parser reads the common forms by hand
// for speed and must come to the same entries, sizes and times, every field
// of the broken-down time included.
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "../common/listing_reference.h"
#include "backup/listing_walk.h"
#include "fuzz_common.h"
#include "cli/settings.h"
#include "support/text.h"

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

using Entry = listing_reference::Entry;

// The entries the plain reading places, and the lines it cannot read.
struct Reference {
  std::vector<Entry> directories;
  std::vector<Entry> files;
  int errors = 0;
};

// Where a read entry ends up in an ordinary directory's listing.
void Place(Reference* reference, Entry entry) {
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
// end adds to what is carried), a joined line longer than 4095 bytes is
// an error, and each line is read as far as its first NUL byte.
Reference ReadListing(const fuzz::Input& input, const int lengths[4], const struct tm& today) {
  Reference reference;
  std::string carry;
  bool overflow = false;
  auto take = [&](const std::string& line) {
    const Entry entry = overflow ? Entry{} : listing_reference::Read(line.c_str(), today);
    if (!entry.ok) {
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
        const size_t room = CarryLimit - carry.size();
        if (data.size() > room) overflow = true;
        carry = fuzz::AsCString(carry + data.substr(0, room));
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
  // A last line without its line end counts as if its CR LF had come.
  if (!carry.empty() || overflow) {
    if (!overflow && carry.back() != '\r') {
      if (carry.size() + 1 > CarryLimit)
        overflow = true;
      else
        carry += '\r';
    }
    take(carry);
  }
  return reference;
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
  const int last = FinishListing(context);
  FUZZ_CHECK(last == 0 || last == 1);
  errors += last;
  for (size_t i = 0; i < input.size; i++) lines += input.data[i] == '\n';

  // At most one error per line (the last one may lack its line end), the
  // carry is terminated and empty again, and the listed path is cut back to
  // what it was.
  FUZZ_CHECK(errors <= lines + 1);
  FUZZ_CHECK(context->carry[0] == '\0');
  FUZZ_CHECK(memchr(context->carry, '\0', sizeof context->carry) != nullptr);
  FUZZ_CHECK(strcmp(context->path, path) == 0);
  FUZZ_CHECK(root->count == CheckNode(root));
  // Every placed name is one entry of the listed directory: no "/" but the
  // one in front of it (behind the include path's leading part at the root
  // of a pattern).
  const size_t prefix = (settings & 3) == 1 ? strlen("/home") : 0;
  for (const ObjectFile* file = listed->first_file; file; file = file->next)
    FUZZ_CHECK(strlen(file->name) > prefix && strchr(file->name + prefix + 1, '/') == nullptr);
  for (const ObjectNode* child = listed->first_dir; child; child = child->next)
    FUZZ_CHECK(strlen(child->name) > prefix && strchr(child->name + prefix + 1, '/') == nullptr);

  clock = time(nullptr);
  struct tm after{};
  localtime_r(&clock, &after);
  // (A listing parsed across a change of month is not compared: the year of
  // a recent entry depends on the month of the day it is read. Nor one
  // parsed across a change of daylight saving time, which every entry's
  // time carries along from the day it is read.)
  bool same_month = before.tm_year == after.tm_year && before.tm_mon == after.tm_mon &&
                    before.tm_gmtoff == after.tm_gmtoff;
  if ((settings & 3) == 3 && !exclude && same_month) {
    Reference reference = ReadListing(input, lengths, before);
    FUZZ_CHECK(errors == reference.errors);
    size_t index = 0;
    for (const ObjectNode* child = listed->first_dir; child; child = child->next, index++) {
      FUZZ_CHECK(index < reference.directories.size());
      const Entry& expected = reference.directories[index];
      FUZZ_CHECK(expected.name == child->name);
      FUZZ_CHECK(expected.mode == child->mode);
      FUZZ_CHECK(expected.size == child->size);
      FUZZ_CHECK(listing_reference::TimeDifference(expected.mtime, child->mtime) == nullptr);
    }
    FUZZ_CHECK(index == reference.directories.size());
    index = 0;
    for (const ObjectFile* file = listed->first_file; file; file = file->next, index++) {
      FUZZ_CHECK(index < reference.files.size());
      const Entry& expected = reference.files[index];
      FUZZ_CHECK(expected.name == file->name);
      FUZZ_CHECK(expected.mode == file->mode);
      FUZZ_CHECK(expected.size == file->size);
      FUZZ_CHECK(listing_reference::TimeDifference(expected.mtime, file->mtime) == nullptr);
    }
    FUZZ_CHECK(index == reference.files.size());
  }

  delete context;
  FreeTree(root);
  if (exclude) fclose(exclude);
  Settings.exclude = nullptr;
  return 0;
}
