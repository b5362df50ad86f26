// Object tree: roll-up, paths, adoption into per-kind trees and the
// freeing rules that keep the source tree alive, tree text.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "backup/object_tree.h"
#include "object_tree_helpers.h"
#include "test_helpers.h"
#include "cli/settings.h"

namespace {

TEST(TreeRollUp, SizesAndCountsReachEveryAncestorButNoSibling) {
  ObjectNode* root = NewRoot();
  ObjectNode* a = AppendDirectory(root, "/a", 0040000, 0, NoTime);
  ObjectNode* b = AppendDirectory(a, "/b", 0040000, 0, NoTime);
  ObjectNode* c = AppendDirectory(b, "/c", 0040000, 0, NoTime);
  ObjectNode* sibling = AppendDirectory(root, "/s", 0040000, 0, NoTime);
  EXPECT_EQ(root->first_dir, a);
  EXPECT_EQ(a->next, sibling);
  EXPECT_EQ(root->last_dir, sibling);

  AppendFile(c, "/f", 0100644, 10, NoTime);
  AppendFile(c, "/g", 0100644, 0, NoTime);
  EXPECT_EQ(FileNames(c), (std::vector<std::string>{"/f", "/g"}));
  for (ObjectNode* n : {c, b, a, root}) {
    EXPECT_EQ(n->size, 10u) << n->name;
    EXPECT_EQ(n->count, 2u) << n->name;
  }
  // A directory's own size goes to its ancestors, but it is not counted.
  ObjectNode* d = AppendDirectory(c, "/d", 0040000, 4, NoTime);
  EXPECT_EQ(d->size, 4u);
  for (ObjectNode* n : {c, b, a, root}) {
    EXPECT_EQ(n->size, 14u) << n->name;
    EXPECT_EQ(n->count, 2u) << n->name;
  }
  EXPECT_EQ(sibling->size, 0u);

  MarkPartial(b);
  EXPECT_TRUE(b->partial && a->partial && root->partial);
  EXPECT_FALSE(c->partial || sibling->partial);
  FreeTree(root);
}

TEST(TreePaths, PathsConcatenateNamesAndAreCutToTheBuffer) {
  ObjectNode* root = NewRoot("/home");
  ObjectNode* user = AppendDirectory(root, "/user", 0, 0, NoTime);
  ObjectFile* file = AppendFile(user, "/notes.txt", 0, 0, NoTime);
  char buffer[64] = "left over";
  EXPECT_EQ(DirectoryPath(user, true, buffer, sizeof buffer), 11u);
  EXPECT_STREQ(buffer, "/home/user\n");
  EXPECT_EQ(FilePath(file, true, buffer, sizeof buffer), 21u);
  EXPECT_STREQ(buffer, "/home/user/notes.txt\n");
  char small[9];
  EXPECT_EQ(FilePath(file, false, small, sizeof small), 20u);  // >= capacity: cut
  EXPECT_STREQ(small, "/home/us");
  FreeTree(root);
}

// Source tree of the adoption tests: /home with /a (files /x 60 and /y 30,
// directory /deep with /z 10) and /b (file /w 5).
struct SourceTree {
  ObjectNode* root = NewRoot("/home");
  ObjectNode* a = AppendDirectory(root, "/a", 0040755, 0, NoTime);
  ObjectNode* b = AppendDirectory(root, "/b", 0040755, 0, NoTime);
  ObjectNode* deep = AppendDirectory(a, "/deep", 0040755, 0, NoTime);
  SourceTree() {
    AppendFile(a, "/x", 0100644, 60, NoTime);
    AppendFile(a, "/y", 0100644, 30, NoTime);
    AppendFile(deep, "/z", 0100644, 10, NoTime);
    AppendFile(b, "/w", 0100644, 5, NoTime);
  }
  ~SourceTree() { FreeTree(root); }
};

TEST(TreeAdopt, CopiesCarryFullPathsCountsAndTheBorrowedFlag) {
  SourceTree src;
  ObjectNode* kind = NewRoot();
  ObjectNode* copy = AdoptDirectory(kind, src.a);
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy->name, "/home/a");
  EXPECT_TRUE(copy->borrowed);
  EXPECT_EQ(copy->parent, kind);
  EXPECT_EQ(copy->next, nullptr);  // not the source's sibling /b
  EXPECT_EQ(copy->first_file, src.a->first_file);
  EXPECT_EQ(kind->size, 100u);
  EXPECT_EQ(kind->count, 3u);
  SkipInWalk(copy);  // a borrowed node keeps its name
  EXPECT_STREQ(copy->name, "/home/a");
  EXPECT_EQ(Dump(copy, true), "/home/a/deep/z\n/home/a/x\n/home/a/y\n");

