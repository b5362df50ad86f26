// The listing parser reads the usual line with its own code and leaves
// anything unusual to sscanf and strptime. Whatever it reads, the entry
// must come out exactly as the library alone would make it: the same mode,
// size, name and every field of the broken-down time (the day of the week
// and of the year included), and the same lines must fail with the same
// message. A reference parser made of the library calls alone is fed the
// same lines: hand-picked edge cases, then a large number of lines put
// together at random from the pieces a server (or a broken one) sends.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "backup.h"
#include "test_helpers.h"
#include "vondral.h"

namespace {

// What the reference makes of a line: either the entry or the message.
struct Reference {
  bool ok = false;
  std::string failure;  // "can't parse date", "can't parse time", ...
  uint32_t mode = 0;
  unsigned long long size = 0;
  struct tm mtime{};
  std::string name;
};

bool RefBlank(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }
const char* RefSkipBlanks(const char* p) {
  while (*p && RefBlank(*p)) p++;
  return p;
}
const char* RefSkipField(const char* p) {
  while (*p && !RefBlank(*p)) p++;
  return p;
}

uint32_t RefMode(const char* text) {
  struct Bit {
    int position;
    char letter;
    uint32_t bits;
  };
  static const Bit bits[] = {
      {1, 'r', 0400}, {2, 'w', 0200}, {3, 'x', 0100}, {3, 's', 04100}, {4, 'r', 0020}, {5, 'w', 0020},
      {6, 'x', 0010}, {6, 's', 02010}, {7, 'r', 0002}, {8, 'w', 0002}, {9, 'x', 0001}, {9, 's', 01001},
  };
  uint32_t mode = text[0] == 'd' ? S_IFDIR : S_IFREG;
  for (const Bit& b : bits)
    if (text[b.position] == b.letter) mode |= b.bits;
  return mode;
}

// The line grammar read with sscanf and strptime only.
Reference ReferenceParse(const char* line) {
  Reference r;
  time_t now = time(nullptr);
  struct tm today{};
  localtime_r(&now, &today);
  size_t line_length = strlen(line);
  char mode_text[11] = "----------";
  memcpy(mode_text, line, line_length < 10 ? line_length : 10);
  r.mode = RefMode(mode_text);
  const char* p = line_length < 10 ? line + line_length : line + 10;
  for (int field = 0; field < 3; field++) p = RefSkipField(RefSkipBlanks(p));
  p = RefSkipBlanks(p);
  unsigned long long size = 0;
  int consumed = 0;
  if (sscanf(p, "%llu%n", &size, &consumed) != 1) size = 0;
  r.size = size;
  p = RefSkipField(p);
  struct tm when = today;
  when.tm_hour = when.tm_min = when.tm_sec = 0;
  p = RefSkipBlanks(p);
  const char* date = strptime(p, "%b %d", &when);
  if (!date) {
    r.failure = "can't parse date";
    return r;
  }
  p = RefSkipBlanks(date);
  const char* after;
  if (p[0] && p[1] && p[2] == ':') {
    after = strptime(p, "%H:%M", &when);
    if (!after) {
      r.failure = "can't parse time";
      return r;
    }
    when.tm_year = today.tm_year - (when.tm_mon > today.tm_mon ? 1 : 0);
  } else {
    after = strptime(p, "%Y", &when);
    if (!after) {
      r.failure = "can't parse year";
      return r;
    }
  }
  when.tm_isdst = -1;
  r.mtime = when;
  const char* name = RefSkipBlanks(after);
  const char* end = line + line_length;
  const char* arrow = strstr(name, " -> ");
  const char* name_end = arrow ? arrow : (end > name ? end - 1 : name);
  char buffer[4096];
  int n = snprintf(buffer, sizeof buffer, "/%.*s", static_cast<int>(name_end - name), name);
  if (n >= static_cast<int>(sizeof buffer)) {
    r.failure = "name too long";
    return r;
  }
  r.name = buffer;
  r.ok = true;
  return r;
}

struct Equivalence : ::testing::Test {
  ObjectNode* root = nullptr;
  ObjectNode* dir = nullptr;
  std::unique_ptr<ListingContext> context = std::make_unique<ListingContext>();
  uint64_t cases = 0;
  CapturedStream messages_file;

  void SetUp() override {
    root = NewDirectoryNode(nullptr, "", 0, 0, tm{});
    dir = AppendDirectory(root, "/home", S_IFDIR | 0755, 0, tm{});
    context->path = context->path_buffer;
    CopyBounded(context->path, PathBufferSize, "/home");
    context->directory = dir;
  }
  void TearDown() override { FreeTree(root); }

