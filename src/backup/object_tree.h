// The tree of server objects a backup is planned on: directory and file
// records, appending with the roll-up of sizes and counts, paths, adopted
// copies for the per-kind trees, freeing, and the tree text format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

// A tree is its root ObjectNode; "ObjectTree" is only another name for it.
// Directories and files hang in two singly linked lists per directory, in the
// order they were appended. Names are heap strings owned by their record (or
// nullptr once the walk is told to skip the node); a node's path is the plain
// concatenation of the names from the root down, which is why listed names
// start with "/".

struct ObjectFile;

struct ObjectNode {
  char* name;
  ObjectNode* parent;  // nullptr for a root
  uint32_t mode;       // st_mode style: 0040000 directory, 0100000 regular
  struct tm mtime;
  uint64_t size;   // own listed size plus everything appended below
  uint64_t count;  // files appended anywhere below; directories do not count
  uint8_t partial;   // something below was left out: never save it whole
  uint8_t borrowed;  // adopted copy sharing another tree's child lists
  ObjectNode* next;  // next sibling directory
  ObjectNode* last_dir;
  ObjectNode* first_dir;
  ObjectFile* last_file;
  ObjectFile* first_file;
};

struct ObjectFile {
  char* name;
  ObjectNode* parent;
  uint32_t mode;
  uint64_t size;
  struct tm mtime;
  uint8_t borrowed;
  // In a backup list only: the record stands for every file of parent, a
  // directory of the include tree, each a unit of its own (see
  // backup_list.h).
  uint8_t run;
  ObjectFile* next;  // next file of the same directory
};

using ObjectTree = ObjectNode;

// Fresh records with a private copy of name (nullptr stays nullptr); nothing
// is linked and nothing rolled up. nullptr when memory is exhausted.
ObjectNode* NewDirectoryNode(ObjectNode* parent, const char* name, uint32_t mode, uint64_t size,
                             struct tm mtime);
ObjectFile* NewFileNode(ObjectNode* parent, const char* name, uint32_t mode, uint64_t size,
                        struct tm mtime);

// Append a record below dir and roll its size up from dir (a file also counts
// one). The new directory is dir->last_dir afterwards. nullptr (and nothing
// changed) when memory is exhausted.
ObjectNode* AppendDirectory(ObjectNode* dir, const char* name, uint32_t mode, uint64_t size,
                            struct tm mtime);
ObjectFile* AppendFile(ObjectNode* dir, const char* name, uint32_t mode, uint64_t size,
                       struct tm mtime);

// Adds size (and one to count when counts is set) to dir and every ancestor.
void RollUp(ObjectNode* dir, uint64_t size, bool counts);
// Flags dir and every ancestor as partial.
void MarkPartial(ObjectNode* dir);
// Replaces the name with a private copy; -1 (name left nullptr) when the
// copy cannot be made.
int RenameNode(ObjectNode* dir, const char* name);
// Tells the walks to pass dir by: its name is dropped (walks skip nameless
// nodes). A borrowed node keeps its name, which belongs to the copy.
void SkipInWalk(ObjectNode* dir);

// Free a record, and unless it is borrowed everything it owns: following
// siblings (files: the rest of the list), child directories and files. A
// borrowed record ends the freeing of its chain, because the rest of that
// chain belongs to the tree it was adopted from.
void FreeTree(ObjectNode* dir);
void FreeFileList(ObjectFile* file);

// Length of dir's full path: the sum of the names from the root down.
size_t PathLength(const ObjectNode* dir);
// Full path of dir (of file: its directory's path and its name), with "\n"
// when newline is set, cut to capacity and always terminated. Returns the
// length the whole text would have had, so a result >= capacity was cut.
size_t DirectoryPath(const ObjectNode* dir, bool newline, char* buffer, size_t capacity);
size_t FilePath(const ObjectFile* file, bool newline, char* buffer, size_t capacity);

// Append to root a borrowed copy of dir (of file) named with its full path;
// the copy shares the source's child lists. The size rolls up from root and
// the root's count grows by the copy's count (a file counts one).
ObjectNode* AdoptDirectory(ObjectNode* root, const ObjectNode* dir);
ObjectFile* AdoptFile(ObjectNode* root, const ObjectFile* file);

// Line buffer size that ReadTree needs: lines of up to 249 characters.
constexpr size_t TreeLineSize = 250;
// Reads the tree text format into dir: ">name" opens a directory, "+name"
// adds a file, "<" closes the current directory. Entries get mode 0, size 1
// and a zero time. 0 when the closing "<" was found, -1 otherwise.
int ReadTree(FILE* stream, ObjectNode* dir, char* line_buffer);
