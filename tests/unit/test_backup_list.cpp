// The backup list: which kind a path is, and the per-kind trees sorted from
// the include tree, freed without harm to it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "backup/backup_list.h"
#include "backup/listing_walk.h"
#include "object_tree_helpers.h"
#include "cli/settings.h"

namespace {

// The file units of a kind tree as the workers get them: full paths.
std::vector<std::string> UnitPaths(const ObjectNode* kind) {
  std::vector<std::string> paths;
  char path[PathBufferSize];
  FileUnitCursor cursor = FirstFileUnit(kind);
  while (NextFileUnit(&cursor, path, sizeof path)) paths.push_back(path);
  return paths;
}

size_t Records(const ObjectNode* kind) {
  size_t records = 0;
  for (const ObjectFile* f = kind->first_file; f; f = f->next) records++;
  return records;
}

TEST(BackupListClassify, PathsFallIntoTheirKindsByExactRules) {
  EXPECT_EQ(ObjectKindCount(), 4);
  struct Case {
    const char* path;
    ObjectKind kind;
  };
  const Case cases[] = {
      {"/Security Data", OBJECT_KIND_SYSTEM},  {"/System Configuration", OBJECT_KIND_SYSTEM},
      {"/Security Data/x", OBJECT_KIND_IFS},   {"/QDLS", OBJECT_KIND_QDLS},
      {"/QDLS/FOLDER", OBJECT_KIND_IFS},       {"/QSYS.LIB/A.LIB", OBJECT_KIND_LIBRARY},
      {"/QSYS.LIB", OBJECT_KIND_IFS},          {"/qsys.lib/A.LIB", OBJECT_KIND_IFS},
  };
  for (const Case& c : cases) EXPECT_EQ(ClassifyPath(c.path), c.kind) << c.path;
}

// A backup list holds, per kind, chains of several adopted copies and of
// library entries made for it. Freeing it must free every one of them (the
// AddressSanitizer build of these tests reports a leak otherwise) and leave
// the include tree, whose children the copies share, whole.
TEST(BackupList, EveryPlacedCopyIsFreedAndTheIncludeTreeSurvives) {
  const uint64_t saved_limit = Settings.max_block_size;
  Settings.max_block_size = 50;  // /home/a (100 bytes) is split into files
  ObjectNode* root = NewRoot();
  ObjectNode* home = AppendDirectory(root, "/home", 0040755, 0, NoTime);
  ObjectNode* a = AppendDirectory(home, "/a", 0040755, 0, NoTime);
  ObjectNode* b = AppendDirectory(home, "/b", 0040755, 0, NoTime);
  ObjectNode* c = AppendDirectory(home, "/c", 0040755, 0, NoTime);
  AppendFile(a, "/x", 0100644, 60, NoTime);
  AppendFile(a, "/y", 0100644, 40, NoTime);
  AppendFile(b, "/w", 0100644, 5, NoTime);
  AppendFile(c, "/v", 0100644, 7, NoTime);
  ObjectNode* libraries = AppendDirectory(root, "/QSYS.LIB", 0040755, 0, NoTime);
  AppendFile(libraries, "/ONE.LIB", 0100644, 30, NoTime);
  AppendFile(libraries, "/TWO.LIB", 0100644, 30, NoTime);

  ObjectNode** kinds = BuildBackupList(root);
  ASSERT_NE(kinds, nullptr);
  EXPECT_EQ(DirectoryNames(kinds[OBJECT_KIND_IFS]), (std::vector<std::string>{"/home/b", "/home/c"}));
  EXPECT_EQ(UnitPaths(kinds[OBJECT_KIND_IFS]), (std::vector<std::string>{"/home/a/x", "/home/a/y"}));
  EXPECT_EQ(UnitPaths(kinds[OBJECT_KIND_LIBRARY]),
            (std::vector<std::string>{"/QSYS.LIB/ONE.LIB", "/QSYS.LIB/TWO.LIB"}));
  EXPECT_EQ(kinds[OBJECT_KIND_IFS]->count, 4u);
  FreeBackupList(kinds);
  Settings.max_block_size = saved_limit;

  // The include tree is still whole after its copies are gone.
  EXPECT_EQ(Dump(root, true),
            "/home/a/x\n/home/a/y\n/home/b/w\n/home/c/v\n/QSYS.LIB/ONE.LIB\n/QSYS.LIB/TWO.LIB\n");
  FreeTree(root);
}

// The files of a directory split into its files are units, each under its
// full path and in the order they were listed, but the kind tree holds one
// record for the directory rather than one per file, so that a backup of
// many files keeps nothing per file beyond the include tree. Files of the
// include tree's top, which may be of different kinds, are copied one by
// one as before; the counts, sizes and the order of units stay as they were.
TEST(BackupList, ASplitDirectoryCostsOneRecordWhateverItsFiles) {
  struct Case {
    const char* what;
    int files;                      // in /home/big, split into its files
    std::vector<const char*> top;   // files at the include tree's top
    size_t ifs_records;             // file records of the IFS kind tree
    std::vector<std::string> first_units;  // its first units
  };
  const Case cases[] = {
      {"one file", 1, {}, 1, {"/home/big/f0000"}},
      {"a thousand files", 1000, {}, 1, {"/home/big/f0000", "/home/big/f0001"}},
      {"top files of three kinds stay copies, the run follows them",
       3,
       {"/home/one.txt", "/Security Data", "/two.txt"},
       3,
       {"/home/one.txt", "/two.txt", "/home/big/f0000", "/home/big/f0001", "/home/big/f0002"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const uint64_t saved_limit = Settings.max_block_size;
    const uint64_t found = ObjectsFound;
    Settings.max_block_size = 1;  // every directory with files is split
    ObjectNode* root = NewRoot();
    for (const char* name : c.top) AppendFile(root, name, 0100644, 3, NoTime);
    ObjectNode* home = AppendDirectory(root, "/home", 0040755, 0, NoTime);
    ObjectNode* big = AppendDirectory(home, "/big", 0040755, 0, NoTime);
    std::vector<std::string> expected;
    for (const char* name : c.top)
      if (ClassifyPath(name) == OBJECT_KIND_IFS) expected.push_back(name);
    for (int i = 0; i < c.files; i++) {
      char name[16];
      snprintf(name, sizeof name, "/f%04d", i);
      AppendFile(big, name, 0100644, 10, NoTime);
      expected.push_back(std::string("/home/big") + name);
    }
    ObjectNode** kinds = BuildBackupList(root);
    ASSERT_NE(kinds, nullptr);
    const std::vector<std::string> units = UnitPaths(kinds[OBJECT_KIND_IFS]);
    EXPECT_EQ(units, expected);
    EXPECT_EQ(std::vector<std::string>(units.begin(), units.begin() + static_cast<long>(
                                           std::min(units.size(), c.first_units.size()))),
              c.first_units);
    EXPECT_EQ(Records(kinds[OBJECT_KIND_IFS]), c.ifs_records);
    EXPECT_EQ(kinds[OBJECT_KIND_IFS]->count, expected.size());
    EXPECT_EQ(kinds[OBJECT_KIND_IFS]->size, 3 * (expected.size() - c.files) + 10u * c.files);
    EXPECT_EQ(ObjectsFound - found, expected.size() + (c.top.size() - (expected.size() - c.files)));
    FreeBackupList(kinds);
    Settings.max_block_size = saved_limit;
    FreeTree(root);
  }
}

}  // namespace
