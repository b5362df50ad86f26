// The listing parser. Its reading of a line is held to a second reading
// made of the library calls alone (every date in both forms, the edge cases
// of every field, random lines); the cases here besides are what that
// reading cannot show: messages, chunk boundaries, and what is kept or
// dropped where in the tree.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "../common/listing_reference.h"
#include "backup/backup.h"
#include "test_helpers.h"
#include "cli/list_mode.h"
#include "cli/settings.h"
#include "support/text.h"

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
  std::string FileNames(const ObjectNode* node) const {
    std::string names;
    for (const ObjectFile* f = node->first_file; f; f = f->next) names += std::string(f->name) + "|";
    return names;
  }

  // Feeds one line (without its line end) and holds the outcome to the
  // reference reading: the same entry in the same place, or the same
  // message and nothing placed. One capture serves all lines (a file per
  // line would cost more than the parsing); only this line's part is read.
  CapturedStream messages_file;
  uint64_t lines_checked = 0;
  void ExpectAsReference(const std::string& text) {
    lines_checked++;
    struct tm today{};
    const time_t now = time(nullptr);
    localtime_r(&now, &today);
    const listing_reference::Entry want = listing_reference::Read(text.c_str(), today);
    ObjectNode* const last_dir = dir->last_dir;
    ObjectFile* const last_file = dir->last_file;
    FILE* const saved = stderr;
    stderr = messages_file.stream;
    const long start = ftell(messages_file.stream);
    const int errors = Feed(text + "\n");
    stderr = saved;
    fflush(messages_file.stream);
    fseek(messages_file.stream, start, SEEK_SET);
    std::string messages;
    char piece[4096];
    for (size_t n; (n = fread(piece, 1, sizeof piece, messages_file.stream)) > 0;) messages.append(piece, n);
    SCOPED_TRACE(text + "\n" + messages);
    if (!want.ok) {
      EXPECT_EQ(errors, 1);
      EXPECT_NE(messages.find("]: " + want.failure + ": "), std::string::npos);
    } else {
      ASSERT_EQ(errors, 0);
    }
    // Names that would walk in circles are dropped after parsing.
    if (!want.ok || want.name == "/" || want.name == "/." || want.name == "/..") {
      EXPECT_EQ(dir->last_dir, last_dir);
      EXPECT_EQ(dir->last_file, last_file);
      return;
    }
    struct Placed {
      const char* name;
      uint32_t mode;
      uint64_t size;
      struct tm mtime;
    } got;
    if (S_ISDIR(want.mode)) {
      ASSERT_NE(dir->last_dir, last_dir);
      got = {dir->last_dir->name, dir->last_dir->mode, dir->last_dir->size, dir->last_dir->mtime};
    } else {
      ASSERT_NE(dir->last_file, last_file);
      got = {dir->last_file->name, dir->last_file->mode, dir->last_file->size, dir->last_file->mtime};
    }
    EXPECT_EQ(want.name, got.name);
    EXPECT_EQ(want.mode, got.mode);
    EXPECT_EQ(want.size, got.size);
    const char* differs = listing_reference::TimeDifference(want.mtime, got.mtime);
    EXPECT_EQ(differs, nullptr) << differs;
  }
};

const char* const MonthTexts[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct",
                                  "Nov", "Dec", "JAN", "feb", "mAr", "June", "July", "January",
                                  "September", "Sept", "Foo", "Ja", "J", "", "12", "Dez", "May."};

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

// Every day of every month (and days no month has), in the recent form and
// with years around the limits of the hand-written reading.
TEST_F(ListingTest, EveryDateReadsAsTheLibraryReadsIt) {
  for (int month = 0; month < 12; month++) {
    for (int day = 0; day <= 32; day++) {
      for (const char* when : {"00:00", "09:05", "14:07", "23:59", " 2009", " 2000", " 1900", " 2024",
                               " 1999", " 2100", " 9999", " 1000", " 0999", " 1970"}) {
        char line[128];
        snprintf(line, sizeof line, "-rw-r--r--   1 QSYS     0          4096 %s %2d %s f%d.dat\r",
                 MonthTexts[month], day, when, day);
        ExpectAsReference(line);
      }
    }
  }
  EXPECT_GT(lines_checked, 5000u);
}

