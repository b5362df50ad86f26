// The signal thread. The signals are blocked in every thread and taken
// here with sigwait, so that a request is handled as ordinary code rather
// than in a handler that could interrupt anything.
#include "cli/signals.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>

#include "support/log.h"
#include "support/termination.h"

// The module this file reports as in failure messages.
[[maybe_unused]] static constexpr const char* kModule = "vondral.cpp";

namespace {

sigset_t SignalSet;

// The first request asks the drivers to stop at their safe points; a second
// one means the operator will not wait: the process ends at once, leaving
// an existing archive untouched and the temporary file behind.
void* SignalThread(void*) {
  for (;;) {
    int signal_number = 0;
    if (sigwait(&SignalSet, &signal_number) != 0) continue;
    if (!IsTerminationSignal(signal_number)) {
      LogMessageTo(stderr, "\nUnexpected signal %d\n", signal_number);
      continue;
    }
    if (TerminationRequested.load() == 0) {
      RequestTermination(signal_number);
      continue;
    }
    LogMessageTo(stderr, "%s: second termination request (signal %d): ending at once\n", ProgramName,
                 signal_number);
    _exit(128 + signal_number);
  }
  return nullptr;
}

}  // namespace

int StartSignalThread() {
  sigemptyset(&SignalSet);
  sigaddset(&SignalSet, SIGTERM);
  sigaddset(&SignalSet, SIGINT);
  sigaddset(&SignalSet, SIGHUP);
  if (pthread_sigmask(SIG_BLOCK, &SignalSet, nullptr) != 0) return -1;
  if (OpenTerminationWake() != 0) return -2;
  pthread_t thread;
  if (pthread_create(&thread, nullptr, SignalThread, nullptr) != 0) return -2;
  return 0;
}
