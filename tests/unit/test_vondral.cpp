// Credentials, include/exclude path files, the option string, and
// termination requests (SIGTERM, SIGINT, SIGHUP) with their grace.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"
#include "test_helpers.h"
#include "cli/vondral.h"

namespace {

struct CredentialsTest : ::testing::Test {
  void SetUp() override {
    Settings.user = nullptr;
    Settings.passphrase = nullptr;
  }
  std::string Run(const std::string& argument, int expected) {
    StderrCapture err;
    EXPECT_EQ(ReadCredentials(argument.c_str()), expected) << argument;
    return err.Text();
  }
  std::string TempFile(const std::string& content) {
    char name[] = "/tmp/vondral-cred-XXXXXX";
    int fd = mkstemp(name);
    EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fd);
    return name;
  }
};

TEST_F(CredentialsTest, HereKeepsEveryColonOfTheKeyAndIgnoresKeywordCase) {
  Run("user:here:a:b", 0);
  EXPECT_STREQ(Settings.user, "user");
  EXPECT_STREQ(Settings.passphrase, "a:b");
  Run("bob:HERE:x", 0);
  EXPECT_STREQ(Settings.passphrase, "x");
  Run(":here:x", 0);  // an empty user name is accepted here
  EXPECT_STREQ(Settings.user, "");
}

TEST_F(CredentialsTest, EnvironmentForm) {
  setenv("VONDRAL_TEST_PASS", "s3cret", 1);
  Run("user:Env:VONDRAL_TEST_PASS", 0);
  EXPECT_STREQ(Settings.passphrase, "s3cret");
  unsetenv("VONDRAL_TEST_UNSET");
  std::string err = Run("user:env:VONDRAL_TEST_UNSET", -1);
  EXPECT_NE(err.find(": There is no environment variable named 'VONDRAL_TEST_UNSET'\n"),
            std::string::npos);
  EXPECT_EQ(Settings.user, nullptr);  // unset after a failure
}

TEST_F(CredentialsTest, BadFormsAreRefusedWithTheirMessages) {
  EXPECT_NE(Run("user", -1).find(": Missing password in credentials\n"), std::string::npos);
  EXPECT_NE(Run("user:ftp:x", -1).find(": bad where following user name\n"), std::string::npos);
  EXPECT_EQ(Settings.user, nullptr);
  EXPECT_NE(Run("user:fd:4x", -1).find(": Bad file descriptor '4x'\n"), std::string::npos);
  std::string err = Run("user:file:/nonexistent/key", -1);
  EXPECT_NE(err.find(": open(/nonexistent/key): No such file or directory\n"), std::string::npos);
  err = Run("user:fd:987", -1);
  EXPECT_NE(err.find(": read(987): Bad file descriptor\n"), std::string::npos);
}

TEST_F(CredentialsTest, DescriptorFormReadsTheFirstLineAndLeavesTheDescriptorOpen) {
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  ASSERT_EQ(write(pipe_fds[1], "pw\r\nsecond\n", 11), 11);
  std::string err = Run("u:fd:" + std::to_string(pipe_fds[0]), 0);
  EXPECT_STREQ(Settings.passphrase, "pw\r");  // the carriage return stays
  EXPECT_EQ(err, "");
  EXPECT_NE(fcntl(pipe_fds[0], F_GETFD), -1);
  close(pipe_fds[0]);
  // 0x form of the descriptor number
  ASSERT_EQ(pipe(pipe_fds), 0);
  ASSERT_EQ(write(pipe_fds[1], "z\n", 2), 2);
  char hex[32];
  snprintf(hex, sizeof hex, "u:fd:0x%x", pipe_fds[0]);
  Run(hex, 0);
  EXPECT_STREQ(Settings.passphrase, "z");
  close(pipe_fds[0]);
  close(pipe_fds[1]);
}

TEST_F(CredentialsTest, FileFormTruncationRules) {
  std::string six = TempFile("abcdef");
  std::string err = Run("u:file:" + six, 0);
  EXPECT_STREQ(Settings.passphrase, "abcdef");
  EXPECT_NE(err.find(": Passphrase truncated to 6 bytes\n"), std::string::npos);

  std::string big = TempFile(std::string(5000, 'k'));
  err = Run("u:file:" + big, 0);
  EXPECT_EQ(std::string(Settings.passphrase), std::string(4095, 'k'));
  EXPECT_NE(err.find(": Passphrase truncated to 4095 bytes\n"), std::string::npos);

  std::string empty = TempFile("");
  err = Run("u:FILE:" + empty, 0);
  EXPECT_STREQ(Settings.passphrase, "");
  EXPECT_NE(err.find(": Passphrase truncated to 0 bytes\n"), std::string::npos);

  std::string lines = TempFile("first\nsecond\n");
  err = Run("u:file:" + lines, 0);
  EXPECT_STREQ(Settings.passphrase, "first");
  EXPECT_EQ(err, "");
  unlink(six.c_str());
  unlink(big.c_str());
  unlink(empty.c_str());
  unlink(lines.c_str());
}

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