TEST_F(ListingTest, EdgeCasesOfEveryFieldReadAsTheLibraryReadsThem) {
  const char* const lines[] = {
      "drwxrwsrwx   2 QSYS     0           8192 Mar  5 14:07 DIR\r",
      "-rw-r--r--   1 A B 10 Jan  2  2009 x\r",
      "lrwxrwxrwx   1 A B 3 Jan  2  2009 l -> t\r",
      "-rw-r--r--   1 A B 3 Jan  2  2009 bare",
      "-rw-r--r--   1 A B 3 Jan 02 2009 zero-padded day\r",
      "-rw-r--r--   1 A B 3 Jan 002 2009 three-digit day\r",
      "-rw-r--r--   1 A B 3 Jan 45 2009 day of 4 then 5\r",
      "-rw-r--r--   1 A B 3 Jan 31 2009 x\r",
      "-rw-r--r--   1 A B 3 Feb 31 2009 beyond the month\r",
      "-rw-r--r--   1 A B 3 Feb 29 2023 not a leap year\r",
      "-rw-r--r--   1 A B 3 Feb 29 2024 a leap year\r",
      "-rw-r--r--   1 A B 3 Jan  2 24:00 hour 24\r",
      "-rw-r--r--   1 A B 3 Jan  2 23:60 minute 60\r",
      "-rw-r--r--   1 A B 3 Jan  2 9:05 one-digit hour\r",
      "-rw-r--r--   1 A B 3 Jan  2 09:5 one-digit minute\r",
      "-rw-r--r--   1 A B 3 Jan  2 30:00 hour 30\r",
      "-rw-r--r--   1 A B 3 Jan  2 12:345 three-digit minute\r",
      "-rw-r--r--   1 A B 3 Jan  2 12: 5 blank minute\r",
      "-rw-r--r--   1 A B 3 Jan  2 20090 five-digit year\r",
      "-rw-r--r--   1 A B 3 Jan  2 209 three-digit year\r",
      "-rw-r--r--   1 A B 3 Jan  2 0 year zero\r",
      "-rw-r--r--   1 A B 3 Jan  2 0000 year 0000\r",
      "-rw-r--r--   1 A B 3 Jan  2 -2009 negative year\r",
      "-rw-r--r--   1 A B 3 Jan  2 2009x glued\r",
      "-rw-r--r--   1 A B 3 Jan  2\r",
      "-rw-r--r--   1 A B 3 Jan\r",
      "-rw-r--r--   1 A B 3 January 2 2009 full month\r",
      "-rw-r--r--   1 A B 3 Janx 2 2009 glued month\r",
      "-rw-r--r--   1 A B 3 Jan\t2\t2009\ttabs\r",
      "-rw-r--r--   1 A B 3 Jan\v2\f2009 other blanks\r",
      "-rw-r--r--   1 A B +10 Jan  2  2009 plus\r",
      "-rw-r--r--   1 A B -10 Jan  2  2009 minus\r",
      "-rw-r--r--   1 A B 18446744073709551615 Jan  2  2009 largest\r",
      "-rw-r--r--   1 A B 18446744073709551616 Jan  2  2009 overflow\r",
      "-rw-r--r--   1 A B 99999999999999999999999 Jan  2  2009 far overflow\r",
      "-rw-r--r--   1 A B 9999999999999999999 Jan  2  2009 nineteen digits\r",
      "-rw-r--r--   1 A B 0x10 Jan  2  2009 hex\r",
      "-rw-r--r--   1 A B 12abc Jan  2  2009 glued size\r",
      "-rw-r--r--   1 A B abc Jan  2  2009 no size\r",
      "-rw-r--r--   1 A B 007 Jan  2  2009 leading zeros\r",
      "-rw-r--r--   1 A B  Jan  2  2009 missing size\r",
      "total 12\r",
      "",
      "\r",
      "drwx",
      "-rw-r--r--",
      "-rw-r--r--1 A B 3 Jan  2  2009 glued mode\r",
      "-rw-r--r--   1 A B 3 Jan  2  2009 \r",
      "-rw-r--r--   1 A B 3 Jan  2  2009 .\r",
      "drwxr-xr-x   1 A B 3 Jan  2  2009 ..\r",
      "-rw-r--r--   1 A B 3 Jan  2  2009  x  \r",
      "-rw-r--r--   1 A B 3 Jan  2  2009 a -> b -> c\r",
      "-rw-r--r--   1 A B 3 Jan  2  2009 -> x\r",
      "-rw-r--r--   1 A B 3 Jan  2  2009 caf\xc3\xa9 \xe9t\xe9\r",
      "-rw-r--r--   1 A B 3 \xc3\xa9" "an  2  2009 high bytes in the month\r",
  };
  for (const char* line : lines) ExpectAsReference(line);
  ExpectAsReference("-rw-r--r--   1 A B 3 Jan  2  2009 " + std::string(4000, 'n') + "\r");  // a long name
}

