// The one layer over the descriptor system calls. Every read, write, poll,
// connect, seek, truncate and sync of the program goes through here, so that
// an interrupted call is retried and a short transfer is carried on in one
// place only; nothing else calls them directly. Failures keep errno as the
// call left it, for the caller's message.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// ---- reads and writes ----------------------------------------------------

// One read, retried after a signal. As read(2).
ssize_t ReadSome(int descriptor, void* data, size_t length);
// Reads until length bytes are in, the input ends or a read fails: a pipe
// may hand a block over in pieces. Gives the bytes read (fewer than length
// only at the end of the input), or -1 (errno set) when a read failed.
ssize_t ReadFull(int descriptor, void* data, size_t length);
// The same at an offset, leaving the file position alone.
ssize_t PreadFull(int descriptor, void* data, size_t length, int64_t offset);

// Writes all of length bytes, going on after a signal and after a short
// write. Gives length; fewer when the file took no more (errno ENOSPC); -1
// when a write failed (errno set), whatever went out before. With `done`,
// the bytes that did go out are stored there in every case.
ssize_t WriteFull(int descriptor, const void* data, size_t length, size_t* done = nullptr);
// The same at an offset, leaving the file position alone.
ssize_t PwriteFull(int descriptor, const void* data, size_t length, int64_t offset,
                   size_t* done = nullptr);

// One send on a socket, retried after a signal. A peer that went away is a
// write error like any other, never a SIGPIPE.
ssize_t SendSome(int descriptor, const void* data, size_t length);
// Sends all of length bytes on a socket, as WriteFull does for files, and
// never raises SIGPIPE.
ssize_t SendFull(int descriptor, const void* data, size_t length, size_t* done = nullptr);
// One receive that does not block (nothing waiting: -1 with EAGAIN),
// retried after a signal.
ssize_t ReceiveWaiting(int descriptor, void* data, size_t length);

// Ends the sending side of a socket (shutdown SHUT_WR): the peer reads the
// end of the stream while this side may still read. 0, or -1 (errno set).
int ShutdownWrite(int descriptor);
// Makes a socket's reads and writes give EAGAIN instead of blocking. 0, or
// -1 (errno set).
int SetNonBlocking(int descriptor);
// TCP keepalive on every connection to the server, so that a peer that
// vanished without a word (switched off, cut off by a firewall) is noticed:
// after a minute of silence a probe goes out every 15 seconds, and eight
// unanswered probes end the connection (reads fail with ETIMEDOUT, poll
// reports an error). A few minutes in all; a server busy with a long save
// still has its TCP stack answer the probes, so such a save is not cut.
constexpr int KeepaliveIdleSeconds = 60;
constexpr int KeepaliveIntervalSeconds = 15;
constexpr int KeepaliveProbes = 8;
struct KeepaliveTimes {
  int idle_seconds = KeepaliveIdleSeconds;
  int interval_seconds = KeepaliveIntervalSeconds;
  int probes = KeepaliveProbes;
};
// The times EnableKeepalive sets. Tests running in-process may shorten them.
extern KeepaliveTimes Keepalive;
// Turns keepalive on for a TCP socket with those times. 0, or -1 (errno
// set) when an option was refused.
int EnableKeepalive(int descriptor);
// Bounds how long sent bytes may stay unacknowledged by the same few
// minutes (TCP_USER_TIMEOUT), so that a command sent into a connection that
// has just vanished is noticed as soon as a silent one is, rather than after
// the kernel's quarter of an hour of retransmissions. For the control
// connection only: a data connection's peer may rightly stop reading for a
// while, and its transfer has its own bound. 0, or -1 (errno set).
int BoundUnacknowledged(int descriptor);

// ---- files ---------------------------------------------------------------

// open(2) and openat(2), retried after a signal.
int OpenFile(const char* path, int flags, mode_t mode = 0);
int OpenFileAt(int directory, const char* path, int flags, mode_t mode = 0);
// Closes *descriptor if open and marks it closed. 0, or -1 (errno set) when
// the close reported an error (for a written file, a late write error).
int CloseDescriptor(int* descriptor);
// lseek(2) on 64-bit offsets: the new offset, or -1.
int64_t SeekTo(int descriptor, int64_t offset, int whence);
// The current offset, or -1.
int64_t CurrentOffset(int descriptor);
// Reserves length bytes of space from offset on without changing the
// file's size or content (fallocate with FALLOC_FL_KEEP_SIZE). 0, or -1
// (errno set) where the file system cannot reserve.
int ReserveFileSpace(int descriptor, int64_t offset, int64_t length);
// ftruncate(2), fdatasync(2) and fsync(2), retried after a signal.
int TruncateTo(int descriptor, int64_t length);
int SyncData(int descriptor);
int SyncAll(int descriptor);

// A descriptor this program opened; closed when its owner goes.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Reset(); }
  int Get() const { return fd_; }
  void Reset(int fd = -1) {
    CloseDescriptor(&fd_);
    fd_ = fd;
  }
  // Hands the descriptor over; the owner no longer closes it.
  int Release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  // Closes now and tells whether the close succeeded: for written files a
  // late error shows up only here.
  bool Close() { return CloseDescriptor(&fd_) == 0; }

 private:
  int fd_ = -1;
};

// ---- waiting ---------------------------------------------------------------

// Every blocking wait on a socket is one poll of this many milliseconds;
// longer waits are counted in these steps against --timeout. Tests running
// in-process may lower it.
extern int PollStepMs;
double PollStepSeconds();

// How long the next wait step may be: the poll step, or what is left of the
// grace after a termination request (0 once it is over).
int WaitStepMs();
// Polls the entries (at most three) for one wait step. While no termination
// request came, the request's wake-up descriptor is watched as well, so that
// a request ends the step at once; it then counts as a step that found
// nothing.
int PollStep(struct pollfd* set, nfds_t count, int step_ms);
int PollStepOne(int descriptor, short events, int step_ms);
// Waits until descriptor is readable. Before a termination request it waits
// without bound beside the request's wake-up; once a request came, for
// grace_ms at most. WaitReadable (1) when readable, WaitWoken (2) when a
// request came during the wait, WaitGraceOver (0) when a request had come
// before it and the grace passed silently, -1 when the poll failed.
constexpr int WaitGraceOver = 0;
constexpr int WaitReadable = 1;
constexpr int WaitWoken = 2;
int WaitReadableOrWoken(int descriptor, int grace_ms);

// One wait step for a socket to be ready for events, within a budget of
// max_steps silent steps (0 or less: no bound), counted in *silent_steps.
// 1 when ready; 0 after a silent step; -1 when the wait is given up: the
// poll failed (errno as it left it), the budget is spent (ETIMEDOUT) or the
// grace after a termination request is over (ECANCELED).
int WaitSocketStep(int descriptor, short events, int max_steps, int* silent_steps);

// connect(2) on a socket, waited for in poll steps: cut short by a
// termination request (errno ECANCELED) and bounded by max_steps wait steps
// (errno ETIMEDOUT; 0 or less: no bound beyond the kernel's own).
int ConnectWithin(int descriptor, const sockaddr* address, socklen_t length, int max_steps);

// Milliseconds of a monotonic clock.
int64_t MonotonicMs();
