// The state of a termination request and its grace.
#include "support/termination.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>

#include "support/sysio.h"

std::atomic<int> TerminationRequested{0};

namespace {

// Wake-up pipe of termination requests: the write end gets one byte.
int TerminationPipe[2] = {-1, -1};
std::atomic<int64_t> TerminationAtMs{0};
thread_local int64_t TransferEndedAtMs = 0;

}  // namespace

bool IsTerminationSignal(int signal_number) {
  return signal_number == SIGTERM || signal_number == SIGINT || signal_number == SIGHUP;
}

int OpenTerminationWake() {
  if (TerminationPipe[0] >= 0) return 0;
  return pipe2(TerminationPipe, O_CLOEXEC | O_NONBLOCK) == 0 ? 0 : -1;
}

void RequestTermination(int signal_number) {
  TerminationAtMs = MonotonicMs();
  TerminationRequested = signal_number;
  if (TerminationPipe[1] >= 0) {
    char byte = 1;
    // The pipe stays readable from now on; nobody drains it. A full pipe
    // is readable already, so a failed write changes nothing.
    (void)WriteFull(TerminationPipe[1], &byte, 1);
  }
}

int TerminationStatus() {
  const int signal_number = TerminationRequested.load();
  return 128 + (IsTerminationSignal(signal_number) ? signal_number : SIGTERM);
}

int TerminationWakeDescriptor() { return TerminationPipe[0]; }

int TerminationMsLeft() {
  if (TerminationRequested.load() == 0) return -1;
  int64_t from = std::max<int64_t>(TerminationAtMs.load(), TransferEndedAtMs);
  int64_t left = from + TerminationGraceMs - MonotonicMs();
  return left > 0 ? static_cast<int>(left) : 0;
}

void NoteTransferEnded() { TransferEndedAtMs = MonotonicMs(); }
