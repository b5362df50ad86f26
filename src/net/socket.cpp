// The FTP transport: connections, the control connection's reply reader,
// command sending and the passive data transfer loop.
#include "net/socket.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "ftp/session.h"
#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"
#include "cli/settings.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "socket.cpp";


int ParsePassiveReply(const char* reply, sockaddr_in* address, char* text, size_t text_size) {
  memset(address, 0, sizeof *address);
  address->sin_family = AF_INET;
  text[0] = '\0';
  if (strncmp(reply, "227 ", 4) != 0) {
    VFAIL("bad PASV response\n");
    return -1;
  }
  const char* at = strpbrk(reply + 4, "123456789");
  if (!at) {
    VFAIL("PASV response without address\n");
    return -1;
  }
  // h1,h2,h3,h4 becomes the dotted text; the copy is bounded by the
  // caller's field, so an oversized address part is refused rather than
  // overrunning it.
  size_t used = 0;
  int commas = 0;
  bool fits = true;
  for (; *at; at++) {
    char c = *at;
    if (c == ',' && ++commas == 4) break;
    if (c == ',') c = '.';
    if (used + 1 >= text_size) {
      fits = false;
      break;
    }
    text[used++] = c;
  }
  text[used] = '\0';
  int converted = inet_pton(AF_INET, text, &address->sin_addr);
  if (converted < 0) {
    VFAIL("PASV response address: %s\n", strerror(errno));
    return -1;
  }
  if (converted == 0 || !fits || *at != ',') {
    VFAIL("PASV response address invalid\n");
    return -1;
  }
  const char* number = at + 1;
  char* end = nullptr;
  unsigned long high = strtoul(number, &end, 10);
  if (end == number || *end != ',') {
    VFAIL("PASV response port invalid\n");
    return -1;
  }
  number = end + 1;
  unsigned long low = strtoul(number, &end, 10);
  if (end == number) {
    VFAIL("PASV response port invalid\n");
    return -1;
  }
  address->sin_port = htons(static_cast<uint16_t>(((high << 8) | low) & 0xFFFF));
  return 0;
}

