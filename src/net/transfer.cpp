// The transfer loops of a passive data connection.
#include "net/transfer.h"

#include <poll.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "cli/settings.h"
#include "net/connection.h"
#include "net/stream.h"
#include "support/log.h"
#include "support/sysio.h"
#include "support/termination.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "socket.cpp";

namespace {

// After a termination request a transfer is taken to its end only while its
// data keeps flowing: at least one transfer buffer in every grace period. A
// server that drips or stalls would otherwise hold the run for ever.
class FlowAfterTermination {
 public:
  // Counts bytes just moved (0 after a wait that moved nothing); false when
  // the transfer must be given up.
  bool Moving(int64_t bytes) {
    if (TerminationRequested.load() == 0) return true;
    const int64_t now = MonotonicMs();
    if (since_ < 0) since_ = now;
    moved_ += bytes;
    if (now - since_ < TerminationGraceMs) return true;
    if (moved_ < TransferBufferSize) {
      VFAIL("termination requested: the transfer is not moving, given up\n");
      return false;
    }
    since_ = now;
    moved_ = 0;
    return true;
  }
  // The next wait step: up to the end of the current grace period.
  int StepMs() const {
    if (TerminationRequested.load() == 0) return PollStepMs;
    if (since_ < 0) return std::min(PollStepMs, TerminationGraceMs);
    int64_t left = since_ + TerminationGraceMs - MonotonicMs();
    return static_cast<int>(std::clamp<int64_t>(left, 1, PollStepMs));
  }

 private:
  int64_t since_ = -1;
  int64_t moved_ = 0;
};

// One download: fills the transfer buffer from the data connection and
// counts the silent steps against --timeout.
class Download {
 public:
  explicit Download(FtpConnection* data) : data_(data) {}
  // Fills the buffer as far as the data allows: the bytes in it (0 after a
  // silent step or at the end of the data), or -1 when the transfer must
  // be given up.
  int Fill() {
    int room = TransferBufferSize;
    char* at = data_->transfer_buffer;
    // Bytes already waiting are taken at once; poll is asked only when the
    // last read found fewer than it asked for, or none were waiting (in a
    // fast transfer there nearly always are).
    bool drained = false;
    for (;;) {
      ssize_t got = -1;
      if (drained)
        errno = EAGAIN;  // the last read took all there was: wait for more
      else
        got = StreamReceiveWaiting(data_, at, static_cast<size_t>(room));
      if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOTSOCK)) {
        const int waited = WaitForData();
        if (waited == Failed) return -1;
        if (waited == GraceStep) continue;
        if (waited == SilentStep) break;
        got = StreamRead(data_, at, static_cast<size_t>(room));
        if (got < 0 && errno == EAGAIN) continue;  // part of an encrypted record: wait for the rest
      }
      if (got > 0 && !flow_.Moving(got)) return -1;
      if (got > 0) {
        if (Settings.verbosity >= 5)
          VFAIL("read(%s:%d) %d bytes\n", data_->server_text, Port(data_->server), static_cast<int>(got));
        timeouts_ = 0;
        drained = got < room;
        room -= static_cast<int>(got);
        at += got;
        if (room == 0) break;
        continue;
      }
      if (got == 0) {
        timeouts_ = 0;
        break;
      }
      VFAIL("read(%s:%d): %s\n", data_->server_text, Port(data_->server), strerror(errno));
      return -1;
    }
    return TransferBufferSize - room;
  }
  // Silent steps in a row.
  int Timeouts() const { return timeouts_; }

 private:
  enum WaitResult { Readable, GraceStep, SilentStep, Failed };

  WaitResult WaitForData() {
    int ready = StreamPollOne(data_, POLLIN | POLLPRI, flow_.StepMs());
    if (ready < 0) {
      VFAIL("poll(): %s\n", strerror(errno));
      return Failed;
    }
    if (ready > 0) return Readable;
    if (!flow_.Moving(0)) return Failed;
    if (TerminationRequested.load() != 0) return GraceStep;  // a step of the grace, not a silent minute
    timeouts_++;
    VFAIL("poll(): timedout on data read after %.2fs (%d times)\n", PollStepSeconds(), timeouts_);
    return SilentStep;
  }

  FtpConnection* data_;
  FlowAfterTermination flow_;
  int timeouts_ = 0;
};

