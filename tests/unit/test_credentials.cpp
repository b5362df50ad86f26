// The --credentials argument: the user name, the four ways to the
// passphrase (here, env, fd, file) and the messages of every refusal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli/credentials.h"
#include "cli/settings.h"
#include "test_helpers.h"

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
  struct Case {
    const char* argument;
    const char* user;
    const char* passphrase;
  };
  const Case cases[] = {
      {"user:here:a:b", "user", "a:b"},
      {"bob:HERE:x", "bob", "x"},
      {":here:x", "", "x"},  // an empty user name is accepted here
      {"u:hErE:", "u", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.argument);
    EXPECT_EQ(Run(c.argument, 0), "");
    EXPECT_STREQ(Settings.user, c.user);
    EXPECT_STREQ(Settings.passphrase, c.passphrase);
  }
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

TEST_F(CredentialsTest, BadFormsAreRefusedWithTheirMessagesAndLeaveNoUser) {
  struct Case {
    const char* argument;
    const char* message;
  };
  const Case cases[] = {
      {"user", ": Missing password in credentials\n"},
      {"user:ftp:x", ": bad where following user name\n"},
      {"user:here", ": bad where following user name\n"},  // the colon belongs to the keyword
      {"user:fd:4x", ": Bad file descriptor '4x'\n"},
      {"user:fd:", ": Bad file descriptor ''\n"},
      {"user:file:/nonexistent/key", ": open(/nonexistent/key): No such file or directory\n"},
      {"user:file:/tmp", ": read(/tmp): Is a directory\n"},
      {"user:fd:987", ": read(987): Bad file descriptor\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.argument);
    std::string err = Run(c.argument, -1);
    EXPECT_NE(err.find(c.message), std::string::npos) << err;
    EXPECT_EQ(Settings.user, nullptr);
    EXPECT_EQ(Settings.passphrase, nullptr);
  }
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
  struct Case {
    const char* keyword;
    std::string content;
    std::string passphrase;
    const char* message;  // nullptr: nothing is said
  };
  const Case cases[] = {
      {"file", "abcdef", "abcdef", ": Passphrase truncated to 6 bytes\n"},
      // One read of at most 4095 bytes: the rest is never read.
      {"file", std::string(5000, 'k'), std::string(4095, 'k'), ": Passphrase truncated to 4095 bytes\n"},
      {"FILE", "", "", ": Passphrase truncated to 0 bytes\n"},
      {"file", "first\nsecond\n", "first", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.content.substr(0, 20));
    std::string name = TempFile(c.content);
    std::string err = Run(std::string("u:") + c.keyword + ":" + name, 0);
    EXPECT_EQ(std::string(Settings.passphrase), c.passphrase);
    if (c.message)
      EXPECT_NE(err.find(c.message), std::string::npos) << err;
    else
      EXPECT_EQ(err, "");
    unlink(name.c_str());
  }
}

// The passphrase of a "here" argument is overwritten in place (the
// argument is the process's own, shown by ps), whatever the case of the
// keyword; the user name and the keyword stay, and the other forms, which
// carry no secret, are left as they are.
TEST(HidePassphraseArgument, OnlyTheHereFormLosesItsKey) {
  struct Case {
    const char* argument;
    size_t kept;  // characters left as they were; the rest become zero bytes
  };
  const Case cases[] = {
      {"qsecofr:here:Sup3rS3cret", 13}, {"u:HeRe:a:b:c", 7},  {"u:here:", 7},
      {":here:x", 6},                   {"u:env:VONDRAL_PASS", 18}, {"u:fd:3", 6},
      {"u:file:/etc/key", 15},          {"nocolon", 7},       {"u:heree", 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.argument);
    std::string argument = c.argument;
    HidePassphraseArgument(argument.data());
    const std::string expected =
        std::string(c.argument, c.kept) + std::string(strlen(c.argument) - c.kept, '\0');
    EXPECT_EQ(argument, expected);
  }
}

TEST_F(CredentialsTest, ForgettingThePassphraseLeavesNone) {
  Run("u:here:pw", 0);
  ASSERT_STREQ(Settings.passphrase, "pw");
  ForgetPassphrase();
  EXPECT_EQ(Settings.passphrase, nullptr);
  ForgetPassphrase();  // twice is harmless
  EXPECT_EQ(Settings.passphrase, nullptr);
}

// In a child, which alone is changed: dumpable before, not after.
TEST(KeepMemoryPrivate, TheProcessBecomesNonDumpable) {
  EXPECT_EXIT(
      {
        if (prctl(PR_GET_DUMPABLE) != 1) _exit(2);
        if (KeepMemoryPrivate() != 0) _exit(3);
        _exit(prctl(PR_GET_DUMPABLE) == 0 ? 7 : 4);
      },
      ::testing::ExitedWithCode(7), "");
}

}  // namespace
