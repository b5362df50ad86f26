// The catalog: a saved file's line, and the lines of a directory saved
// whole in their order, with paths of any length.
#include <gtest/gtest.h>

#include <string>

#include "backup/catalog.h"
#include "object_tree_helpers.h"
#include "test_helpers.h"

namespace {

TEST(CatalogLine, AFileIsOneLineWithItsFullPathAndNoLogPrefix) {
  ObjectNode* root = NewRoot("/home");
  ObjectNode* user = AppendDirectory(root, "/user", 0, 0, NoTime);
  ObjectFile* file = AppendFile(user, "/notes.txt", 0, 0, NoTime);
  CapturedStream out;
  EXPECT_EQ(PrintFilePath(out.stream, file), 0);
  EXPECT_EQ(out.Text(), "/home/user/notes.txt\n");
  FreeTree(root);
}

TEST(CatalogDump, SubdirectoryFilesComeBeforeTheDirectorysOwnFiles) {
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

TEST(CatalogDump, PathsLongerThanTheFirstBufferStayWhole) {
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

}  // namespace
