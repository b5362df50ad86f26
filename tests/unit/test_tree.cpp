// Object tree: classification, roll-up, adoption into per-kind trees and the
// freeing rules that keep the source tree alive, catalog order, tree text.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "backup/backup.h"
#include "test_helpers.h"
#include "cli/settings.h"

namespace {

const struct tm NoTime{};

ObjectNode* NewRoot(const char* name = "") { return NewDirectoryNode(nullptr, name, 0, 0, NoTime); }

std::vector<std::string> FileNames(const ObjectNode* dir) {
  std::vector<std::string> names;
  for (const ObjectFile* f = dir->first_file; f; f = f->next) names.push_back(f->name);
  return names;
}

std::string Dump(const ObjectNode* dir, bool full) {
  CapturedStream out;
  EXPECT_EQ(DumpTree(out.stream, dir, full), 0);
  return out.Text();
}

TEST(TreeClassify, PathsFallIntoTheirKindsByExactRules) {
  EXPECT_EQ(ObjectKindCount(), 4);
  EXPECT_EQ(ClassifyPath("/Security Data"), OBJECT_KIND_SYSTEM);
  EXPECT_EQ(ClassifyPath("/System Configuration"), OBJECT_KIND_SYSTEM);
  EXPECT_EQ(ClassifyPath("/Security Data/x"), OBJECT_KIND_IFS);
  EXPECT_EQ(ClassifyPath("/QDLS"), OBJECT_KIND_QDLS);
  EXPECT_EQ(ClassifyPath("/QDLS/FOLDER"), OBJECT_KIND_IFS);
  EXPECT_EQ(ClassifyPath("/QSYS.LIB/A.LIB"), OBJECT_KIND_LIBRARY);
  EXPECT_EQ(ClassifyPath("/QSYS.LIB"), OBJECT_KIND_IFS);
  EXPECT_EQ(ClassifyPath("/qsys.lib/A.LIB"), OBJECT_KIND_IFS);
}

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

  CapturedStream out;
  EXPECT_EQ(PrintFilePath(out.stream, file), 0);
  EXPECT_EQ(out.Text(), "/home/user/notes.txt\n");  // catalog lines carry no log prefix
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
  ReleaseName(copy);  // a borrowed node keeps its name
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

TEST(TreeDump, SubdirectoryFilesComeBeforeTheDirectorysOwnFiles) {
  ObjectNode* root = NewRoot();
  ObjectNode* d = AppendDirectory(root, "/D", 0, 0, NoTime);
  AppendFile(d, "/f", 0, 0, NoTime);
  ObjectNode* s = AppendDirectory(d, "/S", 0, 0, NoTime);
  AppendFile(s, "/g", 0, 0, NoTime);
  AppendFile(d, "/h", 0, 0, NoTime);
  ObjectNode* t = AppendDirectory(d, "/T", 0, 0, NoTime);
  AppendFile(t, "/i", 0, 0, NoTime);
  EXPECT_EQ(Dump(d, true), "/D/S/g\n/D/T/i\n/D/f\n/D/h\n");
  EXPECT_EQ(Dump(s, true), "/D/S/g\n");
  // Without full the paths start at the directory's own name.
  ObjectNode* top = NewRoot("/top");
  AppendFile(AppendDirectory(top, "/mid", 0, 0, NoTime), "/m", 0, 0, NoTime);
  EXPECT_EQ(Dump(top->first_dir, false), "/mid/m\n");
  FreeTree(top);
  FreeTree(root);
}

TEST(TreeDump, PathsLongerThanTheFirstBufferStayWhole) {
  // A starting path of about 1450 characters and 1600 more below it.
  ObjectNode* root = NewRoot();
  ObjectNode* dir = root;
  std::string path;
  ObjectNode* start = nullptr;
  for (int i = 0; i < 16; i++) {
    std::string name = "/" + std::string(i < 8 ? 180 : 200, static_cast<char>('a' + i));
    dir = AppendDirectory(dir, name.c_str(), 0, 0, NoTime);
    path += name;
    if (i == 7) start = dir;
  }
  AppendFile(dir, "/leaf", 0, 0, NoTime);
  AppendFile(start, "/top", 0, 0, NoTime);
  EXPECT_EQ(Dump(start, true), path + "/leaf\n" + path.substr(0, 8 * 181) + "/top\n");
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

namespace {

std::vector<std::string> DirectoryNames(const ObjectNode* dir) {
  std::vector<std::string> names;
  for (const ObjectNode* d = dir->first_dir; d; d = d->next) names.push_back(d->name);
  return names;
}

}  // namespace

// A backup list holds, per kind, chains of several adopted copies and of
// library entries made for it. Freeing it must free every one of them (the
// AddressSanitizer build of these tests reports a leak otherwise) and leave
// the include tree, whose children the copies share, whole.
TEST(TreeBackupList, EveryPlacedCopyIsFreedAndTheIncludeTreeSurvives) {
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
