// Sorting the include tree into the per-kind trees the workers save from:
// which directories go whole, which are split into their files, and the
// freeing of the copies that sorting makes.
#include "backup/backup_list.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "backup/listing_walk.h"
#include "support/text.h"
#include "cli/settings.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "backup.cpp";

uint64_t ObjectsFound = 0;

namespace {

ObjectKind KindOfFile(const ObjectFile* file, char* path, size_t length) {
  AppendBounded(path, PathBufferSize, file->name ? file->name : "");
  ObjectKind kind = ClassifyPath(path);
  path[length] = '\0';
  return kind;
}

// One record for all the files of dir, which share kind: count files of
// total bytes. false when memory is exhausted.
bool AddFileRun(ObjectNode* root, ObjectNode* dir, const char* path, uint64_t count, uint64_t bytes) {
  ObjectFile* run = AppendFile(root, path, dir->mode, bytes, dir->mtime);
  if (!run) return false;
  run->parent = dir;
  run->borrowed = 1;
  run->run = 1;
  root->count += count - 1;  // AppendFile counted one
  return true;
}

// The files directly in dir, each a unit of its own kind: one run record
// when they share a kind (as all files below the include tree's top do),
// else a copy of each.
void PlaceFiles(ObjectNode** kinds, ObjectNode* dir, char* path) {
  if (!dir->first_file) return;
  const size_t length = strlen(path);
  const ObjectKind first = KindOfFile(dir->first_file, path, length);
  uint64_t count = 0;
  uint64_t bytes = 0;
  bool shared = true;
  for (ObjectFile* file = dir->first_file; file && shared; file = file->next) {
    shared = KindOfFile(file, path, length) == first;
    count++;
    bytes += file->size;
  }
  if (shared && AddFileRun(kinds[first], dir, path, count, bytes)) {
    ObjectsFound += count;
    return;
  }
  for (ObjectFile* file = dir->first_file; file; file = file->next) {
    AdoptFile(kinds[KindOfFile(file, path, length)], file);
    ObjectsFound++;
  }
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
  // A directory small enough, and with nothing left out of it, is one unit.
  if (dir->parent && !dir->partial && (dir->size <= Settings.max_block_size || dir->count == 0)) {
    if (!(Settings.cutoff_flag && dir->count == 0)) {
      AdoptDirectory(kinds[ClassifyPath(path)], dir);
      ObjectsFound += dir->count;
    }
    return;
  }
  PlaceFiles(kinds, dir, path);
  for (ObjectNode* child = dir->first_dir; child; child = child->next) {
    if (!child->name) continue;
    PlaceObject(kinds, child, path);
    path[length] = '\0';
  }
}

FileUnitCursor FirstFileUnit(const ObjectNode* kind_tree) {
  FileUnitCursor cursor;
  cursor.record = kind_tree ? kind_tree->first_file : nullptr;
  return cursor;
}

const ObjectFile* NextFileUnit(FileUnitCursor* cursor, char* path, size_t capacity) {
  while (cursor->record) {
    const ObjectFile* record = cursor->record;
    if (!record->run) {
      cursor->record = record->next;
      FilePath(record, false, path, capacity);
      return record;
    }
    const ObjectFile* file = cursor->file ? cursor->file : record->parent->first_file;
    cursor->file = file ? file->next : nullptr;
    if (!cursor->file) cursor->record = record->next;
    if (!file) continue;
    // As a copy of it would be named: its path in the include tree.
    FilePath(file, false, path, capacity);
    return file;
  }
  return nullptr;
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