  // Feeds one line (without its line end) to the program's parser and
  // compares the outcome with the reference.
  void Check(const std::string& text) {
    cases++;
    const std::string line = text + "\n";
    const Reference want = ReferenceParse(text.c_str());
    ObjectNode* last_dir = dir->last_dir;
    ObjectFile* last_file = dir->last_file;
    // One capture for all lines (a file per line would cost more than the
    // test itself); only what this line wrote is looked at.
    FILE* saved = stderr;
    stderr = messages_file.stream;
    const long start = ftell(messages_file.stream);
    const int errors = ParseListingChunk(context.get(), line.data(), static_cast<int>(line.size()));
    stderr = saved;
    std::string messages;
    fflush(messages_file.stream);
    fseek(messages_file.stream, start, SEEK_SET);
    char piece[4096];
    size_t n;
    while ((n = fread(piece, 1, sizeof piece, messages_file.stream)) > 0) messages.append(piece, n);
    fseek(messages_file.stream, 0, SEEK_END);
    if (!want.ok) {
      EXPECT_EQ(errors, 1) << text;
      EXPECT_NE(messages.find("]: " + want.failure + ": "), std::string::npos) << text << "\n" << messages;
      EXPECT_EQ(dir->last_dir, last_dir) << text;
      EXPECT_EQ(dir->last_file, last_file) << text;
      return;
    }
    ASSERT_EQ(errors, 0) << text << "\n" << messages;
    if (want.name == "/" || want.name == "/." || want.name == "/..") {
      // Names that would walk in circles are dropped after parsing.
      EXPECT_EQ(dir->last_dir, last_dir) << text;
      EXPECT_EQ(dir->last_file, last_file) << text;
      return;
    }
    const bool directory = S_ISDIR(want.mode);
    const char* name;
    uint32_t mode;
    uint64_t size;
    struct tm mtime;
    if (directory) {
      ASSERT_NE(dir->last_dir, last_dir) << text;
      name = dir->last_dir->name;
      mode = dir->last_dir->mode;
      size = dir->last_dir->size;
      mtime = dir->last_dir->mtime;
    } else {
      ASSERT_NE(dir->last_file, last_file) << text;
      name = dir->last_file->name;
      mode = dir->last_file->mode;
      size = dir->last_file->size;
      mtime = dir->last_file->mtime;
    }
    EXPECT_EQ(want.name, name) << text;
    EXPECT_EQ(want.mode, mode) << text;
    EXPECT_EQ(want.size, size) << text;
    EXPECT_EQ(want.mtime.tm_year, mtime.tm_year) << text;
    EXPECT_EQ(want.mtime.tm_mon, mtime.tm_mon) << text;
    EXPECT_EQ(want.mtime.tm_mday, mtime.tm_mday) << text;
    EXPECT_EQ(want.mtime.tm_hour, mtime.tm_hour) << text;
    EXPECT_EQ(want.mtime.tm_min, mtime.tm_min) << text;
    EXPECT_EQ(want.mtime.tm_sec, mtime.tm_sec) << text;
    EXPECT_EQ(want.mtime.tm_wday, mtime.tm_wday) << text;
    EXPECT_EQ(want.mtime.tm_yday, mtime.tm_yday) << text;
    EXPECT_EQ(want.mtime.tm_isdst, mtime.tm_isdst) << text;
    EXPECT_EQ(want.mtime.tm_gmtoff, mtime.tm_gmtoff) << text;
    EXPECT_STREQ(want.mtime.tm_zone ? want.mtime.tm_zone : "", mtime.tm_zone ? mtime.tm_zone : "") << text;
  }
};

const char* const MonthTexts[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct",
                                  "Nov", "Dec", "JAN", "feb", "mAr", "June", "July", "January",
                                  "September", "Sept", "Foo", "Ja", "J", "", "12", "Dez", "May."};

TEST_F(Equivalence, EveryDayOfEveryMonthInBothForms) {
  for (int month = 0; month < 12; month++) {
    for (int day = 0; day <= 32; day++) {
      for (const char* when : {"00:00", "09:05", "14:07", "23:59", " 2009", " 2000", " 1900", " 2024",
                               " 1999", " 2100", " 9999", " 1000", " 0999", " 1970"}) {
        char line[128];
        snprintf(line, sizeof line, "-rw-r--r--   1 QSYS     0          4096 %s %2d %s f%d.dat\r",
                 MonthTexts[month], day, when, day);
        Check(line);
      }
    }
  }
  EXPECT_GT(cases, 5000u);
}

TEST_F(Equivalence, EdgeCasesOfEveryField) {
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
      "-rw-r--r--   1 A B 3 Jan  2  2009  x  \r",
      "-rw-r--r--   1 A B 3 Jan  2  2009 a -> b -> c\r",
      "-rw-r--r--   1 A B 3 Jan  2  2009 -> x\r",
      "-rw-r--r--   1 A B 3 Jan  2  2009 caf\xc3\xa9 \xe9t\xe9\r",
      "-rw-r--r--   1 A B 3 \xc3\xa9" "an  2  2009 high bytes in the month\r",
  };
  for (const char* line : lines) Check(line);
  Check("-rw-r--r--   1 A B 3 Jan  2  2009 " + std::string(4000, 'n') + "\r");  // a long name
}

// Lines put together at random from good and bad pieces of every field.
TEST_F(Equivalence, RandomLines) {
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
  std::vector<std::string> months(std::begin(MonthTexts), std::end(MonthTexts));
  const std::vector<std::string> days = {"1", "5", "05", "10", "29", "30", "31", "32", "0", "00", "9",
                                         "39", "123", "", "x", "3"};
  const std::vector<std::string> clocks = {"14:07", "00:00", "23:59", "24:00", "9:05", "12:60", "1:2",
                                           "12:5", "12:345", "2009", "1999", "1000", "999", "0999",
                                           "20090", "x", "", "12:", ":30", "2024", "1970", "9999"};
  const std::vector<std::string> names = {"f", "a b", "l -> t", "x -> y z", "", " ", "INVOICE_000123.PDF",
                                          "PAY.FILE", "d -> ", "-> q", "name\twith tab"};
  const std::vector<std::string> ends = {"\r", "", "\r\r", " \r", "\t"};
  for (int i = 0; i < 60000; i++) {
    std::string line = pick(modes) + pick(blanks) + pick(words) + pick(blanks) + pick(words) +
                       pick(blanks) + pick(words) + pick(blanks) + pick(sizes) + pick(blanks) +
                       pick(months) + pick(blanks) + pick(days) + pick(blanks) + pick(clocks) +
                       pick(blanks) + pick(names) + pick(ends);
    Check(line);
    if (HasFatalFailure() || HasNonfatalFailure()) break;
  }
}

}  // namespace