// Lines put together at random from good and bad pieces of every field.
TEST_F(ListingTest, RandomLinesReadAsTheLibraryReadsThem) {
  std::mt19937 random(20260811);
  auto pick = [&](const std::vector<std::string>& pieces) {
    return pieces[std::uniform_int_distribution<size_t>(0, pieces.size() - 1)(random)];
  };
  const std::vector<std::string> modes = {"-rw-r--r--", "drwxrwsrwx", "lrwxrwxrwx", "---s--s--s",
                                          "-rwx", "d", "----------x", "?rw-rw-rw-"};
  const std::vector<std::string> blanks = {" ", "   ", "\t", " \t ", "", "\v"};
  const std::vector<std::string> words = {"1", "QSYS", "0", "PAYUSR", "", "12", "x y"};
  const std::vector<std::string> sizes = {"0", "8192", "4096", "123456789012", "+5", "-5", "", "x",
                                          "18446744073709551615", "184467440737095516150", "0x1f", "12k"};
  const std::vector<std::string> months(std::begin(MonthTexts), std::end(MonthTexts));
  const std::vector<std::string> days = {"1", "5", "05", "10", "29", "30", "31", "32", "0", "00", "9",
                                         "39", "123", "", "x", "3"};
  const std::vector<std::string> clocks = {"14:07", "00:00", "23:59", "24:00", "9:05", "12:60", "1:2",
                                           "12:5", "12:345", "2009", "1999", "1000", "999", "0999",
                                           "20090", "x", "", "12:", ":30", "2024", "1970", "9999"};
  const std::vector<std::string> names = {"f", "a b", "l -> t", "x -> y z", "", " ", "INVOICE_000123.PDF",
                                          "PAY.FILE", "d -> ", "-> q", "name\twith tab"};
  const std::vector<std::string> ends = {"\r", "", "\r\r", " \r", "\t"};
  for (int i = 0; i < 60000 && !HasFailure(); i++) {
    ExpectAsReference(pick(modes) + pick(blanks) + pick(words) + pick(blanks) + pick(words) +
                      pick(blanks) + pick(words) + pick(blanks) + pick(sizes) + pick(blanks) +
                      pick(months) + pick(blanks) + pick(days) + pick(blanks) + pick(clocks) +
                      pick(blanks) + pick(names) + pick(ends));
  }
}

TEST_F(ListingTest, PlacedEntriesRollUpAndMarkTheListingFound) {
  EXPECT_EQ(Feed("drwxr-xr-x   2 QSYS     0              0 Jan  2  2009 .\r\n"), 0);
  EXPECT_EQ(context->found, 0);  // a dropped name finds nothing
  EXPECT_EQ(Feed("drwxr-xr-x   2 QSYS     0           8192 Mar  5  2009 DIR\r\n"
                 "-rw-r--r--   1 A        B             10 Jan  2  2009 x\r\n"),
            0);
  EXPECT_EQ(context->found, 1);
  // Sizes reach every ancestor; only files count as objects.
  EXPECT_EQ(dir->size, 8202u);
  EXPECT_EQ(root->size, 8202u);
  EXPECT_EQ(dir->count, 1u);
  EXPECT_EQ(root->count, 1u);
}

