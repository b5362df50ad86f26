// The backup list: which kind a path is, and the per-kind trees sorted from
// the include tree, freed without harm to it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "backup/backup_list.h"
#include "object_tree_helpers.h"
#include "cli/settings.h"

namespace {

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
  EXPECT_EQ(FileNames(kinds[OBJECT_KIND_IFS]), (std::vector<std::string>{"/home/a/x", "/home/a/y"}));
  EXPECT_EQ(FileNames(kinds[OBJECT_KIND_LIBRARY]),
            (std::vector<std::string>{"/QSYS.LIB/ONE.LIB", "/QSYS.LIB/TWO.LIB"}));
  EXPECT_EQ(kinds[OBJECT_KIND_IFS]->count, 4u);
  FreeBackupList(kinds);
  Settings.max_block_size = saved_limit;

  // The include tree is still whole after its copies are gone.
  EXPECT_EQ(Dump(root, true),
            "/home/a/x\n/home/a/y\n/home/b/w\n/home/c/v\n/QSYS.LIB/ONE.LIB\n/QSYS.LIB/TWO.LIB\n");
  FreeTree(root);
}

}  // namespace
