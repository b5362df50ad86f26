// Termination requests (SIGTERM, SIGINT, SIGHUP): the status and grace they
// give, and the signal thread that turns each signal into a request.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>

#include "cli/signals.h"
#include "support/termination.h"
#include "test_helpers.h"

namespace {

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
