// The system-call layer: retries after signals, short transfers carried on,
// and the poll steps that a termination request can cut short.
#include "support/sysio.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "support/termination.h"

int PollStepMs = 60000;
KeepaliveTimes Keepalive;

namespace {

// Runs a call again while a signal interrupted it.
template <typename Call>
auto Retried(Call call) {
  for (;;) {
    auto result = call();
    if (!(result < 0 && errno == EINTR)) return result;
  }
}

// Carries a write on over short writes: step(done) writes from offset done.
template <typename Step>
ssize_t WriteAll(size_t length, size_t* done_out, Step step) {
  size_t done = 0;
  ssize_t result = -1;
  for (;;) {
    if (done == length) {
      result = static_cast<ssize_t>(done);
      break;
    }
    ssize_t n = Retried([&] { return step(done); });
    if (n < 0) break;
    if (n == 0) {
      errno = ENOSPC;
      result = static_cast<ssize_t>(done);
      break;
    }
    done += static_cast<size_t>(n);
  }
  if (done_out) *done_out = done;
  return result;
}

// Carries a read on until length, the end of the input or a failure.
template <typename Step>
ssize_t ReadAll(size_t length, Step step) {
  size_t got = 0;
  while (got < length) {
    ssize_t n = Retried([&] { return step(got); });
    if (n < 0) return -1;
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

// poll(2), again with the same time-out after a signal.
int PollRetry(struct pollfd* set, nfds_t count, int timeout_ms) {
  return Retried([&] { return poll(set, count, timeout_ms); });
}

}  // namespace

ssize_t ReadSome(int descriptor, void* data, size_t length) {
  return Retried([&] { return read(descriptor, data, length); });
}

ssize_t ReadFull(int descriptor, void* data, size_t length) {
  auto* bytes = static_cast<char*>(data);
  return ReadAll(length, [&](size_t at) { return read(descriptor, bytes + at, length - at); });
}

ssize_t PreadFull(int descriptor, void* data, size_t length, int64_t offset) {
  auto* bytes = static_cast<char*>(data);
  return ReadAll(length, [&](size_t at) {
    return pread64(descriptor, bytes + at, length - at, static_cast<off64_t>(offset) + static_cast<off64_t>(at));
  });
}

ssize_t WriteFull(int descriptor, const void* data, size_t length, size_t* done) {
  const char* bytes = static_cast<const char*>(data);
  return WriteAll(length, done, [&](size_t at) { return write(descriptor, bytes + at, length - at); });
}

ssize_t PwriteFull(int descriptor, const void* data, size_t length, int64_t offset, size_t* done) {
  const char* bytes = static_cast<const char*>(data);
  return WriteAll(length, done, [&](size_t at) {
    return pwrite64(descriptor, bytes + at, length - at, static_cast<off64_t>(offset) + static_cast<off64_t>(at));
  });
}

ssize_t SendSome(int descriptor, const void* data, size_t length) {
  return Retried([&] { return send(descriptor, data, length, MSG_NOSIGNAL); });
}

ssize_t SendFull(int descriptor, const void* data, size_t length, size_t* done) {
  const char* bytes = static_cast<const char*>(data);
  return WriteAll(length, done, [&](size_t at) { return send(descriptor, bytes + at, length - at, MSG_NOSIGNAL); });
}

ssize_t ReceiveWaiting(int descriptor, void* data, size_t length) {
  return Retried([&] { return recv(descriptor, data, length, MSG_DONTWAIT); });
}

int ShutdownWrite(int descriptor) { return shutdown(descriptor, SHUT_WR); }

int SetNonBlocking(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFL);
  if (flags < 0) return -1;
  return fcntl(descriptor, F_SETFL, flags | O_NONBLOCK);
}

int EnableKeepalive(int descriptor) {
  const int on = 1;
  if (setsockopt(descriptor, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0) return -1;
  if (setsockopt(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, &Keepalive.idle_seconds, sizeof(int)) != 0) return -1;
  if (setsockopt(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, &Keepalive.interval_seconds, sizeof(int)) != 0) return -1;
  return setsockopt(descriptor, IPPROTO_TCP, TCP_KEEPCNT, &Keepalive.probes, sizeof(int));
}

int BoundUnacknowledged(int descriptor) {
  const unsigned milliseconds =
      static_cast<unsigned>(Keepalive.idle_seconds + Keepalive.interval_seconds * Keepalive.probes) * 1000u;
  return setsockopt(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, &milliseconds, sizeof milliseconds);
}

int OpenFile(const char* path, int flags, mode_t mode) {
  return Retried([&] { return open(path, flags, mode); });
}

int OpenFileAt(int directory, const char* path, int flags, mode_t mode) {
  return Retried([&] { return openat(directory, path, flags, mode); });
}

int CloseDescriptor(int* descriptor) {
  if (*descriptor < 0) return 0;
  // close(2) is not retried: on Linux the descriptor is gone even when it
  // reports EINTR, and a second close could hit another thread's file.
  int result = close(*descriptor);
  *descriptor = -1;
  return result;
}

int64_t SeekTo(int descriptor, int64_t offset, int whence) {
  return lseek64(descriptor, static_cast<off64_t>(offset), whence);
}

int64_t CurrentOffset(int descriptor) { return SeekTo(descriptor, 0, SEEK_CUR); }

int ReserveFileSpace(int descriptor, int64_t offset, int64_t length) {
  return Retried([&] {
    return fallocate64(descriptor, FALLOC_FL_KEEP_SIZE, static_cast<off64_t>(offset), static_cast<off64_t>(length));
  });
}

int TruncateTo(int descriptor, int64_t length) {
  return Retried([&] { return ftruncate64(descriptor, static_cast<off64_t>(length)); });
}

int SyncData(int descriptor) {
  return Retried([&] { return fdatasync(descriptor); });
}

int SyncAll(int descriptor) {
  return Retried([&] { return fsync(descriptor); });
}

double PollStepSeconds() { return PollStepMs / 1000.0; }


int WaitStepMs() {
  int left = TerminationMsLeft();
  return left < 0 ? PollStepMs : std::min(PollStepMs, left);
}

int PollStep(struct pollfd* set, nfds_t count, int step_ms) {
  const int wake = TerminationWakeDescriptor();
  if (wake < 0 || TerminationRequested.load() != 0 || count >= 4) return PollRetry(set, count, step_ms);
  struct pollfd watched[4];
  for (nfds_t i = 0; i < count; i++) watched[i] = set[i];
  watched[count] = {wake, POLLIN, 0};
  int ready = PollRetry(watched, count + 1, step_ms);
  for (nfds_t i = 0; i < count; i++) set[i].revents = watched[i].revents;
  if (ready > 0 && watched[count].revents) ready--;
  return ready;
}

int PollStepOne(int descriptor, short events, int step_ms) {
  struct pollfd entry = {descriptor, events, 0};
  return PollStep(&entry, 1, step_ms);
}

int WaitReadableOrWoken(int descriptor, int grace_ms) {
  const int wake = TerminationWakeDescriptor();
  const bool requested = TerminationRequested.load() != 0;
  struct pollfd set[2] = {{descriptor, POLLIN, 0}, {wake, POLLIN, 0}};
  int ready = PollRetry(set, !requested && wake >= 0 ? 2 : 1, requested ? grace_ms : -1);
  if (ready < 0) return -1;
  if (set[0].revents) return WaitReadable;
  return requested ? WaitGraceOver : WaitWoken;
}

int WaitSocketStep(int descriptor, short events, int max_steps, int* silent_steps) {
  const int step = WaitStepMs();
  if (step == 0) {
    errno = ECANCELED;
    return -1;
  }
  const int ready = PollStepOne(descriptor, events, step);
  if (ready != 0) return ready < 0 ? -1 : 1;
  if (max_steps > 0 && ++*silent_steps >= max_steps) {
    errno = ETIMEDOUT;
    return -1;
  }
  return 0;
}

int ConnectWithin(int descriptor, const sockaddr* address, socklen_t length, int max_steps) {
  // Blocking again afterwards: the caller's reads and writes expect it.
  const int flags = fcntl(descriptor, F_GETFL);
  if (flags < 0 || fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) != 0) return -1;
  int result = connect(descriptor, address, length);
  if (result != 0 && (errno == EINPROGRESS || errno == EINTR)) {
    for (int silent = 0;;) {
      const int ready = WaitSocketStep(descriptor, POLLOUT, max_steps, &silent);
      if (ready < 0) {
        result = -1;
        break;
      }
      if (ready == 0) continue;
      int error = 0;
      socklen_t size = sizeof error;
      if (getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
      errno = error;
      result = error == 0 ? 0 : -1;
      break;
    }
  }
  const int saved = errno;
  fcntl(descriptor, F_SETFL, flags);
  errno = saved;
  return result;
}

int64_t MonotonicMs() {
  struct timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}
