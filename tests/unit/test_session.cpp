// Login and server checks, CL quoting, parent directories, and checkpoint
// recovery of protected operations.
#define VONDRAL_ARCHIVE_HELPERS
#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>

#include "archive/writer.h"
#include "fake_server.h"
#include "ftp/checkpoint.h"
#include "ftp/data_command.h"
#include "ftp/remote_listing.h"
#include "ftp/reply_judge.h"
#include "ftp/session.h"
#include "ftp/transfer_settings.h"
#include "test_helpers.h"

namespace {

struct SessionTest : ::testing::Test {
  void TearDown() override {
    if (session) Quit(session);
  }
  FtpSession* Open(FakeFtpServer& server) {
    session = NewSessionTo(server.address());
    return session;
  }
  FtpSession* session = nullptr;
};

TEST_F(SessionTest, LoginSendsTheExchangeInOrderAndKeepsTheCredentials) {
  FakeFtpServer server(LoginScript());
  ASSERT_NE(Open(server), nullptr);
  ASSERT_EQ(Login(session, "qsecofr", "pw"), 0);
  EXPECT_EQ(server.Commands(), (std::vector<std::string>{"USER qsecofr", "PASS pw", "CWD /", "SYST",
                                                         "TIME 86400 86400"}));
  EXPECT_STREQ(session->user, "qsecofr");
  EXPECT_STREQ(session->password, "pw");
  EXPECT_EQ(ServerRelease.load(), 2);
}

TEST_F(SessionTest, UserNameLimitCountsTheVerb) {
  FakeFtpServer server(LoginScript());
  ASSERT_NE(Open(server), nullptr);
  ASSERT_EQ(Login(session, std::string(249, 'u').c_str(), "p"), 0);
  ASSERT_EQ(Login(session, std::string(250, 'v').c_str(), "p"), 0);
  StderrCapture err;
  EXPECT_EQ(Login(session, std::string(251, 'w').c_str(), "p"), -1);
  EXPECT_NE(err.Text().find("user too long"), std::string::npos);
  EXPECT_EQ(Login(session, "u", std::string(251, 'p').c_str()), -1);
  EXPECT_NE(err.Text().find("password too long"), std::string::npos);
  auto commands = server.Commands();
  EXPECT_EQ(commands[0], "USER " + std::string(249, 'u'));
  EXPECT_EQ(commands[5], "USER " + std::string(249, 'v'));  // cut to 249
  EXPECT_EQ(commands.back(), "USER u");  // nothing went out for 251 characters
}

TEST_F(SessionTest, RefusedLoginReportsTheServersText) {
  FakeFtpServer server([](PeerConnection& c, const std::string& command) {
    if (command.rfind("USER", 0) == 0)
      c.Reply("331 Enter password.\r\n");
    else
      c.Reply("530 Log on attempt by user QSECOFR rejected.\r\n");
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  StderrCapture err;
  EXPECT_EQ(Login(session, "qsecofr", "bad"), -1);
  EXPECT_TRUE(std::regex_search(
      err.Text(), std::regex(R"(\[ftp\.cpp,\d+\]: PASS command failed\n  530 Log on attempt)")))
      << err.Text();
  EXPECT_EQ(session->user, nullptr);  // kept only after a successful login
}

struct SystCase {
  std::string reply;
  int release;
  bool invalid;
};

TEST_F(SessionTest, SystReplyDecidesTheRelease) {
  const SystCase cases[] = {
      {"215  OS/400 is the remote operating system. The TCP/IP version is \"V5R4M0\".", 2, false},
      {"215  OS/400 is the remote operating system. The TCP/IP version is \"V5R3M0\".", 1, false},
      {"215  OS/400 is the remote operating system. The TCP/IP version is \"V5R4M0X\".", 0, false},
      {"215 UNIX Type: L8", 0, true},
      {"215 only \"one quote", 0, true},
  };
  for (const SystCase& c : cases) {
    ServerRelease = 9;
    FakeFtpServer server(LoginScript(nullptr, c.reply));
    ASSERT_NE(Open(server), nullptr);
    StderrCapture err;
    EXPECT_EQ(Login(session, "u", "p"), 0) << c.reply;
    EXPECT_EQ(ServerRelease.load(), c.release) << c.reply;
    EXPECT_EQ(err.Text().find("invalid SYST reply") != std::string::npos, c.invalid) << c.reply;
    Quit(session);
    session = nullptr;
  }
}

TEST_F(SessionTest, RefusedTimeAndSystDoNotFailTheLogin) {
  FakeFtpServer server(LoginScript([](PeerConnection& c, const std::string&) {
    c.Reply("500 Unknown command.\r\n");
    return true;
  }, "502 SYST not implemented."));
  ASSERT_NE(Open(server), nullptr);
  StderrCapture err;
  EXPECT_EQ(Login(session, "u", "p"), 0);
  EXPECT_NE(err.Text().find("SYST command failed"), std::string::npos);
}

TEST(QuoteForCL, DoublesBothQuoteCharactersAndBoundsTheResult) {
  EXPECT_STREQ(QuoteForCL(""), "");
  EXPECT_STREQ(QuoteForCL("/home/it's"), "/home/it''s");
  EXPECT_STREQ(QuoteForCL("a\"b\"c"), "a\"\"b\"\"c");
  std::string quotes(5000, '\'');
  EXPECT_EQ(strlen(QuoteForCL(quotes.c_str())), 4094u);  // a doubled quote passes 4093
  std::string plain(5000, 'p');
  EXPECT_EQ(strlen(QuoteForCL(plain.c_str())), 4093u);
}

TEST_F(SessionTest, MakeParentDirectoriesCreatesEveryParentButTheObject) {
  FakeFtpServer server(LoginScript([](PeerConnection& c, const std::string&) {
    c.Reply("550 exists\r\n");  // failures are ignored
    return true;
  }));
  ASSERT_NE(Open(server), nullptr);
  char path[] = "/a/b/c.txt";
  EXPECT_EQ(MakeParentDirectories(session, path), 0);
  EXPECT_STREQ(path, "/a/b/c.txt");
  char single[] = "/file";
  EXPECT_EQ(MakeParentDirectories(session, single), 0);
  char relative[] = "a/b";
  EXPECT_EQ(MakeParentDirectories(session, relative), 1);
  EXPECT_EQ(server.Commands(), (std::vector<std::string>{"MKD /a", "MKD /a/b"}));
}

// A login-speaking peer that drops the control connection when the n-th
// command matching `trigger` arrives, and can refuse logins after the first.
struct FlakyPeer {
  std::string trigger;
  int drop_at = 1;
  bool refuse_relogin = false;
  bool keep_dropping = false;  // also every later match
  std::atomic<int> seen{0};
  std::atomic<int> logins{0};
  PeerScript Script() {
    return [this](PeerConnection& c, const std::string& command) {
      if (command.rfind(trigger, 0) == 0) {
        int n = ++seen;
        if (n == drop_at || (keep_dropping && n > drop_at)) return false;
      }
      if (command.rfind("PASS", 0) == 0) {
        if (refuse_relogin && logins > 0) {
          c.Reply("530 Log on attempt rejected.\r\n");
          return true;
        }
        logins++;
      }
      return LoginScript()(c, command);
    };
  }
};

TEST_F(SessionTest, BrokenConnectionBeforeThePointOfNoReturnRunsTheOperationAgain) {
  FlakyPeer peer;
  peer.trigger = "NOOP";
  FakeFtpServer server(peer.Script());
  ASSERT_NE(Open(server), nullptr);
  ASSERT_EQ(Login(session, "u", "p"), 0);
  int runs = 0;
  StderrCapture err;
  int result = RunProtected(session, [&] {
    runs++;
    if (EnsureTransferSettings(session, {'I', false, false}) != 0) return -1;
    return Command(session->control, "NOOP");
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(runs, 2);
  EXPECT_NE(err.Text().find("recovering checkpoint"), std::string::npos);
  EXPECT_EQ(session->checkpoint_flags, 0);  // the outer (unarmed) checkpoint is back
  EXPECT_EQ(session->live_checkpoints, 0);
  auto commands = server.Commands();
  // The set-up is sent again after the new login, since the fields were cleared.
  std::vector<std::string> tail(commands.end() - 10, commands.end());
  EXPECT_EQ(tail, (std::vector<std::string>{"NOOP", "USER u", "PASS p", "CWD /", "SYST", "TIME 86400 86400",
                                            "STRU F", "MODE S", "TYPE I", "NOOP"}));
  EXPECT_EQ(server.connections(), 2);
}

// A reply that never ends, once: given up at its bound like a broken
// connection, so the protected operation reconnects, logs in again and
// runs again, before or after its point of no return as a drop would.
TEST_F(SessionTest, AReplyWithoutEndIsRecoveredLikeABrokenConnection) {
  for (const bool past_the_point : {false, true}) {
    SCOPED_TRACE(past_the_point);
    std::atomic<int> noops{0};
    FakeFtpServer server(LoginScript([&](PeerConnection& c, const std::string& command) {
      if (command != "NOOP" || ++noops > 1) {
        c.Reply("200 OK\r\n");
        return true;
      }
      const std::string more = "250-The reply goes on.\r\n";
      while (!c.server->stopping() && send(c.fd, more.data(), more.size(), MSG_NOSIGNAL) > 0) {
      }
      return false;
    }));
    ASSERT_NE(Open(server), nullptr);
    ASSERT_EQ(Login(session, "u", "p"), 0);
    int runs = 0;
    StderrCapture err;
    const int result = RunProtected(session, [&] {
      runs++;
      if (past_the_point) PassPointOfNoReturn(session);
      return Command(session->control, "NOOP");
    });
    const std::string text = err.Text();
    EXPECT_EQ(result, past_the_point ? -1 : 0);
    EXPECT_EQ(runs, past_the_point ? 1 : 2);
    EXPECT_TRUE(std::regex_search(
        text, std::regex(R"(\[socket\.cpp,\d+\]: reply longer than 1000 lines or 262144 bytes: connection given up\n)")))
        << text;
    EXPECT_NE(text.find("recovering checkpoint"), std::string::npos) << text;
    EXPECT_EQ(server.connections(), 2);
    EXPECT_EQ(Command(session->control, "NOOP"), 0);  // the new connection reads on as ever
    Quit(session);
    session = nullptr;
  }
}

TEST_F(SessionTest, BrokenConnectionAfterThePointOfNoReturnGivesMinusOne) {
  FlakyPeer peer;
  peer.trigger = "LIST";
  FakeFtpServer server(peer.Script());
  ASSERT_NE(Open(server), nullptr);
  ASSERT_EQ(Login(session, "u", "p"), 0);
  int runs = 0;
  StderrCapture err;
  int result = RunProtected(session, [&] {
    runs++;
    PassPointOfNoReturn(session);
    return Command(session->control, "LIST /");
  });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(session->checkpoint_flags, 0);
  // The session was reconnected and logged in again all the same.
  EXPECT_GE(session->control->descriptor, 0);
  EXPECT_EQ(Command(session->control, "NOOP"), 0);
}

TEST_F(SessionTest, RefusedReloginEndsTheOperation) {
  FlakyPeer peer;
  peer.trigger = "NOOP";
  peer.refuse_relogin = true;
  peer.keep_dropping = true;
  FakeFtpServer server(peer.Script());
  ASSERT_NE(Open(server), nullptr);
  ASSERT_EQ(Login(session, "u", "p"), 0);
  StderrCapture err;
  int result = RunProtected(session, [&] {
    return Command(session->control, "NOOP");
  });
  EXPECT_EQ(result, -1);
  std::string text = err.Text();
  size_t login = text.find("[ftp.cpp,");
  EXPECT_NE(text.find("login failed"), std::string::npos) << text;
  EXPECT_NE(text.find("can't recover checkpoint"), std::string::npos) << text;
  EXPECT_LT(text.find("login failed"), text.find("can't recover checkpoint"));
  EXPECT_NE(login, std::string::npos);
  // The failed recovery does not put the outer checkpoint back, but with no
  // protected operation running the session behaves as unarmed: a further
  // failure reports and returns instead of escaping.
  EXPECT_TRUE(session->checkpoint_flags & CHECKPOINT_ARMED);
  EXPECT_EQ(Command(session->control, "NOOP"), -1);
  EXPECT_NE(err.Text().find("jump buffer invalid"), std::string::npos);
}

TEST_F(SessionTest, OutsideAnyProtectedOperationTheCommandSimplyFails) {
  FlakyPeer peer;
  peer.trigger = "NOOP";
  FakeFtpServer server(peer.Script());
  ASSERT_NE(Open(server), nullptr);
  ASSERT_EQ(Login(session, "u", "p"), 0);
  StderrCapture err;
  EXPECT_EQ(Command(session->control, "NOOP"), -1);
  EXPECT_TRUE(std::regex_search(err.Text(), std::regex(R"(\[ftp\.cpp,\d+\]: jump buffer invalid\n)")));
}

TEST_F(SessionTest, ConnectionFailureDuringLoginIsNotRecovered) {
  FlakyPeer peer;
  peer.trigger = "PASS";
  FakeFtpServer server(peer.Script());
  ASSERT_NE(Open(server), nullptr);
  StderrCapture err;
  EXPECT_EQ(Login(session, "u", "p"), -1);
  EXPECT_NE(err.Text().find("jump buffer invalid"), std::string::npos);
  EXPECT_NE(err.Text().find("PASS command failed"), std::string::npos);
}

TEST_F(SessionTest, NestedOperationsPutTheOuterCheckpointBack) {
  FakeFtpServer server(LoginScript());
  ASSERT_NE(Open(server), nullptr);
  ASSERT_EQ(Login(session, "u", "p"), 0);
  uint8_t inside_outer = 0, inside_inner = 0, after_inner = 0;
  RunProtected(session, [&] {
    PassPointOfNoReturn(session);
    inside_outer = session->checkpoint_flags;
    RunProtected(session, [&] {
      inside_inner = session->checkpoint_flags;
      return 0;
    });
    after_inner = session->checkpoint_flags;
    return 0;
  });
  EXPECT_EQ(inside_outer, CHECKPOINT_ARMED);
  EXPECT_EQ(inside_inner, CHECKPOINT_ARMED | CHECKPOINT_RETRY);
  EXPECT_EQ(after_inner, CHECKPOINT_ARMED);
  EXPECT_EQ(session->checkpoint_flags, 0);
}

TEST_F(SessionTest, ALostConnectionReleasesTheArchiveLockOnlyAfterTheCutBack) {
  // The abort that carries a broken connection back to the checkpoint
  // passes the retrieval's guard: the archive is cut back to where it stood,
  // and only then may another worker take the lock.
  FlakyPeer peer;
  peer.trigger = "RETR";
  FakeFtpServer server(peer.Script());
  ASSERT_NE(Open(server), nullptr);
  ASSERT_EQ(Login(session, "u", "p"), 0);
  TempArchive archive;
  archive.Append(SentinelBlock());
  auto writer = ArchiveWriterFor(archive.fd);
  StderrCapture err;
  bool held_inside = false;
  int result = RunProtected(session, [&] {
    PassPointOfNoReturn(session);
    ArchiveAppend append(writer.get());
    // Data that came before the break: it must not survive the abort.
    EXPECT_EQ(write(archive.fd, std::string(700, 'x').data(), 700), 700);
    held_inside = !ArchiveLockIsFree();
    return Command(session->control, "RETR x");
  });
  EXPECT_EQ(result, -1);
  EXPECT_TRUE(held_inside);
  EXPECT_TRUE(ArchiveLockIsFree());
  EXPECT_EQ(archive.Contents(), SentinelBlock());
}

TEST_F(SessionTest, QuitOnABrokenSessionStillFreesEverything) {
  FlakyPeer peer;
  peer.trigger = "NOOP";
  FakeFtpServer server(peer.Script());
  ASSERT_NE(Open(server), nullptr);
  ASSERT_EQ(Login(session, "u", "p"), 0);
  StderrCapture err;
  Command(session->control, "NOOP");
  EXPECT_EQ(Quit(session), -1);
  session = nullptr;
  EXPECT_NE(err.Text().find("QUIT command failed"), std::string::npos);
}

}  // namespace