  ObjectFile* file = AdoptFile(kind, src.b->first_file);
  ASSERT_NE(file, nullptr);
  EXPECT_STREQ(file->name, "/home/b/w");
  EXPECT_TRUE(file->borrowed);
  EXPECT_EQ(kind->size, 105u);
  EXPECT_EQ(kind->count, 4u);
  ObjectNode* second = AdoptDirectory(kind, src.b);
  EXPECT_EQ(copy->next, second);
  EXPECT_EQ(kind->count, 5u);
  EXPECT_EQ(src.a->next, src.b);  // adoption leaves the source tree alone

  // Freeing the kind tree must free only the copies; AddressSanitizer
  // reports any later use of a source record that was freed with them.
  FreeTree(kind);
  EXPECT_STREQ(src.a->first_file->name, "/x");
  EXPECT_STREQ(src.deep->first_file->name, "/z");
  EXPECT_STREQ(src.b->first_file->name, "/w");
  // The first borrowed copy ended the freeing of the root's directory
  // chain, so the second copy is still there for its owner to free.
  EXPECT_STREQ(second->name, "/home/b");
  FreeTree(second);
}

TEST(TreeFree, ABorrowedFileEndsTheFreeingOfItsList) {
  ObjectFile* first = NewFileNode(nullptr, "/1", 0, 0, NoTime);
  ObjectFile* lent = NewFileNode(nullptr, "/2", 0, 0, NoTime);
  ObjectFile* third = NewFileNode(nullptr, "/3", 0, 0, NoTime);
  first->next = lent;
  lent->borrowed = 1;
  lent->next = third;
  FreeFileList(first);
  EXPECT_STREQ(third->name, "/3");
  FreeFileList(third);
}

TEST(TreeSkip, AnOwnNodeLosesItsNameSoThatWalksPassItBy) {
  ObjectNode* root = NewRoot("/home");
  ObjectNode* dir = AppendDirectory(root, "/locked", 0040755, 0, NoTime);
  AppendFile(dir, "/inside", 0100644, 3, NoTime);
  SkipInWalk(dir);
  EXPECT_EQ(dir->name, nullptr);
  EXPECT_EQ(root->first_dir, dir);  // still in the tree, sizes and counts as they were
  EXPECT_EQ(root->count, 1u);
  SkipInWalk(nullptr);  // harmless
  FreeTree(root);
}

int Read(ObjectNode* root, const std::string& text) {
  FILE* in = StreamWith(text);
  char line[TreeLineSize];
  int result = ReadTree(in, root, line);
  fclose(in);
  return result;
}

TEST(TreeRead, TheFourLineExampleBuildsOneDirectoryWithOneFile) {
  ObjectNode* root = NewRoot();
  EXPECT_EQ(Read(root, ">A\n+x\n<\n<\n"), 0);
  ObjectNode* a = root->first_dir;
  ASSERT_NE(a, nullptr);
  EXPECT_STREQ(a->name, "A");
  EXPECT_EQ(FileNames(a), std::vector<std::string>{"x"});
  EXPECT_EQ(root->first_file, nullptr);
  EXPECT_EQ(root->size, 2u);
  EXPECT_EQ(root->count, 1u);
  EXPECT_EQ(a->size, 2u);
  EXPECT_EQ(a->count, 1u);
  FreeTree(root);
}

TEST(TreeRead, OnlyTheOutermostLevelReportsAFailure) {
  ObjectNode* root = NewRoot();
  EXPECT_EQ(Read(root, ">A\n+x\n<\n"), -1);  // the root's "<" is missing
  EXPECT_EQ(FileNames(root->first_dir), std::vector<std::string>{"x"});
  FreeTree(root);

  // A bad line ends the inner level; the outer one reads on, so "+y" lands
  // in the root and the final "<" makes the whole read succeed.
  root = NewRoot();
  EXPECT_EQ(Read(root, ">A\n+x\n?\n+y\n<\n"), 0);
  EXPECT_EQ(FileNames(root->first_dir), std::vector<std::string>{"x"});
  EXPECT_EQ(FileNames(root), std::vector<std::string>{"y"});
  FreeTree(root);

  root = NewRoot();
  EXPECT_EQ(Read(root, "+x\n*\n<\n"), -1);
  FreeTree(root);
}

}  // namespace