TEST(Options, ShortOptionStringFollowsTheTable) {
  char out[57];
  BuildShortOptions(out, sizeof out);
  EXPECT_STREQ(out, "b:c:C:d:e:hi:l:m:n:p:r:s:tv::w:x:z:");
}

// --- termination requests

struct TerminationTest : ::testing::Test {
  void TearDown() override { TerminationRequested = 0; }
};

TEST_F(TerminationTest, TheStatusIs128PlusTheSignalThatAskedFor143OtherWise) {
  struct Case {
    int requested;
    int status;
  };
  const Case cases[] = {{SIGTERM, 143}, {SIGINT, 130}, {SIGHUP, 129},
                        // Not one of the three: reported as SIGTERM.
                        {0, 143}, {-1, 143}, {SIGKILL, 143}, {SIGUSR1, 143}, {SIGQUIT, 143}, {300, 143}};
  for (const Case& c : cases) {
    TerminationRequested = c.requested;
    EXPECT_EQ(TerminationStatus(), c.status) << c.requested;
  }
}

TEST_F(TerminationTest, TheGraceCountsFromTheRequestOrFromThisThreadsLastTransfer) {
  // Each step runs in a thread of its own: the end of a transfer is noted
  // per thread.
  auto in_thread = [](auto body) { std::thread(body).join(); };
  in_thread([] {
    EXPECT_EQ(TerminationMsLeft(), -1);  // no request, no limit
    NoteTransferEnded();
    EXPECT_EQ(TerminationMsLeft(), -1);
  });
  // A request whose grace is over: nothing is left, until this thread ends
  // a transfer, which gives it a grace of its own; other threads get none.
  in_thread([] {
    ASSERT_TRUE(RequestWithGraceOver(SIGTERM));
    EXPECT_EQ(TerminationMsLeft(), 0);
    NoteTransferEnded();
    const int left = TerminationMsLeft();
    EXPECT_GT(left, TerminationGraceMs - 200);
    EXPECT_LE(left, TerminationGraceMs);
  });
  in_thread([] { EXPECT_EQ(TerminationMsLeft(), 0); });
  // A new request: the grace counts from it, down.
  in_thread([] {
    RequestTermination(SIGINT);
    EXPECT_EQ(TerminationRequested.load(), SIGINT);
    const int first = TerminationMsLeft();
    EXPECT_GT(first, TerminationGraceMs - 200);
    EXPECT_LE(first, TerminationGraceMs);
    usleep(300000);
    const int later = TerminationMsLeft();
    EXPECT_LE(later, first - 300);
    EXPECT_GT(later, 0);
  });
  TerminationRequested = 0;
  EXPECT_EQ(TerminationMsLeft(), -1);
}

// The signal thread's first request, in a child process; the exit status
// says which check failed (7: none).
int FirstRequest(int signal_number) {
  if (TerminationWakeDescriptor() != -1) return 2;  // none before the thread
  if (StartSignalThread() != 0) return 3;
  struct pollfd wake = {TerminationWakeDescriptor(), POLLIN, 0};
  if (wake.fd < 0 || poll(&wake, 1, 0) != 0) return 4;  // nothing to wake for yet
  kill(getpid(), signal_number);
  for (int i = 0; i < 1000 && !TerminationRequested.load(); i++) usleep(2000);
  if (TerminationRequested.load() != signal_number) return 5;
  if (TerminationStatus() != 128 + signal_number) return 6;
  if (poll(&wake, 1, 1000) != 1) return 8;  // a waiting poll is woken
  return 7;
}

TEST(SignalThread, EachTerminationSignalSetsTheFlagToItsNumberAndWakesWaits) {
  // Runs in a child: blocking the signals must not leak into the test runner.
  for (int signal_number : {SIGTERM, SIGINT, SIGHUP}) {
    SCOPED_TRACE(strsignal(signal_number));
    EXPECT_EXIT(_exit(FirstRequest(signal_number)), ::testing::ExitedWithCode(7), "");
  }
}

TEST(SignalThread, ASecondRequestEndsTheProcessAtOnceWithItsOwnStatus) {
  // An operator who asks twice will not wait for the grace: the process
  // ends there and then, with the status of the second signal.
  struct Case {
    int first;
    int second;
  };
  const Case cases[] = {{SIGTERM, SIGTERM}, {SIGINT, SIGHUP}, {SIGHUP, SIGINT}, {SIGTERM, SIGINT}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.first) + " then " + std::to_string(c.second));
    EXPECT_EXIT(
        {
          if (StartSignalThread() != 0) _exit(2);
          kill(getpid(), c.first);
          for (int i = 0; i < 1000 && !TerminationRequested.load(); i++) usleep(2000);
          if (TerminationRequested.load() != c.first) _exit(3);
          kill(getpid(), c.second);
          sleep(5);  // ended long before
          _exit(7);
        },
        ::testing::ExitedWithCode(128 + c.second),
        "second termination request \\(signal " + std::to_string(c.second) + "\\): ending at once");
  }
}

}  // namespace
