// Include and exclude path files: reading their lines, checking them when
// opened, and matching a server path against them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "cli/path_files.h"
#include "cli/settings.h"
#include "support/log.h"
#include "support/string_list.h"
#include "test_helpers.h"

namespace {

struct PathFileTest : ::testing::Test {
  FILE* file = nullptr;
  StringList* list = NewStringList();
  void TearDown() override {
    if (file) fclose(file);
    FreeStringList(list);
    Settings.restore_path = nullptr;
  }
  void Lines(const std::string& text) {
    if (file) fclose(file);
    file = StreamWith(text);
  }
  std::string Pairs() {
    std::string out;
    for (StringPair* p = list->first; p; p = p->next)
      out += std::string(p->first) + "=" + (p->second ? p->second : "<none>") + ";";
    return out;
  }
};

TEST_F(PathFileTest, LeadingDirectoryMatchesButNotLongerNames) {
  Lines("/QSYS.LIB/X.LIB\n");
  EXPECT_EQ(MatchPathFile("/QSYS.LIB/X.LIB/Y.FILE", nullptr, file), 0);
  EXPECT_EQ(MatchPathFile("/QSYS.LIB/X.LIB", nullptr, file), 0);
  EXPECT_EQ(MatchPathFile("/QSYS.LIB/X.LIBRARY", nullptr, file), 1);
  EXPECT_EQ(MatchPathFile("/qsys.lib/x.lib", nullptr, file), 1);  // case counts
}

TEST_F(PathFileTest, WildCardsDoNotCrossSlashes) {
  Lines("/home/*\n");
  EXPECT_EQ(MatchPathFile("/home/a", nullptr, file), 0);
  EXPECT_EQ(MatchPathFile("/home/a/b", nullptr, file), 0);
  EXPECT_EQ(MatchPathFile("/home", nullptr, file), 1);
  Lines("/h?me/*.txt\n");
  EXPECT_EQ(MatchPathFile("/home/a.txt", nullptr, file), 0);
  EXPECT_EQ(MatchPathFile("/home/d/a.txt", nullptr, file), 1);
}

TEST_F(PathFileTest, DeeperLinesAreCollectedWithTheirSecondPaths) {
  Lines("/home/a/b :: /new/b\n/home/a/c\n/home/ab\n/other\n");
  EXPECT_EQ(MatchPathFile("/home/a", list, file), 0);
  EXPECT_EQ(Pairs(), "/home/a/b=/new/b;/home/a/c=<none>;");
  // Without a list a deeper line is no match at all.
  EXPECT_EQ(MatchPathFile("/home/a", nullptr, file), 1);
}

TEST_F(PathFileTest, TheMatchingLineEndsTheSearchAndComesLast) {
  Lines("/home/a/b\n/home/a :: /restored/a\n/home/a/c\n");
  EXPECT_EQ(MatchPathFile("/home/a", list, file), 0);
  EXPECT_EQ(Pairs(), "/home/a/b=<none>;/home/a=/restored/a;");
}

TEST_F(PathFileTest, RestoreModeIgnoresWildCardLines) {
  Lines("/a/*\n/b?\n");
  EXPECT_EQ(MatchPathFile("/a/x", nullptr, file), 0);
  Settings.restore_path = const_cast<char*>("-");
  EXPECT_EQ(MatchPathFile("/a/x", nullptr, file), 1);
  EXPECT_EQ(MatchPathFile("/bc", list, file), 1);
  EXPECT_EQ(list->count, 0);
}

TEST_F(PathFileTest, NoStreamMeansNoMatchAndUnseekableStreamsFail) {
  EXPECT_EQ(MatchPathFile("/anything", list, nullptr), 1);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  FILE* pipe_stream = fdopen(fds[0], "r");
  StderrCapture err;
  EXPECT_EQ(MatchPathFile("/a", nullptr, pipe_stream), -1);
  EXPECT_NE(err.Text().find(": fseek(stream, 0, SEEK_SET): Illegal seek\n"), std::string::npos);
  fclose(pipe_stream);
  close(fds[1]);
}

TEST_F(PathFileTest, OverLongLinesAreReadInPieces) {
  std::string long_line = "/x/" + std::string(5000, 'a');
  Lines(long_line + "\n");
  EXPECT_EQ(MatchPathFile("/x", list, file), 0);
  ASSERT_EQ(list->count, 1);
  EXPECT_EQ(strlen(list->first->first), 4095u);  // the first 4095-byte piece
  EXPECT_EQ(MatchPathFile("/y", nullptr, file), 1);
}

TEST_F(PathFileTest, EmptyLinesAndCommentsNameNothingAndLineEndsMayBeCrLf) {
  struct Case {
    std::string lines;
    const char* path;
    int result;
  };
  const Case cases[] = {
      // An empty line would be an empty pattern, which as a leading directory
      // names every absolute path: it names nothing.
      {"/a\n\n", "/b/c", 1},
      {"/a\n\n", "/a/x", 0},
      {"\n\n\n", "/", 1},
      {"\r\n", "/x", 1},
      {"#/b\n", "/b", 1},
      {"#\n", "/b", 1},
      {"#/b\n/b\n", "/b", 0},  // lines behind a comment still count
      // Files written on Windows: the CR belongs to the line end.
      {"/a\r\n", "/a/b", 0},
      {"/a\r\n", "/a", 0},
      {"/a", "/a", 0},  // the last line needs no line end
      // Only one CR is part of the line end.
      {"/a\r\r\n", "/a", 1},
      {"/a\r\r\n", "/a\r", 0},
      {"/a\rb\n", "/a\rb", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.lines) + " " + ::testing::PrintToString(std::string(c.path)));
    Lines(c.lines);
    EXPECT_EQ(MatchPathFile(c.path, nullptr, file), c.result);
  }
}

