// The listing parser. Its reading of a line is held to a second reading
// made of the library calls alone (every date in both forms, the edge cases
// of every field, random lines); the cases here besides are what that
// reading cannot show: messages, names, and lines that cannot be read.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "../common/listing_reference.h"
#include "listing_test_helpers.h"
#include "test_helpers.h"

namespace {

using namespace std::string_literals;

struct ListingParserTest : ListingTest {
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

TEST_F(ListingParserTest, PermissionLettersMapAsTabled) {
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

TEST_F(ListingParserTest, EveryDateReadsAsTheLibraryReadsIt) {
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

TEST_F(ListingParserTest, EdgeCasesOfEveryFieldReadAsTheLibraryReadsThem) {
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

TEST_F(ListingParserTest, RandomLinesReadAsTheLibraryReadsThem) {
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

TEST_F(ListingParserTest, NamesLinksBlanksAndLeftovers) {
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

// A name with a "/" would name something outside the listed directory: the
// line is an error like any other that cannot be used, and nothing of it
// is placed, in an ordinary directory and at the root of an include path.
TEST_F(ListingParserTest, NamesWithASlashAreErrorsAndNothingIsPlaced) {
  const struct {
    const char* name;
    int errors;
  } cases[] = {
      {"../../etc", 1},   {"a/../../b", 1}, {"x/", 1},          {"/", 1},      {"//", 1},
      {"/etc/passwd", 1}, {"..", 0},        {"l/x -> t", 1},    {"l -> ../t", 0}, {"a\\b", 0},
      {"good", 0},
  };
  for (const auto& c : cases) {
    for (const char* mode : {"-rw-r--r--", "drwxr-xr-x"}) {
      SCOPED_TRACE(std::string(mode) + " " + c.name);
      TearDown();
      SetUp();
      StderrCapture err;
      const std::string line = std::string(mode) + "   1 A B 3 Jan  2  2009 " + c.name + "\r";
      EXPECT_EQ(Feed(line + "\n"), c.errors);
      EXPECT_EQ(dir->partial, c.errors);
      if (c.errors) {
        EXPECT_NE(err.Text().find("[backup.cpp,"), std::string::npos) << err.Text();
        EXPECT_NE(err.Text().find("]: name holds a \"/\": " + line + "\n"), std::string::npos) << err.Text();
        EXPECT_EQ(dir->first_file, nullptr);
        EXPECT_EQ(dir->first_dir, nullptr);
      } else if (std::string(c.name) != "..") {
        EXPECT_EQ(err.Text(), "");
        EXPECT_NE(mode[0] == 'd' ? static_cast<const void*>(dir->first_dir) : dir->first_file, nullptr);
      }
      ExpectAsReference(line);
    }
  }
}

TEST_F(ListingParserTest, GarbageLinesCountAsErrorsAndMarkTheDirectoryPartial) {
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

}  // namespace