TEST_F(ListingTest, NamesLinksBlanksAndLeftovers) {
  StderrCapture err;
  EXPECT_EQ(Feed("lrwxrwxrwx   1 A B 3 Jan  2  2009 l -> t\r\n"
                 "-rw-r--r--   1 A B 3 Jan  2  2009 a b  \r\n"
                 "-rw-r--r--   1 A B 3 Jan  2  2009 bare\n"
                 "lrwxrwxrwx   1 A B 3 Jan  2  2009 m -> x y\r\n"),
            0);
  EXPECT_EQ(FileNames(dir), "/l|/a b  |/bar|/m|");
  const std::string text = err.Text();
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
}

TEST_F(ListingTest, OverLongLineIsAParseErrorAndTheNextLineStillCounts) {
  StderrCapture err;
  std::string line = "-rw-r--r--   1 A B 3 Jan  2  2009 " + std::string(5000, 'n') + "\r\n";
  EXPECT_EQ(Feed(line + "-rw-r--r--   1 A B 3 Jan  2  2009 ok\r\n"), 1);
  ASSERT_NE(dir->first_file, nullptr);
  EXPECT_STREQ(dir->first_file->name, "/ok");
  EXPECT_NE(err.Text().find("listing line too long"), std::string::npos);
}

// A listing cut into chunks at the given offsets.
std::vector<std::string> Chunks(const std::string& text, const std::vector<size_t>& cuts) {
  std::vector<std::string> chunks;
  size_t from = 0;
  for (size_t cut : cuts) {
    chunks.push_back(text.substr(from, cut - from));
    from = cut;
  }
  chunks.push_back(text.substr(from));
  return chunks;
}