namespace {

// gethostbyname and friends are not re-entrant, and workers open their
// sessions at the same time.
std::mutex NameServiceLock;

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

int Port(const sockaddr_in& address) { return ntohs(address.sin_port); }

void CloseSocket(int* descriptor) { CloseDescriptor(descriptor); }

// The control connection is broken: close it, forget what it held and let
// the owner's checkpoint take over (the call does not come back when a
// protected operation is running).
int ControlFailed(FtpConnection* control) {
  CloseSocket(&control->descriptor);
  control->reply_held = 0;
  control->lines_held = 0;
  return AbortToCheckpoint(control->owner);
}

// Drops a control connection after a fatal transfer condition and hands
// over to the checkpoint.
int AbandonConnections(FtpConnection* control) {
  if (IsDataRecord(control->data)) CloseDataSocket(control->data);
  CloseSocket(&control->descriptor);
  return AbortToCheckpoint(control->owner);
}

const char* ShownCommand(const char* command) {
  // A debug log must never carry the credential into a scheduler's files.
  if (strncasecmp(command, "PASS ", 5) == 0) return "PASS ********";
  return command;
}

int SetUpDataConnection(FtpConnection* control, const char* last) {
  if (!IsControlRecord(control) || !IsDataRecord(control->data)) return -1;
  FtpConnection* data = control->data;
  CloseDataSocket(data);
  if (ParsePassiveReply(last, &data->server, data->server_text, sizeof data->server_text) != 0)
    return -1;

  int descriptor = socket(AF_INET, SOCK_STREAM, data->protocol);
  if (descriptor < 0) {
    VFAIL("socket(): %s\n", strerror(errno));
    return -1;
  }
  int on = 1;
  if (setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    VFAIL("setsockopt(, SOL_SOCKET, SO_REUSEADDR): %s\n", strerror(errno));
    CloseDescriptor(&descriptor);
    return -1;
  }
  int discover = IP_PMTUDISC_WANT;
  if (setsockopt(descriptor, SOL_IP, IP_MTU_DISCOVER, &discover, sizeof discover) != 0)
    VFAIL("setsockopt(, SOL_IP, IP_MTU_DISCOVER, %X): %s\n", discover, strerror(errno));
  if (setsockopt(descriptor, SOL_TCP, TCP_NODELAY, &on, sizeof on) != 0)
    VFAIL("setsockopt(, SOL_TCP, TCP_NODELAY, %X): %s\n", on, strerror(errno));
  int connected = ConnectWithin(descriptor, reinterpret_cast<sockaddr*>(&data->server), sizeof data->server,
                                Settings.timeout_minutes);
  if (connected != 0) {
    VFAIL("connect(, %s:%d): %s\n", data->server_text, Port(data->server), strerror(errno));
    CloseDescriptor(&descriptor);
    data->descriptor = -1;
    return -1;
  }
  data->descriptor = descriptor;
  return 0;
}

// Download: gathers whole buffers before handing them to the callback, so
// the consumer sees few, large calls.
int Receive(FtpConnection* control, DataCallback callback, void* argument) {
  if (!IsControlRecord(control) || !IsDataRecord(control->data)) return -1;
  FtpConnection* data = control->data;
  if (data->descriptor < 0) {
    VFAIL("no client descriptor\n");
    return -1;
  }
  if (Settings.verbosity >= 4) LogMessage("reading from %s:%d\n", data->server_text, Port(data->server));
  int timeouts = 0;
  FlowAfterTermination flow;
  for (;;) {
    int room = TransferBufferSize;
    char* at = data->transfer_buffer;
    // Bytes already waiting are taken at once; poll is asked only when the
    // last read found fewer than it asked for, or none were waiting (in a
    // fast transfer there nearly always are).
    bool drained = false;
    for (;;) {
      ssize_t got = -1;
      if (drained)
        errno = EAGAIN;  // the last read took all there was: wait for more
      else
        got = ReceiveWaiting(data->descriptor, at, static_cast<size_t>(room));
      if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOTSOCK)) {
        const int step = flow.StepMs();
        int ready = PollStepOne(data->descriptor, POLLIN | POLLPRI, step);
        if (ready < 0) {
          VFAIL("poll(): %s\n", strerror(errno));
          goto abort;
        }
        if (ready == 0) {
          if (!flow.Moving(0)) goto abort;
          if (TerminationRequested.load() != 0) continue;  // a step of the grace, not a silent minute
          timeouts++;
          VFAIL("poll(): timedout on data read after %.2fs (%d times)\n", PollStepSeconds(), timeouts);
          break;
        }
        got = ReadSome(data->descriptor, at, static_cast<size_t>(room));
      }
      if (got > 0 && !flow.Moving(got)) goto abort;
      if (got > 0) {
        if (Settings.verbosity >= 5)
          VFAIL("read(%s:%d) %d bytes\n", data->server_text, Port(data->server), static_cast<int>(got));
        timeouts = 0;
        drained = got < room;
        room -= static_cast<int>(got);
        at += got;
        if (room == 0) break;
        continue;
      }
      if (got == 0) {
        timeouts = 0;
        break;
      }
      VFAIL("read(%s:%d): %s\n", data->server_text, Port(data->server), strerror(errno));
      goto abort;
    }
    int filled = TransferBufferSize - room;
    if (filled == 0) {
      if (timeouts >= Settings.timeout_minutes) {
        VFAIL("Timeout limit reached (%d times).\n", timeouts);
        goto abort;
      }
      if (timeouts == 0) {
        CloseDataSocket(data);
        NoteTransferEnded();
        return 0;
      }
      if (Settings.verbosity >= 4) VFAIL("No data read for callback\n");
      continue;
    }
    if (Settings.verbosity >= 5) VFAIL("sending %d bytes to callback\n", filled);
    int count = filled;
    if (callback(argument, data->transfer_buffer, &count) != 0) goto abort;
  }
abort:
  CloseDataSocket(data);
  return -1;
}

