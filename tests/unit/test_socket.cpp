// The transport against a scripted peer: the reply reader's rules, command
// limits, PASV parsing and the data transfer loop with its time-outs.
#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <string>

#include "fake_server.h"
#include "ftp.h"
#include "socket.h"
#include "test_helpers.h"
#include "vondral.h"

namespace {

using Clock = std::chrono::steady_clock;

struct TransportTest : ::testing::Test {
  void SetUp() override {
    PollStepMs = 60000;
    Settings.timeout_minutes = 8;
    Settings.verbosity = 0;
  }
  void TearDown() override {
    if (session) Quit(session);
    PollStepMs = 60000;
    Settings.timeout_minutes = 8;
    Settings.verbosity = 0;
  }
  FtpSession* Open(FakeFtpServer& server) {
    session = NewSessionTo(server.address());
    return session;
  }
  int Send(const char* command, char* reply = nullptr, size_t size = 0) {
    return SendCommand(session->control, command, reply, size, nullptr, nullptr, nullptr);
  }
  FtpSession* session = nullptr;
};

// Collects what a download delivers.
int Collect(void* argument, char* buffer, int* count) {
  static_cast<std::string*>(argument)->append(buffer, static_cast<size_t>(*count));
  return 0;
}

TEST_F(TransportTest, MultiLineGreetingIsConsumedWhole) {
  FakeFtpServer server(LoginScript(), "220-QTCP at X.\r\n220-second line\r\n220 ready\r\n");
  ASSERT_NE(Open(server), nullptr);
  char reply[128] = "";
  EXPECT_EQ(Send("NOOP", reply, sizeof reply), 0);
  EXPECT_EQ(session->control->reply_held, 0);
  EXPECT_EQ(server.Commands(), std::vector<std::string>{"NOOP"});
}

TEST_F(TransportTest, NegativeGreetingFailsTheConnection) {
  for (const char* greeting : {"421 busy\r\n", "120 wait\r\n", "530 no\r\n"}) {
    FakeFtpServer server(LoginScript(), greeting);
    StderrCapture err;
    EXPECT_EQ(NewSessionTo(server.address()), nullptr) << greeting;
    EXPECT_NE(err.Text().find("couldn't open control connection"), std::string::npos);
  }
}

TEST_F(TransportTest, CrLfSplitBetweenReadsIsNotALineEnd) {
  FakeFtpServer server([](PeerConnection& c, const std::string&) {
    c.Reply("200 x\r");
    usleep(100000);
    c.Reply("\n");
    usleep(100000);
    c.Reply("200 y\r\n");
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  auto start = Clock::now();
  EXPECT_EQ(Send("NOOP"), 0);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(190));
  // The second line stays buffered but was never counted.
  EXPECT_EQ(session->control->reply_held, 7);
  EXPECT_EQ(session->control->lines_held, 0);
}

TEST_F(TransportTest, IntermediateLinesAreSkippedAndLinesAreJudgedByTheirFirstDigit) {
  FakeFtpServer server([](PeerConnection& c, const std::string& command) {
    if (command == "A") c.Reply("250-first\r\n250-second\r\n250 done\r\n");
    if (command == "B") c.Reply("550-oops\r\n550 Not found.\r\n");
    if (command == "C") c.Reply("331 more\r\n");
    if (command == "D") c.Reply("452 full\r\n");
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  char reply[128];
  EXPECT_EQ(Send("A"), 0);
  strcpy(reply, "-");
  EXPECT_EQ(Send("B", reply, sizeof reply), 1);
  EXPECT_STREQ(reply, "550 Not found.");
  EXPECT_EQ(Send("C"), 0);
  EXPECT_EQ(Send("D", reply, sizeof reply), 1);
  EXPECT_STREQ(reply, "452 full");
}

TEST_F(TransportTest, ReplyLineLengthLimits) {
  FakeFtpServer server([](PeerConnection& c, const std::string& command) {
    if (command == "L4095") c.Reply("200 " + std::string(4091, 'a') + "\r\n");
    if (command == "L4096") c.Reply("200 " + std::string(4092, 'b') + "\r\n");
    if (command == "NOEND") c.Reply("200 " + std::string(4996, 'c'));
    if (command == "NOOP") c.Reply("200 fine\r\n");
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  char line[ReplyBufferSize];
  {
    StderrCapture err;
    ASSERT_EQ(Send("L4095"), 0);
    EXPECT_EQ(err.Text(), "");
  }
  {
    StderrCapture err;
    EXPECT_EQ(Send("L4096"), -1);
    EXPECT_TRUE(std::regex_search(err.Text(), std::regex(R"(vondral\[socket\.cpp,\d+\]: command reply too long\n)")))
        << err.Text();
  }
  // The refused line is gone: the connection goes on with the next reply.
  EXPECT_EQ(Send("NOOP"), 0);
  {
    StderrCapture err;
    SendAll(session->control->descriptor, "");
    EXPECT_EQ(Send("NOEND"), -1);
    EXPECT_EQ(err.Text(), "");  // a full buffer without a line end is silent
  }
  (void)line;
}

TEST_F(TransportTest, CommandLengthLimitsCountTheLineEnd) {
  std::vector<std::string> received;
  std::mutex lock;
  FakeFtpServer server([&](PeerConnection& c, const std::string& command) {
    c.Reply("200 ok\r\n");
    (void)command;
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  EXPECT_EQ(Send(std::string(4092, 'x').c_str()), 0);
  StderrCapture err;
  EXPECT_EQ(Send(std::string(4094, 'z').c_str()), -1);
  EXPECT_NE(err.Text().find("command too long"), std::string::npos);
  auto commands = server.Commands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(commands[0], std::string(4092, 'x'));
}

TEST_F(TransportTest, CommandOf4093CharactersGoesOutWithCrAndAZeroByte) {
  // A raw peer: the line has no LF, so a line-based server would never see it.
  sockaddr_in address{};
  int listener = ListenLoopback(&address);
  std::string wire;
  std::thread peer([&] {
    int fd = AcceptWithin(listener, 5000);
    SendAll(fd, "220 hi\r\n");
    char buffer[8192];
    while (wire.size() < 4095) {
      ssize_t n = read(fd, buffer, sizeof buffer);
      if (n <= 0) break;
      wire.append(buffer, static_cast<size_t>(n));
    }
    SendAll(fd, "200 ok\r\n");
    char b;
    while (read(fd, &b, 1) > 0) {
    }
    close(fd);
  });
  session = NewSessionTo(address);
  ASSERT_NE(session, nullptr);
  EXPECT_EQ(Send(std::string(4093, 'y').c_str()), 0);
  CloseConnection(session->control);
  free(session);
  session = nullptr;
  peer.join();
  close(listener);
  EXPECT_EQ(wire, std::string(4093, 'y') + "\r" + std::string(1, '\0'));
}

struct PasvCase {
  const char* reply;
  const char* message;
};

TEST_F(TransportTest, BadPassiveRepliesAreRefusedWithTheirMessages) {
  const PasvCase cases[] = {
      {"227 Entering Passive Mode (127,0,0,1,195)", "PASV response port invalid"},
      {"227 Entering Passive Mode (127,0,0,1,x,2)", "PASV response port invalid"},
      {"200 Entering Passive Mode (127,0,0,1,4,2)", "bad PASV response"},
      {"227 Entering Passive Mode (no address)", "PASV response without address"},
      {"227 (1234567890,1,2,3,4,5)", "PASV response address invalid"},
      {"227 (127,0,0,1)", "PASV response address invalid"},
      {"227 (300,1,2,3,4,5)", "PASV response address invalid"},
  };
  for (const PasvCase& c : cases) {
    std::string reply = c.reply;
    FakeFtpServer server([reply](PeerConnection& p, const std::string& command) {
      if (command == "PASV")
        p.Reply(reply + "\r\n");
      else
        p.Reply("550 no\r\n");
      return true;
    });
    ASSERT_NE(Open(server), nullptr);
    std::string got;
    StderrCapture err;
    EXPECT_EQ(SendCommand(session->control, "RETR x", nullptr, 0, Collect, nullptr, &got), -1);
    std::string text = err.Text();
    EXPECT_NE(text.find(c.message), std::string::npos) << c.reply << "\n" << text;
    EXPECT_NE(text.find("can't connect data port"), std::string::npos) << text;
    EXPECT_NE(text.find("PASV command failed"), std::string::npos) << text;
    // Nothing but PASV went out.
    EXPECT_EQ(server.Commands(), std::vector<std::string>{"PASV"});
    Quit(session);
    session = nullptr;
  }
}

TEST_F(TransportTest, DownloadWithPreliminaryReplyDeliversEveryByte) {
  std::string payload;
  for (int i = 0; i < 300000; i++) payload.push_back(static_cast<char>(i * 7 + i / 251));
  FakeFtpServer server([&](PeerConnection& c, const std::string& command) {
    if (command == "PASV") {
      c.Reply(c.PassiveReply());
    } else if (command.rfind("RETR", 0) == 0) {
      int data = c.AcceptData();
      c.Reply("150 Opening data connection.\r\n");
      SendAll(data, payload);
      close(data);
      c.Reply("226 Transfer complete.\r\n");
    }
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  std::string got;
  char reply[128] = "";
  EXPECT_EQ(SendCommand(session->control, "RETR /f", reply, sizeof reply, Collect, nullptr, &got), 0);
  EXPECT_EQ(got, payload);
  EXPECT_STREQ(reply, "150 Opening data connection.");
  EXPECT_EQ(session->control->data->descriptor, -1);
  // Each transfer makes its own PASV exchange.
  got.clear();
  EXPECT_EQ(SendCommand(session->control, "RETR /f", nullptr, 0, Collect, nullptr, &got), 0);
  EXPECT_EQ(got, payload);
  EXPECT_EQ(server.Commands(), (std::vector<std::string>{"PASV", "RETR /f", "PASV", "RETR /f"}));
}

TEST_F(TransportTest, NegativeReplyWithDataSocketClosedAtOnceGivesOne) {
  FakeFtpServer server([&](PeerConnection& c, const std::string& command) {
    if (command == "PASV") {
      c.Reply(c.PassiveReply());
    } else {
      close(c.AcceptData());
      c.Reply("550 CPF9812 File SAV1 in library QTEMP not found.\r\n");
    }
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  std::string got;
  char reply[128] = "";
  EXPECT_EQ(SendCommand(session->control, "RETR /x", reply, sizeof reply, Collect, nullptr, &got), 1);
  EXPECT_STREQ(reply, "550 CPF9812 File SAV1 in library QTEMP not found.");
  EXPECT_EQ(got, "");
}

struct Upload {
  std::string data;
  size_t at = 0;
  int calls = 0;
};

int Supply(void* argument, char* buffer, int* count) {
  auto* up = static_cast<Upload*>(argument);
  up->calls++;
  size_t n = std::min(static_cast<size_t>(*count), up->data.size() - up->at);
  memcpy(buffer, up->data.data() + up->at, n);
  up->at += n;
  *count = static_cast<int>(n);
  return 0;
}

TEST_F(TransportTest, UploadsMoveEveryByteAndAnEmptySupplyMakesAnEmptyFile) {
  std::string stored;
  std::mutex lock;
  FakeFtpServer server([&](PeerConnection& c, const std::string& command) {
    if (command == "PASV") {
      c.Reply(c.PassiveReply());
    } else if (command.rfind("STOR", 0) == 0) {
      int data = c.AcceptData();
      c.Reply("150 Sending.\r\n");
      std::string got;
      char buffer[65536];
      ssize_t n;
      while ((n = read(data, buffer, sizeof buffer)) > 0) got.append(buffer, static_cast<size_t>(n));
      close(data);
      {
        std::lock_guard<std::mutex> g(lock);
        stored = got;
      }
      c.Reply("226 Stored.\r\n");
    }
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  Upload up;
  for (int i = 0; i < 200000; i++) up.data.push_back(static_cast<char>(i % 253));
  EXPECT_EQ(SendCommand(session->control, "STOR /f", nullptr, 0, nullptr, Supply, &up), 0);
  {
    std::lock_guard<std::mutex> g(lock);
    EXPECT_EQ(stored, up.data);
  }
  Upload empty;
  EXPECT_EQ(SendCommand(session->control, "STOR /g", nullptr, 0, nullptr, Supply, &empty), 0);
  EXPECT_EQ(empty.calls, 1);
  std::lock_guard<std::mutex> g(lock);
  EXPECT_EQ(stored, "");
}

TEST_F(TransportTest, SilentDataConnectionCountsTimeOutsAgainstTheSetting) {
  PollStepMs = 50;
  Settings.timeout_minutes = 3;
  FakeFtpServer server([&](PeerConnection& c, const std::string& command) {
    if (command == "PASV") {
      c.Reply(c.PassiveReply());
    } else {
      int data = c.AcceptData();
      c.Reply("150 Opening.\r\n");
      SendAll(data, "some bytes");
      // Stall: wait for the client to give up and close its end.
      char b;
      while (read(data, &b, 1) > 0) {
      }
      close(data);
      c.Reply("426 Connection closed; transfer aborted.\r\n");
    }
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  std::string got;
  StderrCapture err;
  EXPECT_EQ(SendCommand(session->control, "RETR /s", nullptr, 0, Collect, nullptr, &got), -1);
  std::string text = err.Text();
  EXPECT_EQ(got, "some bytes");  // the short block before the stall
  for (int n = 1; n <= 3; n++)
    EXPECT_NE(text.find("poll(): timedout on data read after 0.05s (" + std::to_string(n) + " times)"),
              std::string::npos)
        << text;
  EXPECT_NE(text.find("Timeout limit reached (3 times)."), std::string::npos) << text;
  EXPECT_EQ(session->control->data->descriptor, -1);
  EXPECT_GE(session->control->descriptor, 0);  // a data failure keeps the control
}

TEST_F(TransportTest, ReplyNeverComingToATransferAbandonsBothConnections) {
  PollStepMs = 40;
  Settings.timeout_minutes = 2;
  FakeFtpServer server([&](PeerConnection& c, const std::string& command) {
    if (command == "PASV") {
      c.Reply(c.PassiveReply());
      return true;
    }
    int data = c.AcceptData();
    usleep(400000);  // never answers RETR
    close(data);
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  std::string got;
  StderrCapture err;
  EXPECT_EQ(SendCommand(session->control, "RETR /s", nullptr, 0, Collect, nullptr, &got), -1);
  std::string text = err.Text();
  EXPECT_NE(text.find("poll(): timedout after 0.04s (0.04s)"), std::string::npos) << text;
  EXPECT_NE(text.find("poll(): timedout after 0.04s (0.08s)"), std::string::npos) << text;
  EXPECT_NE(text.find("jump buffer invalid"), std::string::npos) << text;  // nothing armed
  EXPECT_EQ(session->control->descriptor, -1);
  EXPECT_EQ(session->control->data->descriptor, -1);
}

TEST_F(TransportTest, PlainCommandWaitsForItsReplyWithoutLimit) {
  PollStepMs = 40;
  Settings.timeout_minutes = 1;
  FakeFtpServer server([&](PeerConnection& c, const std::string&) {
    usleep(150000);
    c.Reply("250 Command SAV successful.\r\n");
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  StderrCapture err;
  EXPECT_EQ(Send("RCMD SAV"), 0);
  std::string text = err.Text();
  EXPECT_NE(text.find("(0.04s)"), std::string::npos) << text;
  EXPECT_NE(text.find("(0.08s)"), std::string::npos) << text;
  EXPECT_NE(text.find("(0.12s)"), std::string::npos) << text;
}

TEST_F(TransportTest, ClosedControlConnectionIsReportedAndCleared) {
  FakeFtpServer server([&](PeerConnection&, const std::string&) { return false; });
  ASSERT_NE(Open(server), nullptr);
  StderrCapture err;
  EXPECT_EQ(Send("NOOP"), -1);
  std::string text = err.Text();
  EXPECT_TRUE(std::regex_search(text, std::regex(R"(\]: 127\.0\.0\.1:\d+: control connection closed\n)"))) << text;
  EXPECT_NE(text.find("jump buffer invalid"), std::string::npos);
  EXPECT_EQ(session->control->descriptor, -1);
  EXPECT_EQ(session->control->reply_held, 0);
  // The next command finds the connection gone.
  EXPECT_EQ(Send("NOOP"), -1);
}

TEST_F(TransportTest, PasswordIsMaskedInTheCommandTrace) {
  Settings.verbosity = 5;
  FakeFtpServer server(LoginScript());
  ASSERT_NE(Open(server), nullptr);
  CapturedStream out;
  FILE* saved = stdout;
  stdout = out.stream;
  int result = Login(session, "qsecofr", "Sup3rS3cret");
  stdout = saved;
  EXPECT_EQ(result, 0);
  std::string text = out.Text();
  EXPECT_NE(text.find("sent command \"PASS ********\""), std::string::npos) << text;
  EXPECT_NE(text.find("sent command \"USER qsecofr\""), std::string::npos) << text;
  EXPECT_EQ(text.find("Sup3rS3cret"), std::string::npos) << text;
}

TEST_F(TransportTest, ClosingADataRecordAlwaysGivesMinusOne) {
  FakeFtpServer server(LoginScript());
  ASSERT_NE(Open(server), nullptr);
  FtpConnection* data = session->control->data;
  session->control->data = nullptr;
  EXPECT_EQ(CloseConnection(data), -1);
  EXPECT_EQ(CloseConnection(nullptr), -1);
}

}  // namespace