TEST_F(ListingTest, ALineInAnyNumberOfPiecesIsParsedOnceWhole) {
  const std::string line = "-rw-r--r--   1 A B 3 Jan  2  2009 split-name\r\n";
  const std::vector<std::vector<size_t>> cuts = {{20}, {10, 20}, {1, 2, 3, 40}, {line.size() - 1}};
  uint64_t expected = 0;
  for (const auto& at : cuts) {
    for (const std::string& chunk : Chunks(line, at)) EXPECT_EQ(Feed(chunk), 0);
    EXPECT_EQ(dir->count, ++expected);
    EXPECT_STREQ(dir->last_file->name, "/split-name");
  }
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
  EXPECT_EQ(FileNames(dir), "/new|/OLD.LIB|");  // libraries are never dropped by the date
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
  EXPECT_EQ(FileNames(root), "/QSYS.LIB/ABC.LIB|/QSYS.LIB/AB.LIB|");
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

// --- the listing's last line

TEST_F(ListingTest, ALastLineWithoutLineEndIsParsedLikeAnyOther) {
  const std::string first = "-rw-r--r--   1 A B 3 Jan  2  2009 first\r\n";
  const std::string last = "-rw-r--r--   1 A B 3 Jan  2  2009 last-name";
  struct Case {
    const char* what;
    std::string listing;
    std::vector<size_t> cuts;
    std::string files;
    const char* dir;  // the last directory placed, nullptr for none
    int errors;
    const char* message;  // on standard error
  };
  const Case cases[] = {
      {"in one chunk with the others", first + last, {}, "/first|/last-name|", nullptr, 0, nullptr},
      {"in a chunk of its own", first + last, {first.size()}, "/first|/last-name|", nullptr, 0, nullptr},
      {"behind a line split across chunks", first + last, {12}, "/first|/last-name|", nullptr, 0, nullptr},
      {"split across chunks itself", first + last, {first.size() + 20}, "/first|/last-name|", nullptr, 0,
       nullptr},
      {"ended by a CR alone", first + last + "\r", {}, "/first|/last-name|", nullptr, 0, nullptr},
      {"the only line", last, {}, "/last-name|", nullptr, 0, nullptr},
      {"a directory", first + "drwxr-xr-x   1 A B 3 Jan  2  2009 sub", {}, "/first|", "/sub", 0, nullptr},
      {"garbage", first + "garbage", {}, "/first|", nullptr, 1, "]: can't parse"},
      {"too long", first + last + std::string(5000, 'n'), {}, "/first|", nullptr, 1, "]: listing line too long"},
      {"absent: the listing ends with a line end", first, {}, "/first|", nullptr, 0, nullptr},
      {"absent: an empty listing", "", {}, "", nullptr, 0, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TearDown();
    SetUp();
    StderrCapture err;
    int errors = 0;
    for (const std::string& chunk : Chunks(c.listing, c.cuts)) errors += Feed(chunk);
    errors += FinishListing(context.get());
    EXPECT_EQ(errors, c.errors);
    EXPECT_EQ(FileNames(dir), c.files);
    if (c.dir) {
      ASSERT_NE(dir->last_dir, nullptr);
      EXPECT_STREQ(dir->last_dir->name, c.dir);
    } else {
      EXPECT_EQ(dir->last_dir, nullptr);
    }
    if (c.message) {
      EXPECT_NE(err.Text().find(c.message), std::string::npos) << err.Text();
    }
    EXPECT_EQ(dir->partial, c.errors > 0);
    // Taken once: nothing is left for a second call or the next listing.
    EXPECT_EQ(FinishListing(context.get()), 0);
    EXPECT_EQ(FileNames(dir), c.files);
    EXPECT_EQ(Feed(first), 0);
    EXPECT_EQ(FileNames(dir), c.files + "/first|");
  }
}

// --- list mode's printer

struct ListPrinterTest : ::testing::Test {
  void SetUp() override {
    saved = Settings;
    Settings.verbosity = 0;
  }
  void TearDown() override { Settings = saved; }
  // Hands the chunks to a new printer for `path` as LIST would, then ends
  // the listing; gives what was printed to the list stream.
  std::string Print(const char* path, const std::vector<std::string>& chunks, int* result) {
    CapturedStream list;
    Settings.list = list.stream;
    auto context = std::make_unique<ListPrinterContext>();
    context->include_path = path;
    *result = 0;
    for (const std::string& chunk : chunks) {
      std::string data = chunk;
      int count = static_cast<int>(data.size());
      if (ListPrinter(context.get(), data.data(), &count) != 0) *result = -1;
    }
    if (FinishListPrinter(context.get()) != 0) *result = -1;
    Settings.list = nullptr;
    return list.Text();
  }
  RunSettings saved;
};

TEST_F(ListPrinterTest, EveryLineIsPrintedOnceHoweverTheChunksFall) {
  // Each listing is printed whole, cut at every single offset, and one byte
  // at a time: a line end split between chunks (its CR in one, its LF in the
  // next) is one line end, and the last line needs none.
  const std::string file = "-rw-r--r--   1 QSYS 0 3 Jan  2  2009 ";
  const std::string directory = "drwxr-xr-x   2 QSYS 0 8192 Mar  5 14:07 ";
  struct Case {
    const char* what;
    const char* path;
    std::string listing;
    std::string printed;
  };
  const Case cases[] = {
      {"ended lines", "/home", file + "a\r\n" + directory + "sub\r\n" + file + "b\r\n", "/home/a\n/home/sub/\n/home/b\n"},
      {"a last line without line end", "/home", file + "a\r\n" + directory + "sub\r\n" + file + "last",
       "/home/a\n/home/sub/\n/home/last\n"},
      {"a last line ended by a CR alone", "/home/", directory + "d\r\n" + file + "z\r", "/home/d/\n/home/z\n"},
      {"a single line without line end", "/", directory + "QSYS.LIB", "/QSYS.LIB/\n"},
      {"libraries", "/QSYS.LIB",
       directory + "PAY.LIB\r\n" + file + "JOE.USRPRF\r\n" + directory + "GL.LIB",
       "/QSYS.LIB/PAY.LIB\n/QSYS.LIB/GL.LIB\n"},
      {"an empty listing", "/home", "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<std::vector<std::string>> chunkings = {{c.listing}};
    for (size_t cut = 1; cut < c.listing.size(); cut++) chunkings.push_back(Chunks(c.listing, {cut}));
    std::vector<size_t> every;
    for (size_t cut = 1; cut < c.listing.size(); cut++) every.push_back(cut);
    chunkings.push_back(Chunks(c.listing, every));
    for (const auto& chunks : chunkings) {
      SCOPED_TRACE(::testing::PrintToString(chunks));
      StdoutCapture out;
      int result = 0;
      EXPECT_EQ(Print(c.path, chunks, &result), c.printed);
      EXPECT_EQ(result, 0);
      EXPECT_EQ(out.Text(), "");  // only the list stream gets the names
      if (HasFailure()) return;
    }
  }
}

}  // namespace
