// Credentials, include/exclude path files, the option string and SIGTERM.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>

#include "test_helpers.h"
#include "vondral.h"

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

TEST_F(PathFileTest, AnEmptyLineNamesEveryAbsolutePath) {
  // An empty pattern followed by "/..." is a leading-directory match, so a
  // blank line in a path file names the whole server (the README warns).
  Lines("/a\n\n");
  EXPECT_EQ(MatchPathFile("/b/c", nullptr, file), 0);
  EXPECT_EQ(MatchPathFile("relative", nullptr, file), 1);
}

TEST(Options, ShortOptionStringFollowsTheTable) {
  char out[57];
  BuildShortOptions(out, sizeof out);
  EXPECT_STREQ(out, "b:c:C:d:e:hi:l:m:n:p:r:s:tv::w:x:z:");
}

TEST(SignalThread, SigtermSetsTheFlagWithoutEndingTheProcess) {
  // Runs in a child: blocking SIGTERM must not leak into the test runner.
  EXPECT_EXIT(
      {
        if (StartSignalThread() != 0) _exit(2);
        kill(getpid(), SIGTERM);
        for (int i = 0; i < 500 && !TerminationRequested.load(); i++) usleep(2000);
        kill(getpid(), SIGTERM);  // a second one has no further effect
        usleep(20000);
        _exit(TerminationRequested.load() == 1 ? 7 : 3);
      },
      ::testing::ExitedWithCode(7), "");
}

}  // namespace
