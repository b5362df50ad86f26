// The catalog lines of saved objects: one file's path, or every file of a
// directory saved whole, each written whole under the log lock.
#include "backup/catalog.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "support/log.h"
#include "support/text.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "backup.cpp";

namespace {

// A file's full path is a server path, which the server limits to 4095
// characters.
constexpr size_t FullPathSize = 4096;
// The catalog's path buffer starts small and doubles when a name needs it.
constexpr size_t DumpStartSize = 1024;

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
  size_t name_length = dir->name ? strlen(dir->name) : 0;
  if (!MakeRoom(path, entry_length + name_length + 1)) return -1;
  if (dir->name) CopyBounded(path->text + entry_length, path->capacity - entry_length, dir->name);
  path->length = entry_length + name_length;
  int result = DumpContents(stream, dir, path);
  path->length = entry_length;
  path->text[entry_length] = '\0';
  return result;
}

// The starting directory's path is made whole even when it is longer than
// the first buffer: a cut path in the catalog would name the wrong object.
int DumpFromRoot(FILE* stream, const ObjectNode* dir, DumpPath* path) {
  size_t length = PathLength(dir);
  if (!MakeRoom(path, length + 1)) return -1;
  DirectoryPath(dir, false, path->text, path->capacity);
  path->length = length;
  return DumpContents(stream, dir, path);
}

}  // namespace

int PrintFilePath(FILE* stream, const ObjectFile* file) {
  char path[FullPathSize];
  FilePath(file, false, path, sizeof path);
  std::lock_guard<std::mutex> hold(LogLock);
  return fprintf(stream, "%s\n", path) < 0 ? -1 : 0;
}

int DumpTree(FILE* stream, const ObjectNode* dir, bool full) {
  DumpPath path{static_cast<char*>(malloc(DumpStartSize)), DumpStartSize, 0};
  if (!path.text) {
    VFAIL("malloc(%d) failed\n", static_cast<int>(DumpStartSize));
    return -1;
  }
  path.text[0] = '\0';
  int result = full ? DumpFromRoot(stream, dir, &path) : DumpDirectory(stream, dir, &path);
  free(path.text);
  return result;
}
