// The listing parser on real listing lines: modes, sizes, both date forms,
// names, links, garbage, chunk boundaries, and what is kept or dropped.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "backup.h"
#include "test_helpers.h"
#include "vondral.h"

namespace {

using namespace std::string_literals;

struct ListingTest : ::testing::Test {
  ObjectNode* root = nullptr;
  ObjectNode* dir = nullptr;
  std::unique_ptr<ListingContext> context = std::make_unique<ListingContext>();
  FILE* exclude = nullptr;

  void SetUp() override {
    root = NewDirectoryNode(nullptr, "", 0, 0, tm{});
    dir = AppendDirectory(root, "/home", S_IFDIR | 0755, 0, tm{});
    context->path = context->path_buffer;
    CopyBounded(context->path, PathBufferSize, "/home");
    context->directory = dir;
  }
  void TearDown() override {
    FreeTree(root);
    Settings.exclude = nullptr;
    Settings.cutoff_flag = 0;
    Settings.cutoff_time = 0;
    if (exclude) fclose(exclude);
  }
  int Feed(const std::string& text) {
    return ParseListingChunk(context.get(), text.data(), static_cast<int>(text.size()));
  }
  ObjectFile* OnlyFile() {
    EXPECT_NE(dir->first_file, nullptr);
    EXPECT_EQ(dir->first_file, dir->last_file);
    return dir->first_file;
  }
};

struct ModeCase {
  const char* text;
  uint32_t mode;
};

TEST_F(ListingTest, PermissionLettersMapAsTabled) {
  const ModeCase cases[] = {
      {"drwxr-xr-x", S_IFDIR | 0400 | 0200 | 0100 | 0020 | 0010 | 0002 | 0001},
      {"-rw-r-----", S_IFREG | 0400 | 0200 | 0020},
      {"-----w----", S_IFREG | 0020},  // group write adds 020 like group read
      {"--------w-", S_IFREG | 0002},  // other write adds 002 like other read
      {"---s--s--s", S_IFREG | 04100 | 02010 | 01001},
      {"lrwxrwxrwx", S_IFREG | 0700 | 0030 | 0003},  // links are saved as files
      {"----------", S_IFREG},
  };
  for (const ModeCase& c : cases) {
    TearDown();
    SetUp();
    std::string line = std::string(c.text) + "   1 QSYS     0   10 Jan  2  2009 f\r\n";
    EXPECT_EQ(Feed(line), 0) << c.text;
    uint32_t mode = S_ISDIR(c.mode) ? dir->last_dir->mode : dir->last_file->mode;
    EXPECT_EQ(mode, c.mode) << c.text;
  }
}

TEST_F(ListingTest, DirectoryLineGivesDirectoryWithSizeAndRecentTime) {
  time_t now = time(nullptr);
  struct tm today{};
  localtime_r(&now, &today);
  char month[8];
  strftime(month, sizeof month, "%b", &today);
  std::string line = "drwxr-xr-x   2 QSYS     0           8192 " + std::string(month) + "  5 14:07 DIR\r\n";
  EXPECT_EQ(Feed(line), 0);
  ObjectNode* d = dir->last_dir;
  ASSERT_NE(d, nullptr);
  EXPECT_STREQ(d->name, "/DIR");
  EXPECT_EQ(d->size, 8192u);
  EXPECT_EQ(d->mtime.tm_year, today.tm_year);  // same month: this year
  EXPECT_EQ(d->mtime.tm_mon, today.tm_mon);
  EXPECT_EQ(d->mtime.tm_mday, 5);
  EXPECT_EQ(d->mtime.tm_hour, 14);
  EXPECT_EQ(d->mtime.tm_min, 7);
  EXPECT_EQ(context->found, 1);
}

TEST_F(ListingTest, TimeOfAMonthStillToComeIsLastYear) {
  time_t now = time(nullptr);
  struct tm today{};
  localtime_r(&now, &today);
  if (today.tm_mon == 11) GTEST_SKIP() << "no month after December";
  struct tm later = today;
  later.tm_mon += 1;
  char month[8];
  strftime(month, sizeof month, "%b", &later);
  EXPECT_EQ(Feed("-rw-r--r--   1 A B 1 " + std::string(month) + " 28 09:15 late\r\n"), 0);
  EXPECT_EQ(OnlyFile()->mtime.tm_year, today.tm_year - 1);
}

TEST_F(ListingTest, YearFormHasMidnight) {
  EXPECT_EQ(Feed("-rw-r--r--   1 A        B             10 Jan  2  2009 x\r\n"), 0);
  ObjectFile* f = OnlyFile();
  EXPECT_STREQ(f->name, "/x");
  EXPECT_EQ(f->size, 10u);
  EXPECT_EQ(f->mtime.tm_year, 109);
  EXPECT_EQ(f->mtime.tm_mon, 0);
  EXPECT_EQ(f->mtime.tm_mday, 2);
  EXPECT_EQ(f->mtime.tm_hour, 0);
  EXPECT_EQ(dir->size, 10u);  // rolled up
  EXPECT_EQ(dir->count, 1u);
}

TEST_F(ListingTest, NamesLinksBlanksAndLeftovers) {
  StderrCapture err;
  EXPECT_EQ(Feed("lrwxrwxrwx   1 A B 3 Jan  2  2009 l -> t\r\n"
                 "-rw-r--r--   1 A B 3 Jan  2  2009 a b  \r\n"
                 "-rw-r--r--   1 A B 3 Jan  2  2009 bare\n"
                 "lrwxrwxrwx   1 A B 3 Jan  2  2009 m -> x y\r\n"),
            0);
  std::string names;
  for (ObjectFile* f = dir->first_file; f; f = f->next) names += std::string(f->name) + "|";
  EXPECT_EQ(names, "/l|/a b  |/bar|/m|");
  std::string text = err.Text();
  EXPECT_EQ(text.find("leftover t"), std::string::npos) << text;
  EXPECT_NE(text.find("]: leftover e\n"), std::string::npos) << text;  // the lost last character
  EXPECT_NE(text.find("]: leftover y\r\n"), std::string::npos) << text;
  EXPECT_EQ(dir->partial, 0);  // leftovers do not fail the line
}

TEST_F(ListingTest, GarbageLinesCountAsErrorsAndMarkTheDirectoryPartial) {
  StderrCapture err;
  EXPECT_EQ(Feed("total 12\r\n"
                 "-rw-r--r--   1 A B 3 Foo  2  2009 f\r\n"
                 "-rw-r--r--   1 A B 3 Jan  2 xx:yy g\r\n"
                 "-rw-r--r--   1 A B 3 Jan  2 year h\r\n"
                 "-rw-r--r--   1 A B 3 Jan  2  2009 good\r\n"
                 "\x01\x02\x03 junk with a NUL\0 inside\r\n"s),
            5);
  EXPECT_EQ(dir->partial, 1);
  EXPECT_EQ(root->partial, 1);
  ASSERT_NE(dir->first_file, nullptr);
  EXPECT_STREQ(dir->first_file->name, "/good");
  std::string text = err.Text();
  EXPECT_NE(text.find("]: can't parse date: total 12"), std::string::npos) << text;
  EXPECT_NE(text.find("]: can't parse time: "), std::string::npos) << text;
  EXPECT_NE(text.find("]: can't parse year: "), std::string::npos) << text;
}

TEST_F(ListingTest, OverLongLineIsAParseErrorAndTheNextLineStillCounts) {
  StderrCapture err;
  std::string line = "-rw-r--r--   1 A B 3 Jan  2  2009 " + std::string(5000, 'n') + "\r\n";
  EXPECT_EQ(Feed(line + "-rw-r--r--   1 A B 3 Jan  2  2009 ok\r\n"), 1);
  ASSERT_NE(dir->first_file, nullptr);
  EXPECT_STREQ(dir->first_file->name, "/ok");
  EXPECT_NE(err.Text().find("listing line too long"), std::string::npos);
}

TEST_F(ListingTest, LineSplitAcrossTwoChunksIsParsedOnceAndAcrossThreeLosesItsStart) {
  std::string line = "-rw-r--r--   1 A B 3 Jan  2  2009 split-name\r\n";
  EXPECT_EQ(Feed(line.substr(0, 20)), 0);
  EXPECT_EQ(Feed(line.substr(20)), 0);
  ASSERT_NE(dir->first_file, nullptr);
  EXPECT_STREQ(dir->first_file->name, "/split-name");
  EXPECT_EQ(dir->count, 1u);
  // Three pieces: the middle one replaces what was carried.
  StderrCapture err;
  EXPECT_EQ(Feed(line.substr(0, 10)), 0);
  EXPECT_EQ(Feed(line.substr(10, 10)), 0);
  EXPECT_EQ(Feed(line.substr(20)), 1);
  EXPECT_EQ(dir->count, 1u);
}

TEST_F(ListingTest, ExclusionMarksPartialButTheDateCutOffDoesNot) {
  exclude = StreamWith("/home/secret\n");
  Settings.exclude = exclude;
  EXPECT_EQ(Feed("-rw-r--r--   1 A B 3 Jan  2  2009 secret\r\n"), 0);
  EXPECT_EQ(dir->first_file, nullptr);
  EXPECT_EQ(dir->partial, 1);
  EXPECT_STREQ(context->path, "/home");  // cut back after the question

  TearDown();
  exclude = nullptr;
  SetUp();
  Settings.cutoff_flag = 1;
  Settings.cutoff_time = 1262304000;  // 2010-01-01
  EXPECT_EQ(Feed("-rw-r--r--   1 A B 3 Jan  2  2009 old\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 olddir\r\n"
                 "-rw-r--r--   1 A B 3 Jan  2  2019 new\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 OLD.LIB\r\n"),
            0);
  std::string names;
  for (ObjectFile* f = dir->first_file; f; f = f->next) names += std::string(f->name) + "|";
  EXPECT_EQ(names, "/new|/OLD.LIB|");  // libraries are never dropped by the date
  ASSERT_NE(dir->first_dir, nullptr);
  EXPECT_STREQ(dir->first_dir->name, "/olddir");
  EXPECT_EQ(dir->partial, 0);
}

TEST_F(ListingTest, TopLevelExcludeLinesNameRootEntries) {
  CopyBounded(context->path, PathBufferSize, "/");
  dir = root;
  RenameNode(root, "/");
  context->directory = root;
  exclude = StreamWith("/tmp\n");
  Settings.exclude = exclude;
  EXPECT_EQ(Feed("drwxr-xr-x   1 A B 3 Jan  2  2009 tmp\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 QSYS.LIB\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 QDLS\r\n"),
            0);
  ASSERT_NE(root->last_dir, nullptr);
  EXPECT_STREQ(root->last_dir->name, "/QSYS.LIB");
  EXPECT_EQ(root->last_dir->partial, 1);  // the library directory is never one unit
  ASSERT_NE(root->first_file, nullptr);
  EXPECT_STREQ(root->first_file->name, "/QDLS");  // the document library is one object
}

TEST_F(ListingTest, LibraryDirectoryKeepsOnlyLibraries) {
  ObjectNode* qsys = AppendDirectory(root, "/QSYS.LIB", S_IFDIR, 0, tm{});
  context->directory = qsys;
  CopyBounded(context->path, PathBufferSize, "/QSYS.LIB");
  EXPECT_EQ(Feed("drwxr-xr-x   1 A B 3 Jan  2  2009 PAY.LIB\r\n"
                 "-rw-r--r--   1 A B 3 Jan  2  2009 JOE.USRPRF\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 QSYS.LIB\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 X.LIBRARY\r\n"),
            0);
  ASSERT_NE(qsys->first_file, nullptr);
  EXPECT_STREQ(qsys->first_file->name, "/PAY.LIB");
  EXPECT_EQ(qsys->first_file, qsys->last_file);
  EXPECT_EQ(qsys->first_dir, nullptr);
  // With --date a library becomes a directory, so its contents are dated.
  Settings.cutoff_flag = 1;
  EXPECT_EQ(Feed("drwxr-xr-x   1 A B 3 Jan  2  2009 NEW.LIB\r\n"), 0);
  ASSERT_NE(qsys->first_dir, nullptr);
  EXPECT_STREQ(qsys->first_dir->name, "/NEW.LIB");
}

TEST_F(ListingTest, IncludePatternTakesMatchingEntriesUnderFullNames) {
  RenameNode(root, "/QSYS.LIB/AB*.LIB");
  context->directory = root;
  CopyBounded(context->path, PathBufferSize, "/QSYS.LIB");
  EXPECT_EQ(Feed("drwxr-xr-x   1 A B 3 Jan  2  2009 ABC.LIB\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 XYZ.LIB\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 AB.LIB\r\n"),
            0);
  std::string names;
  for (ObjectFile* f = root->first_file; f; f = f->next) names += std::string(f->name) + "|";
  EXPECT_EQ(names, "/QSYS.LIB/ABC.LIB|/QSYS.LIB/AB.LIB|");
}

TEST_F(ListingTest, CallbackCountsFailuresWithoutAbortingTheTransfer) {
  std::string chunk = "garbage\r\n-rw-r--r--   1 A B 3 Jan  2  2009 f\r\n";
  int count = static_cast<int>(chunk.size());
  StderrCapture err;
  EXPECT_EQ(ListingCallback(context.get(), chunk.data(), &count), 0);
  EXPECT_EQ(context->errors, 1);
  EXPECT_EQ(ListingCallback(nullptr, chunk.data(), &count), -1);
  EXPECT_NE(err.Text().find("bad argument"), std::string::npos);
}

}  // namespace
