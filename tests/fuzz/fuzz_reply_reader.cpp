// Fuzzes ReadReply, the reader that turns the control connection's bytes
// into reply lines.
//
// Input: four chunk lengths, then the bytes the server sends. The bytes go
// out as SOCK_SEQPACKET records whose lengths cycle through the four (0:
// everything left), so each read() of the reader ends where the input says:
// the reader's line counting depends on where reads end (a CR LF split
// between two reads must count as one line end all the same), and a plain
// stream socket would hand everything over in one read. A record longer than the reader's free room
// loses its tail, which is just another byte stream the server could send.
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fuzz_common.h"
#include "ftp/checkpoint.h"
#include "ftp/data_command.h"
#include "ftp/remote_listing.h"
#include "ftp/reply_judge.h"
#include "ftp/session.h"
#include "ftp/transfer_settings.h"
#include "net/command.h"
#include "net/data_connection.h"
#include "net/reply_reader.h"
#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"

namespace {

struct Feed {
  int descriptor;
  const uint8_t* data;
  size_t size;
  uint8_t lengths[4];
};

void* Writer(void* argument) {
  auto* feed = static_cast<Feed*>(argument);
  size_t at = 0;
  for (int record = 0; at < feed->size; record++) {
    size_t length = feed->lengths[record % 4];
    if (length == 0 || length > feed->size - at) length = feed->size - at;
    ssize_t sent;
    do {
      sent = send(feed->descriptor, feed->data + at, length, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent <= 0) break;  // the reader gave up and closed its end
    at += length;
  }
  close(feed->descriptor);
  return nullptr;
}

// Complete CR LF pairs among the held bytes.
int CountLineEnds(const char* bytes, int held) {
  int lines = 0;
  for (int i = 0; i + 1 < held; i++)
    if (bytes[i] == '\r' && bytes[i + 1] == '\n') lines++;
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceProgramLog();
  // The writer never stalls; a long step only guards against a loaded
  // machine being mistaken for a silent server.
  PollStepMs = 10000;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input{data, size};
  Feed feed{};
  for (uint8_t& length : feed.lengths) length = input.Byte();
  feed.data = input.data;
  feed.size = input.size;

  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0) abort();

  // The owner is a session with no protected operation running, so a
  // broken connection comes back as -1 instead of a jump.
  FtpSession session{};
  memcpy(session.tag, "ftps", 4);
  auto* control = static_cast<FtpConnection*>(calloc(1, sizeof(FtpConnection)));
  if (!control) abort();
  memcpy(control->tag, "ftpc", 4);
  control->owner = &session;
  control->descriptor = ends[0];
  control->reply_capacity = ReplyBufferSize;
  CopyBounded(control->peer_text, sizeof control->peer_text, "127.0.0.1");
  // The data-variant fields behind the reply buffer must never change: a
  // write past the buffer inside the record is invisible to ASan.
  memset(&control->server, 0xA5, sizeof control->server);
  memset(control->server_text, 0x5A, sizeof control->server_text);

  feed.descriptor = ends[1];
  pthread_t writer;
  if (pthread_create(&writer, nullptr, Writer, &feed) != 0) abort();

  // The caller's line buffer is exactly as large as the reader may assume,
  // so that a longer write lands in ASan's red zone.
  constexpr size_t LineSize = ReplyLineMax + 1;
  auto* line = static_cast<char*>(malloc(LineSize));
  if (!line) abort();

  // Every call reads at least one byte, hands out a held line, or meets the
  // end of the stream: more calls than that means the reader is stuck.
  const size_t call_limit = 2 * feed.size + 64;
  size_t calls = 0;
  while (control->descriptor >= 0) {
    FUZZ_CHECK(++calls <= call_limit);
    memset(line, 0x7F, LineSize);
    int result = ReadReply(control, line);
    FUZZ_CHECK(result == -1 || result == 0 || result == 1);
    if (result >= 0) {
      const char* end = static_cast<const char*>(memchr(line, '\0', LineSize));
      FUZZ_CHECK(end != nullptr);
      size_t length = static_cast<size_t>(end - line);
      FUZZ_CHECK(length <= static_cast<size_t>(ReplyLineMax));
      FUZZ_CHECK(memmem(line, length, "\r\n", 2) == nullptr);
      bool positive = length > 0 && (line[0] == '2' || line[0] == '3');
      FUZZ_CHECK((result == 0) == positive);
      // A line "nnn-" opens a multi-line reply: it is never the final one.
      FUZZ_CHECK(!(length >= 4 && isdigit(static_cast<unsigned char>(line[0])) &&
                   isdigit(static_cast<unsigned char>(line[1])) && isdigit(static_cast<unsigned char>(line[2])) &&
                   line[3] == '-'));
      // The reply was taken whole: the next one starts afresh.
      FUZZ_CHECK(control->reply_code[0] == '\0' && control->reply_lines == 0 && control->reply_bytes == 0);
    }
    // No reply is read past its bounds.
    FUZZ_CHECK(control->reply_lines <= ReplyLinesMax && control->reply_bytes <= ReplyBytesMax);
    FUZZ_CHECK(control->reply_held >= 0 && control->reply_held <= control->reply_capacity);
    FUZZ_CHECK(control->lines_held >= 0);
    // Every held line end is counted, wherever the reads ended: one not
    // counted would leave a whole line waiting for a read that may never
    // come, one counted too many would promise a line that is not there.
    FUZZ_CHECK(control->lines_held == CountLineEnds(control->reply, control->reply_held));
    for (size_t i = 0; i < sizeof control->server; i++)
      FUZZ_CHECK(reinterpret_cast<const uint8_t*>(&control->server)[i] == 0xA5);
    for (size_t i = 0; i < sizeof control->server_text; i++)
      FUZZ_CHECK(static_cast<uint8_t>(control->server_text[i]) == 0x5A);
  }
  // A broken connection leaves nothing behind for the next connection.
  FUZZ_CHECK(control->reply_held == 0 && control->lines_held == 0);

  pthread_join(writer, nullptr);
  free(line);
  free(control);
  return 0;
}
