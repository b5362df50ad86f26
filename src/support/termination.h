// Termination requests (SIGTERM, SIGINT, SIGHUP) as the rest of the program
// sees them: a flag, the moment it was set, a wake-up descriptor for every
// waiting poll and the grace that follows. The signal thread that sets them
// lives with the command line.
#pragma once

#include <atomic>
#include <cstdint>

// The first request sets TerminationRequested to its signal number; the
// drivers stop at their safe points and the run ends with
// TerminationStatus(). A second one ends the process at once.
extern std::atomic<int> TerminationRequested;
bool IsTerminationSignal(int signal_number);
// 128 plus the number of the signal that asked for termination.
int TerminationStatus();
// Records a termination request as the signal thread does (tests call it
// too): the flag, the moment, and a wake-up for every waiting poll.
void RequestTermination(int signal_number);
// Makes the wake-up pipe (once). 0, or -1 when the pipe could not be made.
int OpenTerminationWake();
// Readable once a termination request came: waits poll it beside their
// sockets so that a request ends them at once. -1 before OpenTerminationWake.
int TerminationWakeDescriptor();

// After a termination request the program goes on for a short grace only:
// the data of a transfer that is flowing is taken to its end, and every
// other wait (a reply, a connection, the final reply after a transfer) ends
// at most this long after the request or after the end of the calling
// thread's last transfer, whichever is later. No new command is sent once
// the grace is over.
constexpr int TerminationGraceMs = 5000;
// Milliseconds left of that grace: -1 while no request came (no limit), 0
// once it is over.
int TerminationMsLeft();
// The calling thread's data transfer has just ended with all its data.
void NoteTransferEnded();