// Upload: the callback fills the buffer, we write all of it out.
int Send(FtpConnection* control, DataCallback callback, void* argument) {
  if (!IsControlRecord(control) || !IsDataRecord(control->data)) return -1;
  FtpConnection* data = control->data;
  if (data->descriptor < 0) {
    VFAIL("no client descriptor\n");
    return -1;
  }
  if (Settings.verbosity >= 4) LogMessage("writing to %s:%d\n", data->server_text, Port(data->server));
  FlowAfterTermination flow;
  for (;;) {
    int count = TransferBufferSize;
    if (callback(argument, data->transfer_buffer, &count) != 0) break;
    if (count <= 0) {
      // Closing the data socket is the end of file for the server.
      CloseDataSocket(data);
      NoteTransferEnded();
      return 0;
    }
    if (Settings.verbosity >= 5) VFAIL("callback gave us %d bytes\n", count);
    int sent = 0;
    bool given_up = false;
    while (sent < count) {
      const int step = flow.StepMs();
      int ready = PollStepOne(data->descriptor, POLLOUT, step);
      if (ready < 0) {
        VFAIL("poll(): %s\n", strerror(errno));
        break;
      }
      if (ready == 0) {
        if (!flow.Moving(0)) {
          given_up = true;
          break;
        }
        if (TerminationRequested.load() != 0) continue;  // a step of the grace, not a silent minute
        VFAIL("poll(): timedout on data write after %.2fs\n", PollStepSeconds());
        break;
      }
      ssize_t written = SendSome(data->descriptor, data->transfer_buffer + sent,
                                    static_cast<size_t>(count - sent));
      if (written < 0) {
        VFAIL("write(%s:%d): %s\n", data->server_text, Port(data->server), strerror(errno));
        break;
      }
      if (written == 0) break;
      if (Settings.verbosity >= 5)
        VFAIL("write(%s:%d) %d bytes\n", data->server_text, Port(data->server), static_cast<int>(written));
      sent += static_cast<int>(written);
      if (!flow.Moving(written) && sent < count) {
        given_up = true;
        break;
      }
    }
    if (sent < count) {
      if (!given_up) VFAIL("we didn't send everything\n");
      break;
    }
  }
  CloseDataSocket(data);
  return -1;
}

FtpConnection* NewRecord(const char* tag) {
  auto* record = static_cast<FtpConnection*>(calloc(1, sizeof(FtpConnection)));
  if (!record) {
    VFAIL("malloc(%d) failed\n", static_cast<int>(sizeof(FtpConnection)));
    return nullptr;
  }
  memcpy(record->tag, tag, 4);
  record->descriptor = -1;
  return record;
}

}  // namespace

bool IsControlRecord(const FtpConnection* record) {
  return record && memcmp(record->tag, "ftpc", 4) == 0;
}

bool IsDataRecord(const FtpConnection* record) {
  return record && memcmp(record->tag, "ftpd", 4) == 0;
}

void CloseDataSocket(FtpConnection* data) { CloseSocket(&data->descriptor); }

FtpConnection* OpenConnections(FtpSession* session, const char* host, const char* service) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  int protocol = 0;
  {
    std::lock_guard<std::mutex> hold(NameServiceLock);
    struct hostent* entry = gethostbyname(host);
    if (!entry) {
      VFAIL("gethostbyname(%s): %s\n", host, hstrerror(h_errno));
      endhostent();
      return nullptr;
    }
    if (entry->h_length != 4) {
      VFAIL("gethostbyname(%s) address length (%d) != %d\n", host, entry->h_length, 4);
      endhostent();
      return nullptr;
    }
    memcpy(&peer.sin_addr, entry->h_addr_list[0], 4);
    endhostent();
    struct servent* serv = getservbyname(service, "tcp");
    if (!serv) {
      VFAIL("getservbyname(%s)\n", service);
      endservent();
      return nullptr;
    }
    peer.sin_port = static_cast<in_port_t>(serv->s_port);
    struct protoent* proto = getprotobyname(serv->s_proto);
    if (!proto) {
      VFAIL("getprotobyname(%s)\n", serv->s_proto);
      endprotoent();
      endservent();
      return nullptr;
    }
    protocol = proto->p_proto;
    endprotoent();
    endservent();
  }
  return OpenConnectionsTo(session, peer, protocol);
}

