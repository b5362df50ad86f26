// The tree of server objects: records and their lists, the roll-up of sizes
// and counts, paths, adopted copies, freeing and the tree text format.
#include "backup/object_tree.h"

#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "support/log.h"
#include "support/text.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "backup.cpp";

namespace {

// Adopted names are full server paths, which the server limits to 4095
// characters.
constexpr size_t FullPathSize = 4096;

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

// A fresh record as a listing line describes it, linked nowhere.
template <typename Record>
Record* NewListedRecord(ObjectNode* parent, const char* name, uint32_t mode, uint64_t size, struct tm mtime) {
  auto* record = NewRecord<Record>(name);
  if (!record) return nullptr;
  record->parent = parent;
  record->mode = mode;
  record->size = size;
  record->mtime = mtime;
  return record;
}

size_t NameLength(const char* name) { return name ? strlen(name) : 0; }

// Names are appended from the root down; the depth of a tree is bounded by
// the server's path length, so the recursion stays shallow.
void AppendNames(const ObjectNode* dir, char* buffer, size_t capacity) {
  if (dir->parent) AppendNames(dir->parent, buffer, capacity);
  if (dir->name) AppendBounded(buffer, capacity, dir->name);
}

// Appends item to a list given by its first and last records.
template <typename Record>
void Link(Record** first, Record** last, Record* item) {
  if (*last)
    (*last)->next = item;
  else
    *first = item;
  *last = item;
}

void LinkInto(ObjectNode* dir, ObjectNode* child) { Link(&dir->first_dir, &dir->last_dir, child); }
void LinkInto(ObjectNode* dir, ObjectFile* file) { Link(&dir->first_file, &dir->last_file, file); }

// A new record linked at the end of dir's list; its size rolls up from dir,
// and a file also counts one.
template <typename Record>
Record* AppendRecord(ObjectNode* dir, const char* name, uint32_t mode, uint64_t size, struct tm mtime) {
  auto* record = NewListedRecord<Record>(dir, name, mode, size, mtime);
  if (!record) return nullptr;
  LinkInto(dir, record);
  RollUp(dir, size, std::is_same_v<Record, ObjectFile>);
  return record;
}

// The full path of a record, whichever list it is in.
void FullPathOf(const ObjectNode* dir, char* buffer, size_t capacity) { DirectoryPath(dir, false, buffer, capacity); }
void FullPathOf(const ObjectFile* file, char* buffer, size_t capacity) { FilePath(file, false, buffer, capacity); }

// Appends to root a borrowed copy of source named with its full path: the
// copy's fields are the source's (so the child lists are shared), its name
// its own. Its size rolls up from root, and root's count grows by count.
template <typename Record>
Record* Adopt(ObjectNode* root, const Record* source, uint64_t count) {
  char path[FullPathSize];
  FullPathOf(source, path, sizeof path);
  auto* copy = NewRecord<Record>(path);
  if (!copy) return nullptr;
  char* name = copy->name;
  *copy = *source;
  copy->name = name;
  copy->borrowed = 1;
  copy->parent = root;
  copy->next = nullptr;
  LinkInto(root, copy);
  RollUp(root, copy->size, false);
  root->count += count;
  return copy;
}

}  // namespace

ObjectNode* NewDirectoryNode(ObjectNode* parent, const char* name, uint32_t mode, uint64_t size,
                             struct tm mtime) {
  return NewListedRecord<ObjectNode>(parent, name, mode, size, mtime);
}

ObjectFile* NewFileNode(ObjectNode* parent, const char* name, uint32_t mode, uint64_t size,
                        struct tm mtime) {
  return NewListedRecord<ObjectFile>(parent, name, mode, size, mtime);
}

ObjectNode* AppendDirectory(ObjectNode* dir, const char* name, uint32_t mode, uint64_t size,
                            struct tm mtime) {
  return AppendRecord<ObjectNode>(dir, name, mode, size, mtime);
}

ObjectFile* AppendFile(ObjectNode* dir, const char* name, uint32_t mode, uint64_t size,
                       struct tm mtime) {
  return AppendRecord<ObjectFile>(dir, name, mode, size, mtime);
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

void SkipInWalk(ObjectNode* dir) {
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

size_t PathLength(const ObjectNode* dir) {
  size_t length = 0;
  for (; dir; dir = dir->parent) length += NameLength(dir->name);
  return length;
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

ObjectNode* AdoptDirectory(ObjectNode* root, const ObjectNode* dir) { return Adopt(root, dir, dir->count); }

ObjectFile* AdoptFile(ObjectNode* root, const ObjectFile* file) { return Adopt(root, file, 1); }

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