// One upload: writes each buffer the callback filled, whole, and counts the
// silent steps against --timeout.
class Upload {
 public:
  explicit Upload(FtpConnection* data) : data_(data) {}
  // Writes count bytes from `bytes`. false when they did not all go out.
  bool SendAll(const char* bytes, int count) {
    int sent = 0;
    bool given_up = false;
    while (sent < count) {
      int ready = StreamPollOne(data_, POLLOUT, flow_.StepMs());
      if (ready < 0) {
        VFAIL("poll(): %s\n", strerror(errno));
        break;
      }
      if (ready == 0) {
        if (!flow_.Moving(0)) {
          given_up = true;
          break;
        }
        if (TerminationRequested.load() != 0) continue;  // a step of the grace, not a silent minute
        // A server that stops taking data is given --timeout, as a silent
        // download is: a busy server may pause, a gone one never resumes.
        timeouts_++;
        VFAIL("poll(): timedout on data write after %.2fs\n", PollStepSeconds());
        if (timeouts_ < Settings.timeout_minutes) continue;
        VFAIL("Timeout limit reached (%d times).\n", timeouts_);
        break;
      }
      ssize_t written = StreamSend(data_, bytes + sent, static_cast<size_t>(count - sent));
      if (written < 0 && errno == EAGAIN) continue;  // the encrypted stream must wait for the socket
      if (written < 0) {
        VFAIL("write(%s:%d): %s\n", data_->server_text, Port(data_->server), strerror(errno));
        break;
      }
      if (written == 0) break;
      if (Settings.verbosity >= 5)
        VFAIL("write(%s:%d) %d bytes\n", data_->server_text, Port(data_->server), static_cast<int>(written));
      sent += static_cast<int>(written);
      timeouts_ = 0;
      if (!flow_.Moving(written) && sent < count) {
        given_up = true;
        break;
      }
    }
    if (sent < count && !given_up) VFAIL("we didn't send everything\n");
    return sent >= count;
  }

 private:
  FtpConnection* data_;
  FlowAfterTermination flow_;
  int timeouts_ = 0;  // silent steps in a row
};

// Both directions start alike: a data record with an open socket.
FtpConnection* OpenDataRecord(FtpConnection* control) {
  if (!IsControlRecord(control) || !IsDataRecord(control->data)) return nullptr;
  if (control->data->descriptor < 0) {
    VFAIL("no client descriptor\n");
    return nullptr;
  }
  return control->data;
}

}  // namespace

int EnsureTransferBuffer(FtpConnection* data) {
  if (data->transfer_buffer) return 0;
  void* mapped = mmap(nullptr, TransferBufferSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) {
    VFAIL("mmap(, %u): %s\n", static_cast<unsigned>(TransferBufferSize), strerror(errno));
    return -1;
  }
  data->transfer_buffer = static_cast<char*>(mapped);
  return 0;
}

int ReceiveData(FtpConnection* control, DataCallback callback, void* argument) {
  FtpConnection* data = OpenDataRecord(control);
  if (!data) return -1;
  if (Settings.verbosity >= 4) LogMessage("reading from %s:%d\n", data->server_text, Port(data->server));
  Download download(data);
  for (;;) {
    int filled = download.Fill();
    if (filled < 0) break;
    if (filled == 0) {
      if (download.Timeouts() >= Settings.timeout_minutes) {
        VFAIL("Timeout limit reached (%d times).\n", download.Timeouts());
        break;
      }
      if (download.Timeouts() == 0) {
        FinishDataSocket(data);
        NoteTransferEnded();
        return 0;
      }
      if (Settings.verbosity >= 4) VFAIL("No data read for callback\n");
      continue;
    }
    if (Settings.verbosity >= 5) VFAIL("sending %d bytes to callback\n", filled);
    int count = filled;
    if (callback(argument, data->transfer_buffer, &count) != 0) break;
  }
  CloseDataSocket(data);
  return -1;
}

int SendData(FtpConnection* control, SendCallback callback, void* argument) {
  FtpConnection* data = OpenDataRecord(control);
  if (!data) return -1;
  if (Settings.verbosity >= 4) LogMessage("writing to %s:%d\n", data->server_text, Port(data->server));
  Upload upload(data);
  for (;;) {
    int count = TransferBufferSize;
    const char* bytes = data->transfer_buffer;
    if (callback(argument, data->transfer_buffer, &count, &bytes) != 0) break;
    if (count <= 0) {
      // Closing the data socket is the end of file for the server.
      FinishDataSocket(data);
      NoteTransferEnded();
      return 0;
    }
    if (Settings.verbosity >= 5) VFAIL("callback gave us %d bytes\n", count);
    if (!upload.SendAll(bytes, count)) break;
  }
  CloseDataSocket(data);
  return -1;
}