FtpConnection* OpenConnectionsTo(FtpSession* session, const sockaddr_in& peer, int protocol) {
  FtpConnection* control = NewRecord("ftpc");
  if (!control) return nullptr;
  control->owner = session;
  control->peer = peer;
  control->peer.sin_family = AF_INET;
  control->protocol = protocol;
  control->reply_capacity = ReplyBufferSize;
  if (ConnectControl(control) != 0) {
    VFAIL("couldn't open control connection\n");
    CloseConnection(control);
    return nullptr;
  }
  FtpConnection* data = NewRecord("ftpd");
  if (data) {
    std::lock_guard<std::mutex> hold(NameServiceLock);
    struct protoent* proto = getprotobyname("tcp");
    if (!proto) {
      VFAIL("getprotobyname(%s)\n", "tcp");
      free(data);
      data = nullptr;
    } else {
      data->protocol = proto->p_proto;
    }
    endprotoent();
  }
  if (!data) {
    VFAIL("couldn't create data port\n");
    CloseConnection(control);
    return nullptr;
  }
  control->data = data;
  return control;
}

int ConnectControl(FtpConnection* control) {
  if (!IsControlRecord(control)) return -1;
  if (control->descriptor >= 0) {
    VFAIL("reopening open control connection\n");
    return -1;
  }
  int descriptor = socket(AF_INET, SOCK_STREAM, control->protocol);
  if (descriptor < 0) {
    VFAIL("socket(): %s\n", strerror(errno));
    return -1;
  }
  int connected = ConnectWithin(descriptor, reinterpret_cast<sockaddr*>(&control->peer), sizeof control->peer,
                                Settings.timeout_minutes);
  if (connected != 0) {
    char shown[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &control->peer.sin_addr, shown, sizeof shown);
    VFAIL("connect(, %s:%d): %s\n", shown, Port(control->peer), strerror(errno));
    CloseDescriptor(&descriptor);
    control->descriptor = -1;
    return -1;
  }
  socklen_t length = sizeof control->peer;
  if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&control->peer), &length) != 0) {
    VFAIL("getpeername(): %s\n", strerror(errno));
    CloseDescriptor(&descriptor);
    control->descriptor = -1;
    return -1;
  }
  inet_ntop(AF_INET, &control->peer.sin_addr, control->peer_text, sizeof control->peer_text);
  control->peer_text[sizeof control->peer_text - 1] = '\0';
  control->descriptor = descriptor;
  if (Settings.verbosity >= 4)
    LogMessage("%s: FTP control connected to %s:%d\n", ProgramName, control->peer_text, Port(control->peer));

  // The greeting, with any further lines that came with it.
  control->reply_held = 0;
  control->lines_held = 0;
  char line[ReplyBufferSize];
  do {
    if (ReadReply(control, line) != 0) {
      CloseSocket(&control->descriptor);
      return -1;
    }
  } while (control->lines_held > 0);
  return 0;
}

int ReadReply(FtpConnection* control, char* out) {
  if (!out || !IsControlRecord(control)) return -1;
  char* buffer = control->reply;
  while (control->lines_held < 1) {
    if (control->reply_held >= control->reply_capacity) {
      // No line end in a full buffer: nothing sensible can follow, so the
      // bytes are dropped and the next reply starts afresh.
      control->reply_held = 0;
      return -1;
    }
    // Checked at every step, not only when a poll finds nothing: a server
    // that talks without end must not hold a terminating run either.
    const int step = WaitStepMs();
    if (step == 0) {
      VFAIL("termination requested: no longer waiting for a reply\n");
      return -1;
    }
    int ready = PollStepOne(control->descriptor, POLLIN | POLLPRI, step);
    if (ready < 0) {
      VFAIL("poll(): %s\n", strerror(errno));
      return ControlFailed(control);
    }
    if (ready == 0 && TerminationRequested.load() != 0) continue;
    if (ready == 0) {
      // Reported, but the connection stays: a slow server is not a dead one.
      VFAIL("poll(): timedout on control read after %.2fs\n", PollStepSeconds());
      return -1;
    }
    char* fresh = buffer + control->reply_held;
    ssize_t got = ReadSome(control->descriptor, fresh,
                       static_cast<size_t>(control->reply_capacity - control->reply_held));
    if (got < 0) {
      VFAIL("read(%s:%d): %s\n", control->peer_text, Port(control->peer), strerror(errno));
      return ControlFailed(control);
    }
    if (got == 0) {
      VFAIL("%s:%d: control connection closed\n", control->peer_text, Port(control->peer));
      return ControlFailed(control);
    }
    if (Settings.verbosity >= 4) LogMessage("%.*s", static_cast<int>(got), fresh);
    control->reply_held += static_cast<int>(got);
    // Only the bytes of this read are scanned: a CR LF split between two
    // reads is not counted, and a later read must bring a counted one.
    for (ssize_t i = 0; i + 1 < got; i++)
      if (fresh[i] == '\r' && fresh[i + 1] == '\n') control->lines_held++;
    // Intermediate lines of a multi-line reply ("nnn-") are skipped.
    while (control->lines_held >= 1 && control->reply_held >= 4 && buffer[3] == '-') {
      char* end = static_cast<char*>(memmem(buffer, static_cast<size_t>(control->reply_held), "\r\n", 2));
      if (!end) {
        VFAIL("buffered reply screw up\n");
        return -1;
      }
      int length = static_cast<int>(end - buffer) + 2;
      memmove(buffer, buffer + length, static_cast<size_t>(control->reply_held - length));
      control->reply_held -= length;
      control->lines_held--;
    }
  }
  char* end = static_cast<char*>(memmem(buffer, static_cast<size_t>(control->reply_held), "\r\n", 2));
  if (!end) {
    VFAIL("buffered reply screw up\n");
    return -1;
  }
  int length = static_cast<int>(end - buffer);
  int consumed = length + 2;
  int result;
  if (length > ReplyLineMax) {
    VFAIL("command reply too long\n");
    result = -1;
  } else {
    memcpy(out, buffer, static_cast<size_t>(length));
    out[length] = '\0';
    result = (out[0] == '2' || out[0] == '3') ? 0 : 1;
  }
  memmove(buffer, buffer + consumed, static_cast<size_t>(control->reply_held - consumed));
  control->reply_held -= consumed;
  control->lines_held--;
  return result;
}