// Every line ReadPathLine gives for a file's text.
std::vector<std::string> PathLines(const std::string& text, size_t capacity = PathLineSize) {
  FILE* stream = StreamWith(text);
  std::vector<std::string> lines;
  std::vector<char> line(capacity, '\x7f');
  while (ReadPathLine(stream, line.data(), capacity)) lines.push_back(line.data());
  fclose(stream);
  return lines;
}

TEST(ReadPathLine, GivesLinesThatNameSomethingWithoutTheirLineEnds) {
  using Lines = std::vector<std::string>;
  struct Case {
    std::string text;
    Lines lines;
    size_t capacity = PathLineSize;
  };
  const Case cases[] = {
      {"", {}},
      {"/a\n/b\n", {"/a", "/b"}},
      {"/a\n/b", {"/a", "/b"}},
      {"/a\r\n/b\r\n", {"/a", "/b"}},
      {"/a\r\r\n", {"/a\r"}},
      {"/a\r", {"/a"}},
      {"/a\rb\n", {"/a\rb"}},
      {"\n\r\n\n/a\n\n", {"/a"}},
      {"#comment\n# /b\n#\n/c #not a comment\n", {"/c #not a comment"}},
      {"  \n #x\n", {"  ", " #x"}},  // only an empty line, or one that starts with "#", is skipped
      {"relative\n", {"relative"}},  // checking is CheckPathFile's part
      // A line longer than the buffer comes in pieces that each fill it.
      {"/abcdefghij\n/k\n", {"/abcdef", "ghij", "/k"}, 8},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.text));
    EXPECT_EQ(PathLines(c.text, c.capacity), c.lines);
  }
}

// The messages of a captured stream, each line without its time and
// thread prefix.
std::string WithoutPrefixes(const std::string& text) {
  return std::regex_replace(text, std::regex(R"((^|\n)\[[0-9:]+\] \[T\d+\] )"), "$1");
}

TEST(CheckPathFile, ReportsEveryLineThatIsNoFullServerPathAndRewinds) {
  const std::string over = "/" + std::string(PathLineSize - 1, 'x');  // 4096 characters
  const std::string longest = "/" + std::string(PathLineSize - 2, 'y');  // 4095 characters
  struct Case {
    const char* what;
    std::string text;
    std::string messages;  // each line as "line <n>: <what is wrong>"
  };
  const Case cases[] = {
      {"good lines, comments and empty lines", "/a\n#x\n\n/b/c :: /d\r\n/QSYS.LIB/X.LIB", ""},
      {"nothing at all", "", ""},
      {"relative paths, counted with every line before them", "/a\nrelative\n\n#c\n  /blank\nx/y",
       "line 2: not a full server path: relative\n"
       "line 5: not a full server path:   /blank\n"
       "line 6: not a full server path: x/y\n"},
      {"a path after a CR LF line", "\r\nb\r\n", "line 2: not a full server path: b\n"},
      {"the longest line that fits", longest + "\n" + longest + "\r\n", ""},
      {"over-long lines", over + "\n/ok\n" + over + "0\r\n" + std::string(5000, 'z') + "\n",
       "line 1: longer than 4095 characters\n"
       "line 3: longer than 4095 characters\n"
       "line 4: longer than 4095 characters\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    FILE* stream = StreamWith(c.text);
    StderrCapture err;
    EXPECT_EQ(CheckPathFile(stream, "paths.txt"), c.messages.empty() ? 0 : -1);
    std::string expected;
    for (size_t at = 0; at < c.messages.size();) {
      size_t end = c.messages.find('\n', at) + 1;
      expected += std::string(ProgramName) + ": paths.txt, " + c.messages.substr(at, end - at);
      at = end;
    }
    EXPECT_EQ(WithoutPrefixes(err.Text()), expected);
    // The file is read again from its start afterwards.
    EXPECT_EQ(ftell(stream), 0);
    char line[PathLineSize];
    EXPECT_EQ(ReadPathLine(stream, line, sizeof line), !PathLines(c.text).empty());
    if (!PathLines(c.text).empty()) {
      EXPECT_EQ(std::string(line), PathLines(c.text).front());
    }
    fclose(stream);
  }
  // A stream that cannot be read is reported as such.
  char name[] = "/tmp/vondral-paths-XXXXXX";
  int fd = mkstemp(name);
  ASSERT_GE(fd, 0);
  close(fd);
  FILE* unreadable = fopen(name, "w");
  ASSERT_NE(unreadable, nullptr);
  StderrCapture err;
  EXPECT_EQ(CheckPathFile(unreadable, name), -1);
  EXPECT_EQ(WithoutPrefixes(err.Text()),
            std::string(ProgramName) + ": read(" + name + "): " + strerror(EBADF) + "\n");
  fclose(unreadable);
  unlink(name);
}

}  // namespace
