// The transport against a scripted peer: the reply reader's rules, command
// limits, PASV parsing, the data transfer loop with its time-outs, and no
// command after a termination request's grace.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fake_server.h"
#include "ftp/checkpoint.h"
#include "ftp/data_command.h"
#include "ftp/remote_listing.h"
#include "ftp/reply_judge.h"
#include "ftp/session.h"
#include "ftp/transfer_settings.h"
#include "net/command.h"
#include "net/data_connection.h"
#include "net/reply_reader.h"
#include "test_helpers.h"
#include "cli/settings.h"
#include "support/sysio.h"
#include "support/termination.h"

namespace {

using Clock = std::chrono::steady_clock;

// Collects what a download delivers.
int Collect(void* argument, char* buffer, int* count) {
  static_cast<std::string*>(argument)->append(buffer, static_cast<size_t>(*count));
  return 0;
}

struct TransportTest : ::testing::Test {
  void SetUp() override { Defaults(); }
  void TearDown() override {
    TerminationRequested = 0;
    if (session) Quit(session);
    Defaults();
  }
  static void Defaults() {
    PollStepMs = 60000;
    Settings.timeout_minutes = 8;
    Settings.verbosity = 0;
  }
  FtpSession* Open(FakeFtpServer& server) { return session = NewSessionTo(server.address()); }
  int Send(const std::string& command, Reply* reply = nullptr) {
    return Command(session->control, command.c_str(), reply);
  }
  // A download into `got`.
  int Retr(const char* command, std::string* got, Reply* reply = nullptr) {
    Transfer transfer;
    transfer.receive = Collect;
    transfer.argument = got;
    return DataCommand(session, command, transfer, reply);
  }
  FtpSession* session = nullptr;
};

// A negative greeting fails the connection; a multi-line one is consumed
// whole, and the login that follows never shows the password in the trace.
TEST_F(TransportTest, GreetingsAndTheLoginTrace) {
  for (const char* greeting : {"421 busy\r\n", "120 wait\r\n", "530 no\r\n"}) {
    FakeFtpServer server(LoginScript(), greeting);
    StderrCapture err;
    EXPECT_EQ(NewSessionTo(server.address()), nullptr) << greeting;
    EXPECT_NE(err.Text().find("couldn't open control connection"), std::string::npos);
  }
  FakeFtpServer server(LoginScript(), "220-QTCP at X.\r\n220-second line\r\n220 ready\r\n");
  ASSERT_NE(Open(server), nullptr);
  EXPECT_EQ(session->control->reply_held, 0);
  Settings.verbosity = 5;
  StdoutCapture out;
  EXPECT_EQ(Login(session, "qsecofr", "Sup3rS3cret"), 0);
  const std::string text = out.Text();
  EXPECT_NE(text.find("sent command \"PASS ********\""), std::string::npos) << text;
  EXPECT_NE(text.find("sent command \"USER qsecofr\""), std::string::npos) << text;
  EXPECT_EQ(text.find("Sup3rS3cret"), std::string::npos) << text;
}

// A reply sent in two pieces, cut at every place: a CR LF whose CR ends
// the first read and whose LF starts the second is one line end like any
// other, so the reply is read at once, never after a poll step.
TEST_F(TransportTest, ACrLfSplitBetweenTwoReadsIsOneLineEnd) {
  PollStepMs = 2000;  // a missed line end fails the command after 2 s
  const std::string sent = "250-first\r\n250 done\r\n";
  size_t cut = 0;
  FakeFtpServer server([&](PeerConnection& c, const std::string&) {
    c.Reply(sent.substr(0, cut));
    usleep(30000);  // two reads on the other side
    c.Reply(sent.substr(cut));
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  for (cut = 1; cut < sent.size(); cut++) {
    SCOPED_TRACE(cut);
    Reply reply;
    StderrCapture err;
    const auto start = Clock::now();
    EXPECT_EQ(Send("NOOP", &reply), 0);
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1000));
    EXPECT_STREQ(reply.line, "250 done");
    EXPECT_EQ(session->control->reply_held, 0);
    EXPECT_EQ(session->control->lines_held, 0);
    EXPECT_EQ(err.Text(), "");
  }
}

// The reply reader, one reply per command: intermediate lines are skipped,
// the final line is judged by its first digit and handed back whole, a
// negative one also as the text a failure message quotes (cut to 127
// characters); a line of 4095 characters is the longest taken, a longer one
// is refused and dropped, and a buffer filled without a line end is given up
// silently.
TEST_F(TransportTest, ReplyReaderJudgesFinalLinesUpTo4095Characters) {
  const std::string longest = "500 " + std::string(4091, 'a');
  const struct { std::string sent; int result; std::string line, quoted; const char* message; } cases[] = {
      {"250-first\r\n250-second\r\n250 done\r\n", 0, "250 done", "", nullptr},
      {"550-oops\r\n550 Not found.\r\n", 1, "550 Not found.", "550 Not found.", nullptr},
      {"331 more\r\n", 0, "331 more", "", nullptr},
      {"452 full\r\n", 1, "452 full", "452 full", nullptr},
      {longest + "\r\n", 1, longest, longest.substr(0, QuotedReplySize - 1), nullptr},
      {"200 " + std::string(4092, 'b') + "\r\n", -1, "", "", "command reply too long\n"},
      {"200 fine\r\n", 0, "200 fine", "", nullptr},  // the refused line is gone
      {"200 " + std::string(4996, 'c'), -1, "", "", nullptr},
  };
  FakeFtpServer server([&cases](PeerConnection& c, const std::string& command) {
    c.Reply(cases[std::stoi(command)].sent);
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  for (size_t i = 0; i < std::size(cases); i++) {
    SCOPED_TRACE(cases[i].sent.substr(0, 40));
    Reply reply;
    StderrCapture err;
    EXPECT_EQ(Send(std::to_string(i), &reply), cases[i].result);
    EXPECT_EQ(std::string(reply.line), cases[i].line);
    EXPECT_EQ(std::string(reply.quoted), cases[i].quoted);
    if (cases[i].message)
      EXPECT_TRUE(std::regex_search(err.Text(), std::regex(std::string(R"(vondral\[socket\.cpp,\d+\]: )") +
                                                           cases[i].message)))
          << err.Text();
    else
      EXPECT_EQ(err.Text(), "");
  }
}

// A raw peer: a command goes out whole with its CR LF up to 4092
// characters; a longer one is refused and nothing of it is sent (4093
// characters once went out cut, as CR and a zero byte). A command holding a
// line end is refused whole too: the server would read a second command.
TEST_F(TransportTest, CommandsUpTo4092CharactersGoOutWholeLongerOnesAndLineEndsAreRefused) {
  auto of = [](size_t length) { return std::string(length, static_cast<char>('a' + length % 26)); };
  const struct {
    std::string command;
    int result;
    const char* message;  // nullptr: sent whole
  } cases[] = {
      {of(1), 0, nullptr},
      {of(4091), 0, nullptr},
      {of(4092), 0, nullptr},
      {of(4093), -1, "command too long"},
      {of(4094), -1, "command too long"},
      {of(9000), -1, "command too long"},
      {"RCMD RSTOBJ OBJ(A)\r\nDELE /x", -1, "command holds a line end: not sent"},
      {"PASS secret\n", -1, "command holds a line end: not sent"},
      {"MKD /a\rb", -1, "command holds a line end: not sent"},
      {"\r\n", -1, "command holds a line end: not sent"},
      {"MKD /a\tb", 0, nullptr},
  };
  sockaddr_in address{};
  int listener = ListenLoopback(&address);
  std::string wire;
  std::thread peer([&] {
    int fd = AcceptWithin(listener, 5000);
    SendAll(fd, "220 hi\r\n");
    char buffer[8192];
    for (ssize_t n, answered = 0; (n = read(fd, buffer, sizeof buffer)) > 0;) {
      wire.append(buffer, static_cast<size_t>(n));
      for (; answered < std::count(wire.begin(), wire.end(), '\r'); answered++) SendAll(fd, "200 ok\r\n");
    }
    close(fd);
  });
  session = NewSessionTo(address);
  ASSERT_NE(session, nullptr);
  std::string expected;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command.substr(0, 40));
    StderrCapture err;
    EXPECT_EQ(Send(c.command), c.result);
    if (!c.message) {
      expected += c.command + "\r\n";
      EXPECT_EQ(err.Text(), "");
    } else {
      EXPECT_TRUE(std::regex_search(err.Text(), std::regex(std::string(R"(vondral\[socket\.cpp,\d+\]: )") +
                                                           c.message + "\n")))
          << err.Text();
      EXPECT_EQ(err.Text().find("secret"), std::string::npos);
    }
  }
  Quit(session);
  session = nullptr;
  peer.join();
  close(listener);
  EXPECT_EQ(wire, expected + "QUIT\r\n");
}

// A multi-line reply runs from its first line "nnn-" to the first line
// with the same code and a space. Whatever lies between is intermediate,
// even a line that looks like a reply of its own; the final line is what
// the command gets, and every line is in the raw log at verbosity 4.
TEST_F(TransportTest, EveryLineBetweenTheFirstAndTheFinalLineOfAMultiLineReplyIsIntermediate) {
  const struct {
    std::vector<std::string> sends;  // each with a pause behind it
    int result;
    const char* line;
  } cases[] = {
      {{"230-Welcome\r\n  230 is not final\r\nhello\r\n230 done\r\n"}, 0, "230 done"},
      {{"230-Welcome\r\n", "  230 is not final\r\n", "hello\r\n", "230 done\r\n"}, 0, "230 done"},
      {{"550-Refused\r\n250 looks positive\r\n200-looks like another\r\n550 No.\r\n"}, 1, "550 No."},
      {{"250-a\r\n251 another code\r\n250-b\r\n250\r\n2500 x\r\n250 c\r\n"}, 0, "250 c"},
      {{"250-a\r\n\r\n-\r\n250 \r\n"}, 0, "250 "},
      {{"250-a\r\n250-b\r\n250 c\r\n"}, 0, "250 c"},
      // Lines that are no reply at all, outside a multi-line reply.
      {{"hello\r\n"}, 1, "hello"},
      {{"  230 not a code\r\n"}, 1, "  230 not a code"},
      {{"abc-x\r\n"}, 1, "abc-x"},
      {{"200 ok\r\n"}, 0, "200 ok"},
  };
  size_t index = 0;
  FakeFtpServer server([&](PeerConnection& c, const std::string&) {
    for (const std::string& piece : cases[index].sends) {
      c.Reply(piece);
      usleep(10000);
    }
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  Settings.verbosity = 4;
  for (index = 0; index < std::size(cases); index++) {
    std::string all;
    for (const std::string& piece : cases[index].sends) all += piece;
    SCOPED_TRACE(all);
    Reply reply;
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(Send("NOOP", &reply), cases[index].result);
    EXPECT_STREQ(reply.line, cases[index].line);
    EXPECT_EQ(session->control->reply_held, 0);
    EXPECT_EQ(session->control->lines_held, 0);
    const std::string logged = out.Text();
    for (size_t at = 0, end; (end = all.find("\r\n", at)) != std::string::npos; at = end + 2)
      EXPECT_NE(logged.find(all.substr(at, end + 2 - at)), std::string::npos) << all.substr(at, end - at);
  }
}

// The bounds of one reply: 1000 lines and 262144 bytes, intermediate lines
// and line ends included. A reply (or greeting) past either fails like a
// broken connection: the connection is closed and handed to the checkpoint
// (none is armed here); one that never ends is given up the same way.
std::string MultiLineReply(int lines, size_t bytes) {
  // lines - 1 intermediate lines, then "250 end\r\n"; the last intermediate
  // line takes up what is left of bytes.
  const std::string final_line = "250 end\r\n";
  std::string text;
  size_t left = bytes - final_line.size();
  for (int i = 0; i < lines - 1; i++) {
    const size_t lines_after = static_cast<size_t>(lines - 2 - i);
    size_t length = i == lines - 2 ? left : std::min<size_t>(4000, left - lines_after * 6);
    text += "250-" + std::string(length - 6, 'm') + "\r\n";
    left -= length;
  }
  return text + final_line;
}

TEST_F(TransportTest, AReplyPastItsBoundsIsGivenUpLikeABrokenConnection) {
  const char* const given_up =
      R"(vondral\[socket\.cpp,\d+\]: reply longer than 1000 lines or 262144 bytes: connection given up\n)";
  const struct {
    const char* what;
    std::string reply;  // empty: continuation lines without end
    bool within;
  } cases[] = {
      {"1000 lines", MultiLineReply(1000, 1000 * 8), true},
      {"1001 lines", MultiLineReply(1001, 1001 * 8), false},
      {"262144 bytes", MultiLineReply(70, 262144), true},
      {"262145 bytes", MultiLineReply(70, 262145), false},
      {"1001 lines of 262144 bytes", MultiLineReply(1001, 262144), false},
      {"without end", "", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    FakeFtpServer server([&](PeerConnection& p, const std::string& command) {
      if (command != "NOOP") {
        p.Reply("200 ok\r\n");
      } else if (!c.reply.empty()) {
        p.Reply(c.reply);
      } else {
        const std::string more = "250-" + std::string(100, 'x') + "\r\n";
        while (!p.server->stopping() && send(p.fd, more.data(), more.size(), MSG_NOSIGNAL) > 0) {
        }
        return false;
      }
      return true;
    });
    ASSERT_NE(Open(server), nullptr);
    Reply reply;
    StderrCapture err;
    EXPECT_EQ(Send("NOOP", &reply), c.within ? 0 : -1);
    const std::string text = err.Text();
    if (c.within) {
      EXPECT_STREQ(reply.line, "250 end");
      EXPECT_EQ(text, "");
      EXPECT_EQ(Send("TYPE I"), 0);  // the next reply is read as ever
    } else {
      EXPECT_TRUE(std::regex_search(text, std::regex(given_up))) << text;
      EXPECT_NE(text.find("jump buffer invalid"), std::string::npos) << text;
      EXPECT_EQ(session->control->descriptor, -1);
      EXPECT_EQ(session->control->reply_held, 0);
      EXPECT_EQ(session->control->reply_lines, 0);
    }
    Quit(session);
    session = nullptr;
  }
}

TEST_F(TransportTest, AGreetingPastTheBoundsFailsTheConnection) {
  const struct {
    int lines;
    bool within;
  } cases[] = {{2, true}, {1000, true}, {1001, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lines);
    std::string greeting;
    for (int i = 1; i < c.lines; i++) greeting += "220-line " + std::to_string(i) + "\r\n";
    FakeFtpServer server(LoginScript(), greeting + "220 ready\r\n");
    StderrCapture err;
    FtpSession* opened = NewSessionTo(server.address());
    EXPECT_EQ(opened != nullptr, c.within);
    const std::string text = err.Text();
    EXPECT_EQ(text.find("reply longer than 1000 lines or 262144 bytes: connection given up\n") != std::string::npos,
              !c.within)
        << text;
    if (opened) Quit(opened);
  }
}

TEST(ParsePassiveReply, ReadsAddressAndPortAndRefusesWhatDoesNotFitTheTextField) {
  const struct {
    const char* reply;
    size_t text_size;
    const char* address;  // nullptr: refused with the message
    int port;
    const char* message;
  } cases[] = {
      {"227 Entering Passive Mode (127,0,0,1,4,2).", 17, "127.0.0.1", 1026, nullptr},
      {"227 (10,20,30,40,255,255)", 17, "10.20.30.40", 65535, nullptr},
      {"227 =192,168,1,2,0,21", 17, "192.168.1.2", 21, nullptr},
      {"227 (255,255,255,255,1,1)", 16, "255.255.255.255", 257, nullptr},  // fills the field
      {"227 (255,255,255,255,1,1)", 15, nullptr, 0, "PASV response address invalid"},
      {"227 (1234567890,1,2,3,4,5)", 17, nullptr, 0, "PASV response address invalid"},
      {"227 (127,0,0,1)", 17, nullptr, 0, "PASV response address invalid"},
      {"227 (300,1,2,3,4,5)", 17, nullptr, 0, "PASV response address invalid"},
      {"227 Entering Passive Mode (127,0,0,1,195)", 17, nullptr, 0, "PASV response port invalid"},
      {"227 Entering Passive Mode (127,0,0,1,x,2)", 17, nullptr, 0, "PASV response port invalid"},
      {"200 Entering Passive Mode (127,0,0,1,4,2)", 17, nullptr, 0, "bad PASV response"},
      {"227 Entering Passive Mode (no address)", 17, nullptr, 0, "PASV response without address"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reply);
    sockaddr_in address{};
    char text[17];
    StderrCapture err;
    const int result = ParsePassiveReply(c.reply, &address, text, c.text_size);
    if (c.message) {
      EXPECT_EQ(result, -1);
      EXPECT_NE(err.Text().find(c.message), std::string::npos) << err.Text();
      continue;
    }
    EXPECT_EQ(result, 0);
    EXPECT_STREQ(text, c.address);
    EXPECT_EQ(address.sin_addr.s_addr, inet_addr(c.address));
    EXPECT_EQ(ntohs(address.sin_port), c.port);
    EXPECT_EQ(err.Text(), "");
  }
}

TEST(ParseExtendedPassiveReply, ReadsThePortBetweenDelimitersAndRefusesAnythingElse) {
  const struct {
    const char* reply;
    int port;  // 0: refused with the message
    const char* message;
  } cases[] = {
      {"229 Entering Extended Passive Mode (|||6446|)", 6446, nullptr},
      {"229 (!!!1!)", 1, nullptr},
      {"229 ok (###65535#)", 65535, nullptr},
      {"229 Extended Passive Mode (EPSV) (|||5001|)", 5001, nullptr},
      {"229 (|||1|) (|||2|)", 2, nullptr},
      {"229 Entering Extended Passive Mode (|||65536|)", 0, "EPSV response port invalid"},
      {"229 Entering Extended Passive Mode (|||0|)", 0, "EPSV response port invalid"},
      {"229 Entering Extended Passive Mode (|||000006446|)", 0, "EPSV response port invalid"},
      {"229 Entering Extended Passive Mode (||6446|)", 0, "EPSV response port invalid"},
      {"229 Entering Extended Passive Mode (|||6446)", 0, "EPSV response port invalid"},
      {"229 Entering Extended Passive Mode (|||6446!)", 0, "EPSV response port invalid"},
      {"229 Entering Extended Passive Mode (|||x|)", 0, "EPSV response port invalid"},
      {"229 Entering Extended Passive Mode (   6446 )", 0, "EPSV response port invalid"},
      {"229 Entering Extended Passive Mode (|||-1|)", 0, "EPSV response port invalid"},
      {"229 Entering Extended Passive Mode (|||", 0, "EPSV response port invalid"},
      {"229 Entering Extended Passive Mode |||6446|", 0, "bad EPSV response"},
      {"227 Entering Passive Mode (127,0,0,1,4,2)", 0, "bad EPSV response"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reply);
    int port = -1;
    StderrCapture err;
    const int result = ParseExtendedPassiveReply(c.reply, &port);
    if (c.message) {
      EXPECT_EQ(result, -1);
      EXPECT_EQ(port, 0);
      EXPECT_NE(err.Text().find(c.message), std::string::npos) << err.Text();
      continue;
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(port, c.port);
    EXPECT_EQ(err.Text(), "");
  }
}

struct Upload {
  std::string data;
  size_t at = 0;
  int calls = 0;
};

int Supply(void* argument, char* buffer, int* count, const char**) {
  auto* up = static_cast<Upload*>(argument);
  *count = static_cast<int>(up->data.copy(buffer, static_cast<size_t>(*count), up->at));
  up->at += static_cast<size_t>(*count);
  up->calls++;
  return 0;
}

// Lends the upload its own bytes, in pieces of changing sizes, and spoils
// the transfer buffer meanwhile: what is sent must come from where the
// count's bytes were lent, not from the buffer.
int Lend(void* argument, char* buffer, int* count, const char** bytes) {
  auto* up = static_cast<Upload*>(argument);
  memset(buffer, '#', static_cast<size_t>(*count));
  const size_t piece = std::min<size_t>(static_cast<size_t>(*count), 1000 + 7919 * static_cast<size_t>(up->calls) % 65536);
  *count = static_cast<int>(std::min(piece, up->data.size() - up->at));
  *bytes = up->data.data() + up->at;
  up->at += static_cast<size_t>(*count);
  up->calls++;
  return 0;
}

// The first PASV gets an unusable reply; then RETR /f sends the payload
// after a preliminary reply, RETR /x closes the data connection at once and
// refuses, STOR keeps what arrives.
TEST_F(TransportTest, TransfersMoveEveryByteBothWaysEachWithItsOwnPassiveExchange) {
  std::string payload;
  for (int i = 0; i < 300000; i++) payload.push_back(static_cast<char>(i * 7 + i / 251));
  std::vector<std::string> stored;
  std::mutex lock;
  bool refused_once = false;
  FakeFtpServer server([&](PeerConnection& c, const std::string& command) {
    if (command == "PASV") {
      const bool refuse = !std::exchange(refused_once, true);
      c.Reply(refuse ? "227 Entering Passive Mode (127,0,0,1,195)\r\n" : c.PassiveReply());
      return true;
    }
    int data = c.AcceptData();
    if (command == "RETR /x") {
      close(data);
      c.Reply("550 CPF9812 File SAV1 in library QTEMP not found.\r\n");
      return true;
    }
    c.Reply("150 Opening data connection.\r\n");
    std::string got;
    char buffer[65536];
    if (command == "RETR /f")
      SendAll(data, payload);
    else
      for (ssize_t n; (n = read(data, buffer, sizeof buffer)) > 0;) got.append(buffer, static_cast<size_t>(n));
    close(data);
    std::lock_guard<std::mutex> g(lock);
    if (command != "RETR /f") stored.push_back(got);
    c.Reply("226 Transfer complete.\r\n");
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  std::string got;
  {
    StderrCapture err;  // the transfer's command never goes out
    EXPECT_EQ(Retr("RETR /f", &got), -1);
    EXPECT_NE(err.Text().find("can't connect data port"), std::string::npos) << err.Text();
    EXPECT_NE(err.Text().find("PASV command failed"), std::string::npos) << err.Text();
  }
  Reply reply;
  EXPECT_EQ(Retr("RETR /f", &got, &reply), 0);
  EXPECT_EQ(got, payload);
  EXPECT_STREQ(reply.quoted, "150 Opening data connection.");  // the preliminary reply is quoted
  EXPECT_STREQ(reply.line, "226 Transfer complete.");
  EXPECT_EQ(session->control->data->descriptor, -1);
  got.clear();
  reply = Reply{};
  EXPECT_EQ(Retr("RETR /x", &got, &reply), 1);
  EXPECT_STREQ(reply.quoted, "550 CPF9812 File SAV1 in library QTEMP not found.");
  EXPECT_EQ(got, "");
  Upload up, empty, lent;
  for (int i = 0; i < 200000; i++) up.data.push_back(static_cast<char>(i % 253));
  for (int i = 0; i < 700000; i++) lent.data.push_back(static_cast<char>(i % 241));
  Transfer store_up, store_empty, store_lent;
  store_up.send = store_empty.send = Supply;
  store_lent.send = Lend;
  store_up.argument = &up;
  store_empty.argument = &empty;
  store_lent.argument = &lent;
  EXPECT_EQ(DataCommand(session, "STOR /f", store_up), 0);
  EXPECT_EQ(DataCommand(session, "STOR /g", store_empty), 0);
  EXPECT_EQ(DataCommand(session, "STOR /h", store_lent), 0);
  EXPECT_EQ(empty.calls, 1);  // an empty supply makes an empty file
  EXPECT_EQ(server.Commands(), (std::vector<std::string>{"PASV", "PASV", "RETR /f", "PASV", "RETR /x", "PASV",
                                                         "STOR /f", "PASV", "STOR /g", "PASV", "STOR /h"}));
  std::lock_guard<std::mutex> g(lock);
  EXPECT_EQ(stored, (std::vector<std::string>{up.data, "", lent.data}));
}

// Supplies zero bytes without end, for an upload into a server that stops
// taking them.
int SupplyForever(void*, char* buffer, int* count, const char**) {
  memset(buffer, 0, static_cast<size_t>(*count));
  return 0;
}

// Time-outs, counted in poll steps lowered to 40 ms against a limit of two,
// each case on a session of its own: a save or restore command (which can
// run for hours) waits for its reply past the limit; any other command's
// reply is given up at the limit with both connections; a data connection
// gone silent, reading or writing, fails the transfer at the limit but keeps
// the control connection; a transfer whose reply never comes abandons both.
TEST_F(TransportTest, EveryWaitButASaveOrRestoreCommandEndsAtTheTimeout) {
  enum Kind { Plain, Long, Retrieve, Store };
  struct Case {
    Kind kind;
    const char* command;
    int result;
    bool control_kept;
    std::vector<std::string> said;      // failure lines after the module head
    std::vector<std::string> not_said;  // texts that must not appear
  };
  const std::string given_up = " within 2 minutes: connection given up";
  const Case cases[] = {
      {Long, "RCMD SAV", 0, true,
       {"poll(): timedout after 0.04s (0.04s)", "poll(): timedout after 0.04s (0.08s)",
        "poll(): timedout after 0.04s (0.12s)"},
       {"no reply"}},
      {Plain, "RCMD CLRSAVF", -1, false,
       {"poll(): timedout after 0.04s (0.08s)", "no reply to RCMD CLRSAVF" + given_up, "jump buffer invalid"},
       {"(0.12s)"}},
      {Plain, "PASS Sup3rS3cret", -1, false, {"no reply to PASS ********" + given_up}, {"Sup3rS3cret"}},
      {Retrieve, "RETR /stall", -1, true,
       {"poll(): timedout on data read after 0.04s (1 times)", "poll(): timedout on data read after 0.04s (2 times)",
        "Timeout limit reached (2 times)."},
       {"(3 times)", "no reply"}},
      {Retrieve, "RETR /silent", -1, false,
       {"poll(): timedout after 0.04s (0.08s)", "no reply to RETR /silent" + given_up, "jump buffer invalid"},
       {"(0.12s)"}},
      {Store, "STOR /stuck", -1, true,
       {"poll(): timedout on data write after 0.04s", "Timeout limit reached (2 times)."}, {"no reply"}},
  };
  auto script = [](PeerConnection& c, const std::string& command) {
    if (command == "QUIT") {
      c.Reply("221 QUIT subcommand received.\r\n");
      return false;
    } else if (command == "PASV") {
      c.Reply(c.PassiveReply());
    } else if (command == "RCMD SAV") {
      usleep(150000);
      c.Reply("250 Command SAV successful.\r\n");
    } else if (command == "RETR /stall") {
      int data = c.AcceptData();
      c.Reply("150 Opening.\r\n");
      SendAll(data, "some bytes");
      for (char b; read(data, &b, 1) > 0;) {  // until the client gives up
      }
      close(data);
      c.Reply("426 Connection closed; transfer aborted.\r\n");
    } else if (command == "STOR /stuck") {
      // Takes nothing: the client's buffers fill and its writes stall. The
      // final reply is there for when it has given up.
      int data = c.AcceptData();
      c.Reply("150 Opening.\r\n");
      usleep(30000);
      c.Reply("426 Connection closed; transfer aborted.\r\n");
      usleep(800000);
      close(data);
    } else if (command == "RETR /silent") {
      int data = c.AcceptData();
      usleep(400000);  // never answers
      close(data);
    } else {
      usleep(300000);  // never answers in time
    }
    return true;
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    FakeFtpServer server(script);
    ASSERT_NE(Open(server), nullptr);
    PollStepMs = 40;
    Settings.timeout_minutes = 2;
    StderrCapture err;
    std::string got;
    Transfer store;
    store.send = SupplyForever;
    switch (c.kind) {
      case Plain: EXPECT_EQ(Send(c.command), c.result); break;
      case Long: EXPECT_EQ(LongCommand(session->control, c.command), c.result); break;
      case Retrieve: EXPECT_EQ(Retr(c.command, &got), c.result); break;
      case Store: EXPECT_EQ(DataCommand(session, c.command, store), c.result); break;
    }
    const std::string text = err.Text();
    for (const std::string& line : c.said) {
      const std::string escaped = std::regex_replace(line, std::regex(R"([.*()])"), R"(\$&)");
      EXPECT_TRUE(std::regex_search(text, std::regex(R"(\[socket\.cpp,\d+\]: )" + escaped + "\n|" +
                                                     R"(\[ftp\.cpp,\d+\]: )" + escaped + "\n")))
          << line << "\n" << text;
    }
    for (const std::string& absent : c.not_said) EXPECT_EQ(text.find(absent), std::string::npos) << text;
    EXPECT_EQ(session->control->descriptor >= 0, c.control_kept) << text;
    EXPECT_EQ(session->control->data->descriptor, -1);
    PollStepMs = 60000;
    Quit(session);
    session = nullptr;
  }
}

TEST_F(TransportTest, AClosedControlConnectionIsReportedAndItsPartLineDropped) {
  FakeFtpServer server([](PeerConnection& c, const std::string&) {
    c.Reply("421 cut");  // no line end before the close
    return false;
  });
  ASSERT_NE(Open(server), nullptr);
  StderrCapture err;
  EXPECT_EQ(Send("NOOP"), -1);
  const std::string text = err.Text();
  EXPECT_TRUE(std::regex_search(text, std::regex(R"(\]: 127\.0\.0\.1:\d+: control connection closed\n)")))
      << text;
  EXPECT_EQ(session->control->descriptor, -1);
  EXPECT_EQ(session->control->reply_held, 0);
  // The next command finds the connection gone.
  EXPECT_EQ(Send("NOOP"), -1);
}

TEST_F(TransportTest, NoCommandIsSentOnceTheGraceAfterATerminationRequestIsOver) {
  struct Case {
    const char* command;
    bool transfer;      // with a data callback: not even PASV goes out
    const char* shown;  // in the message; a password never is
  };
  const Case cases[] = {
      {"NOOP", false, "NOOP"},
      {"USER qsecofr", false, "USER qsecofr"},
      {"PASS Sup3rS3cret", false, "PASS ********"},
      {"pass Sup3rS3cret", false, "PASS ********"},
      {"RETR /QSYS.LIB/QTEMP.LIB/SAV1.SAVF", true, "RETR /QSYS.LIB/QTEMP.LIB/SAV1.SAVF"},
  };
  FakeFtpServer server(LoginScript());
  ASSERT_NE(Open(server), nullptr);
  // A thread of its own, that has ended no transfer.
  std::thread([&] {
    ASSERT_TRUE(RequestWithGraceOver(SIGHUP));
    for (const Case& c : cases) {
      SCOPED_TRACE(c.command);
      StderrCapture err;
      std::string got;
      EXPECT_EQ(c.transfer ? Retr(c.command, &got) : Send(c.command), -1);
      const std::string text = err.Text();
      const std::string escaped = std::regex_replace(c.shown, std::regex(R"([.*])"), R"(\$&)");
      EXPECT_TRUE(std::regex_search(
          text, std::regex(R"(\[socket\.cpp,\d+\]: termination requested: )" + escaped + " not sent\n")))
          << text;
      EXPECT_EQ(text.find("Sup3rS3cret"), std::string::npos) << text;
    }
    EXPECT_EQ(server.Commands(), std::vector<std::string>{});
    // The end of a transfer on this thread opens a grace of its own: the
    // command goes out and is answered.
    NoteTransferEnded();
    EXPECT_EQ(Send("NOOP"), 0);
    EXPECT_EQ(server.Commands(), std::vector<std::string>{"NOOP"});
  }).join();
}

}  // namespace

namespace {

// A 227 reply naming another host: only its port is taken, and the data
// goes to the host the control connection is connected to, whatever
// address the reply names (a third host, an address of this host, one that
// does not exist).
TEST_F(TransportTest, OnlyThePortOfAPassiveReplyIsUsed) {
  const std::string payload(100000, 'p');
  const char* const named[] = {"10,9,8,7", "127,0,0,2", "192,0,2,1", "127,0,0,1"};
  size_t next = 0;
  FakeFtpServer server([&](PeerConnection& c, const std::string& command) {
    if (command == "PASV") {
      std::string reply = c.PassiveReply();  // listens on 127.0.0.1
      reply.replace(reply.find("127,0,0,1"), 9, named[next++ % std::size(named)]);
      c.Reply(reply);
      return true;
    }
    int data = c.AcceptData();
    c.Reply("150 Opening data connection.\r\n");
    SendAll(data, payload);
    close(data);
    c.Reply("226 Transfer complete.\r\n");
    return true;
  });
  ASSERT_NE(Open(server), nullptr);
  for (const char* address : named) {
    SCOPED_TRACE(address);
    std::string got;
    StderrCapture err;
    EXPECT_EQ(Retr("RETR /f", &got), 0) << err.Text();
    EXPECT_EQ(got, payload);
    EXPECT_STREQ(session->control->data->server_text, "127.0.0.1");
  }
}

}  // namespace