int SendCommand(FtpConnection* control, const char* command, char* reply, size_t reply_size,
                DataCallback receive, DataCallback send, void* argument) {
  if (!IsControlRecord(control)) return -1;
  if (TerminationMsLeft() == 0) {
    VFAIL("termination requested: %s not sent\n", ShownCommand(command));
    return -1;
  }
  DataCallback callback = receive ? receive : send;
  FtpConnection* data = nullptr;
  if (callback) {
    data = control->data;
    if (!IsDataRecord(data)) return -1;
    if (data->descriptor < 0 &&
        SendCommand(control, "PASV", nullptr, 0, nullptr, nullptr, nullptr) != 0) {
      VFAIL("PASV command failed\n");
      return -1;
    }
    if (!data->transfer_buffer) {
      void* mapped = mmap(nullptr, TransferBufferSize, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (mapped == MAP_FAILED) {
        VFAIL("mmap(, %u): %s\n", static_cast<unsigned>(TransferBufferSize), strerror(errno));
        return -1;
      }
      data->transfer_buffer = static_cast<char*>(mapped);
    }
  }

  // The limit counts the CR LF while at most 4094 characters are kept, so a
  // command of exactly 4093 characters goes out with CR and a zero byte.
  char line[CommandBufferSize];
  int length = FormatBounded(line, CommandBufferSize - 1, "%s\r\n", command);
  if (length > CommandBufferSize - 1) {
    VFAIL("command too long\n");
    return -1;
  }
  for (int sent = 0; sent < length;) {
    ssize_t written = SendSome(control->descriptor, line + sent, static_cast<size_t>(length - sent));
    if (written < 0) {
      VFAIL("write(%s:%d,, %d): %s\n", control->peer_text, Port(control->peer), length - sent,
            strerror(errno));
      CloseSocket(&control->descriptor);
      return AbortToCheckpoint(control->owner);
    }
    sent += static_cast<int>(written);
  }
  if (Settings.verbosity >= 3) LogMessage("%s: sent command \"%s\"\n", ProgramName, ShownCommand(command));

  char last[ReplyBufferSize] = "1";
  int failure = 0;
  long waited = 0;
  const short problems = static_cast<short>(~(POLLIN | POLLPRI | POLLOUT));
  for (;;) {
    struct pollfd set[2];
    nfds_t entries = 0;
    int control_entry = -1;
    int data_entry = -1;
    if (last[0] == '1') {
      if (control->descriptor < 0) {
        VFAIL("control connection gone\n");
        failure = AbortToCheckpoint(control->owner);
        break;
      }
      set[entries] = {control->descriptor, POLLIN | POLLPRI, 0};
      control_entry = static_cast<int>(entries++);
      if (Settings.verbosity >= 4) VFAIL("'%c': looking for completion reply\n", '1');
    }
    if (callback && data->descriptor >= 0) {
      short events = receive ? (POLLIN | POLLPRI) : POLLOUT;
      if (entries > 0 && set[entries - 1].fd == data->descriptor) {
        set[entries - 1].events |= events;
        data_entry = static_cast<int>(entries - 1);
      } else {
        set[entries] = {data->descriptor, events, 0};
        data_entry = static_cast<int>(entries++);
      }
      if (Settings.verbosity >= 4) {
        if (receive)
          VFAIL("looking for more data to read\n");
        else
          VFAIL("looking for more data to write\n");
      }
    }
    if (entries == 0) break;

    const int step = WaitStepMs();
    if (step == 0) {
      // The grace after a termination request is over: the reply (or the
      // start of the data) is not awaited any longer.
      VFAIL("termination requested: no longer waiting for a reply\n");
      if (callback) CloseDataSocket(data);
      return -1;
    }
    int ready = PollStep(set, entries, step);
    if (ready < 0) {
      VFAIL("poll(): %s\n", strerror(errno));
      return -1;
    }
    if (ready == 0 && TerminationRequested.load() != 0) continue;
    if (ready == 0) {
      waited += PollStepMs;
      VFAIL("poll(): timedout after %.2fs (%.2fs)\n", PollStepSeconds(), waited / 1000.0);
      // A plain command waits for its reply without limit: a save on the
      // server may run for hours. Only a transfer is bounded by --timeout.
      if (callback && waited >= static_cast<long>(Settings.timeout_minutes) * PollStepMs) {
        AbandonConnections(control);
        return -1;
      }
    } else {
      if (control_entry >= 0 && (set[control_entry].revents & (POLLIN | POLLPRI))) {
        do {
          char got[ReplyBufferSize];
          int result = ReadReply(control, got);
          if (result < 0) {
            last[0] = '5';
            failure = -1;
            break;
          }
          CopyBounded(last, sizeof last, got);
          if (result == 1) {
            if (reply) strncpy(reply, got, reply_size);
            // Whichever failure came first is the one reported: a transfer
            // that already broke stays -1 even when the server then sends
            // its negative reply.
            if (got[0] != '1' && failure == 0) failure = 1;
          }
        } while (control->lines_held > 0);
      }
      if (data_entry >= 0 && set[data_entry].revents) {
        int moved = receive ? Receive(control, receive, argument) : Send(control, send, argument);
        if (moved != 0 && failure == 0) failure = -1;
      }
      // An error or hang-up on the data socket that Receive or Send has
      // already met (and closed the socket for) is a failed transfer, not a
      // broken session: a server refusing a LIST or RETR resets the data
      // connection while the control connection is perfectly healthy.
      bool control_trouble = control_entry >= 0 && (set[control_entry].revents & problems);
      bool data_trouble = data_entry >= 0 && data_entry != control_entry &&
                          (set[data_entry].revents & problems) && data->descriptor >= 0;
      if (control_trouble || data_trouble) {
        VFAIL("poll(): revents: 0x%X, 0x%X\n", static_cast<unsigned>(set[0].revents),
              entries > 1 ? static_cast<unsigned>(set[1].revents) : 0u);
        AbandonConnections(control);
        return -1;
      }
      waited = 0;
    }
    if (last[0] == '1' || (callback && data->descriptor >= 0)) continue;
    break;
  }
  if (failure != 0) return failure;
  if (strcasecmp(command, "PASV") == 0) {
    if (SetUpDataConnection(control, last) != 0) {
      VFAIL("can't connect data port\n");
      return -1;
    }
  } else if (strcasecmp(command, "SYST") == 0 && reply) {
    strncpy(reply, last, reply_size);
  }
  return 0;
}

int CloseConnection(FtpConnection* record) {
  if (!record) return -1;
  if (IsControlRecord(record)) {
    CloseConnection(record->data);
    // A record that was never connected reports -1, as a close of nothing does.
    int result = record->descriptor >= 0 ? CloseDescriptor(&record->descriptor) : -1;
    free(record);
    return result;
  }
  if (IsDataRecord(record)) {
    CloseDataSocket(record);
    if (record->transfer_buffer) munmap(record->transfer_buffer, TransferBufferSize);
    free(record);
    return -1;
  }
  return -1;
}
