// The system-call layer: full reads and writes over pipes that hand data
// over in pieces, positioned reads that leave the offset alone, sends to a
// peer that went away, and the wait of a stream beside a termination
// request.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "support/sysio.h"
#include "support/termination.h"

namespace {

struct Pipe {
  Pipe() { EXPECT_EQ(pipe(fds), 0); }
  ~Pipe() {
    CloseDescriptor(&fds[0]);
    CloseDescriptor(&fds[1]);
  }
  int fds[2] = {-1, -1};
};

// A writer that hands `text` over in pieces of `piece` bytes, then closes.
void WriteInPieces(int descriptor, const std::string& text, size_t piece) {
  for (size_t at = 0; at < text.size(); at += piece) {
    const size_t n = std::min(piece, text.size() - at);
    ASSERT_EQ(write(descriptor, text.data() + at, n), static_cast<ssize_t>(n));
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

TEST(Sysio, ReadFullGathersPiecesUntilTheLengthOrTheEnd) {
  const struct { size_t sent, piece, asked, got; } cases[] = {
      {4096, 7, 4096, 4096},  // many short reads make one full one
      {4096, 7, 1000, 1000},  // no more than asked
      {300, 64, 512, 300},    // the end of the input comes first
      {0, 1, 512, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.sent);
    Pipe p;
    std::string text(c.sent, '\0');
    for (size_t i = 0; i < text.size(); i++) text[i] = static_cast<char>('a' + i % 26);
    std::thread writer([&] {
      WriteInPieces(p.fds[1], text, c.piece);
      CloseDescriptor(&p.fds[1]);
    });
    std::string buffer(c.asked, '-');
    EXPECT_EQ(ReadFull(p.fds[0], buffer.data(), buffer.size()), static_cast<ssize_t>(c.got));
    EXPECT_EQ(buffer.substr(0, c.got), text.substr(0, c.got));
    writer.join();
  }
  char byte;
  EXPECT_EQ(ReadFull(-1, &byte, 1), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(Sysio, PositionedReadsAndWritesLeaveTheOffsetAlone) {
  char name[] = "/tmp/vondral-sysio-XXXXXX";
  UniqueFd file(mkstemp(name));
  ASSERT_GE(file.Get(), 0);
  unlink(name);
  ASSERT_EQ(WriteFull(file.Get(), "0123456789", 10), 10);
  ASSERT_EQ(SeekTo(file.Get(), 3, SEEK_SET), 3);
  char got[8] = "";
  EXPECT_EQ(PreadFull(file.Get(), got, 4, 5), 4);
  EXPECT_EQ(std::string(got, 4), "5678");
  EXPECT_EQ(PreadFull(file.Get(), got, 8, 8), 2);  // the end of the file comes first
  EXPECT_EQ(PwriteFull(file.Get(), "ab", 2, 0), 2);
  EXPECT_EQ(CurrentOffset(file.Get()), 3);
  EXPECT_EQ(ReadFull(file.Get(), got, 3), 3);
  EXPECT_EQ(std::string(got, 3), "345");
  EXPECT_EQ(PreadFull(file.Get(), got, 2, 0), 2);
  EXPECT_EQ(std::string(got, 2), "ab");
  EXPECT_EQ(TruncateTo(file.Get(), 4), 0);
  EXPECT_EQ(PreadFull(file.Get(), got, 8, 0), 4);
  EXPECT_EQ(SyncData(file.Get()), 0);
}

TEST(Sysio, ASendToAPeerThatWentAwayFailsWithoutASignal) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  UniqueFd mine(pair[0]);
  CloseDescriptor(&pair[1]);
  size_t done = 99;
  const std::string text(1000, 'x');
  EXPECT_EQ(SendFull(mine.Get(), text.data(), text.size(), &done), -1);  // no SIGPIPE ends the test
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(done, 0u);
}

TEST(Sysio, AStreamIsReadableOrAfterARequestGivenUpWhenTheGraceEnds) {
  const struct { bool requested, data; int expected; bool waits_grace; } cases[] = {
      {false, true, WaitReadable, false},
      {true, true, WaitReadable, false},
      {true, false, WaitGraceOver, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.requested << c.data);
    Pipe p;
    if (c.data) {
      ASSERT_EQ(write(p.fds[1], "x", 1), 1);
    }
    TerminationRequested = c.requested ? SIGTERM : 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(WaitReadableOrWoken(p.fds[0], 200), c.expected);
    const auto waited = std::chrono::steady_clock::now() - start;
    TerminationRequested = 0;
    if (c.waits_grace) {
      EXPECT_GE(waited, std::chrono::milliseconds(190));
    } else {
      EXPECT_LT(waited, std::chrono::milliseconds(190));  // no grace waited
    }
  }
}

}  // namespace
