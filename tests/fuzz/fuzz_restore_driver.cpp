// Fuzzes the restore driver, RestoreArchive (src/restore/restore.cpp), over
// an arbitrary archive image: headers judged, entries chosen, uploaded and
// restored, skipped, or failed and skipped, until the end block or a place
// where the archive cannot be read on.
//
// Input: one settings byte, then the archive image.
//   bits 0-1, the server side:
//     0, 3  the scripted IBM i-like peer of the unit tests (fake_server.h)
//           on loopback: it takes every upload and answers every other
//           command positively;
//     1     the same peer, but an exclude file leaves every entry whose
//           name starts with "/" out: the driver mostly judges and skips;
//     2     a peer that drops the connection at the first command after a
//           login and refuses every login after the first: every restore
//           fails (after a recovery that fails) and its data is skipped.
//   bit 2: the archive comes through a pipe, as from standard input (read
//          through when skipped), instead of from a file (skipped by seeks).
//
// Besides the sanitizers' findings the result must be one of 0, 1 and -1,
// and a run that restored every entry (0, with the positive peer) must have
// uploaded exactly the data of the entries an independent walk of the
// image finds, in order.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "../unit/fake_server.h"
#include "archive/ctar_format.h"
#include "cli/settings.h"
#include "fuzz_common.h"
#include "restore/restore.h"
#include "support/sysio.h"

namespace {

std::mutex UploadLock;
std::vector<std::string> Uploads;

// Takes uploads and says yes to everything else.
PeerScript PositivePeer() {
  return LoginScript([](PeerConnection& c, const std::string& command) {
    if (command == "PASV") {
      c.Reply(c.PassiveReply());
    } else if (command.rfind("STOR ", 0) == 0) {
      c.Reply("150 Opening data connection.\r\n");
      std::string data = c.ReceiveUpload();
      {
        std::lock_guard<std::mutex> hold(UploadLock);
        Uploads.push_back(data);
      }
      c.Reply("226 Transfer complete.\r\n");
    } else {
      c.Reply("250 Command successful.\r\n");
    }
    return true;
  });
}

// Logs in once, then drops every connection at its first command after a
// login and refuses every later login.
PeerScript BrokenPeer() {
  auto logins = std::make_shared<std::atomic<int>>(0);
  return [logins](PeerConnection& c, const std::string& command) {
    if (command.rfind("USER ", 0) == 0) {
      c.Reply("331 Enter password.\r\n");
      return true;
    }
    if (command.rfind("PASS ", 0) == 0) {
      c.Reply(++*logins == 1 ? "230 logged on.\r\n" : "530 Log on attempt rejected.\r\n");
      return true;
    }
    if (*logins == 1 && (command == "CWD /" || command == "SYST" || command.rfind("TIME ", 0) == 0)) {
      c.Reply(command == "SYST" ? "215  OS/400 is the remote operating system. The TCP/IP version is \"V5R4M0\".\r\n"
                                : "250 ok.\r\n");
      return true;
    }
    return false;
  };
}

FakeFtpServer* Positive = nullptr;
FakeFtpServer* Broken = nullptr;
FtpSession* PositiveSession = nullptr;
FtpSession* BrokenSession = nullptr;
char ArchivePath[] = "/tmp/fuzz-restore-XXXXXX";
char Dash[] = "-";
const char ExcludeText[] = "/\n";

FtpSession* LoggedIn(FakeFtpServer* server) {
  FtpSession* session = NewSessionTo(server->address());
  if (!session || Login(session, "fuzz", "fuzz") != 0) abort();
  return session;
}

struct PipeFeed {
  int descriptor;
  const uint8_t* data;
  size_t size;
};

void* FeedPipe(void* argument) {
  auto* feed = static_cast<PipeFeed*>(argument);
  WriteFull(feed->descriptor, feed->data, feed->size);  // stops when the reader is gone
  close(feed->descriptor);
  return nullptr;
}

// The entries' data as a plain walk finds them: header after header while
// the checksum holds and the data lies inside the image, up to the end
// block.
std::vector<std::string> EntriesOf(const uint8_t* image, size_t size) {
  std::vector<std::string> entries;
  for (size_t at = 0; at + CtarBlockSize <= size;) {
    uint64_t length = 0;
    const int judged = ReadCtarHeader(image + at, &length, nullptr, 0);
    if (judged != CtarEntry || length > size - at - CtarBlockSize) break;
    entries.emplace_back(reinterpret_cast<const char*>(image + at + CtarBlockSize), static_cast<size_t>(length));
    at += CtarBlockSize + static_cast<size_t>(CtarPaddedSize(length));
  }
  return entries;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceProgramLog();
  signal(SIGPIPE, SIG_IGN);
  PollStepMs = 5000;
  const int fd = mkstemp(ArchivePath);
  if (fd < 0) abort();
  close(fd);
  Positive = new FakeFtpServer(PositivePeer());
  Broken = new FakeFtpServer(BrokenPeer());
  PositiveSession = LoggedIn(Positive);
  BrokenSession = LoggedIn(Broken);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input{data, size};
  const uint8_t settings = input.Byte();
  const int server = settings & 3;
  const bool piped = (settings & 4) != 0;
  {
    std::lock_guard<std::mutex> hold(UploadLock);
    Uploads.clear();
  }

  FILE* exclude = nullptr;
  if (server == 1) {
    exclude = fmemopen(const_cast<char*>(ExcludeText), sizeof ExcludeText - 1, "r");
    if (!exclude) abort();
  }
  Settings.exclude = exclude;
  Settings.include = nullptr;
  RestoredProfiles = 0;

  int saved_input = -1;
  pthread_t writer{};
  PipeFeed feed{-1, input.data, input.size};
  if (piped) {
    int ends[2];
    if (pipe(ends) != 0) abort();
    saved_input = dup(STDIN_FILENO);
    if (saved_input < 0 || dup2(ends[0], STDIN_FILENO) < 0) abort();
    close(ends[0]);
    feed.descriptor = ends[1];
    if (pthread_create(&writer, nullptr, FeedPipe, &feed) != 0) abort();
    Settings.restore_path = Dash;
  } else {
    const int fd = open(ArchivePath, O_WRONLY | O_TRUNC);
    if (fd < 0 || WriteFull(fd, input.data, input.size) != static_cast<ssize_t>(input.size)) abort();
    close(fd);
    Settings.restore_path = ArchivePath;
  }

  FtpSession* session = server == 2 ? BrokenSession : PositiveSession;
  const int result = RestoreArchive(session);
  FUZZ_CHECK(result == 0 || result == 1 || result == -1);

  if (piped) {
    // The restore closed its end: the writer is done or meets a broken pipe.
    pthread_join(writer, nullptr);
    if (dup2(saved_input, STDIN_FILENO) < 0) abort();
    close(saved_input);
  }
  if (result == 0 && server != 2 && server != 1) {
    std::lock_guard<std::mutex> hold(UploadLock);
    FUZZ_CHECK(Uploads == EntriesOf(input.data, input.size));
  }
  if (exclude) fclose(exclude);
  Settings.exclude = nullptr;
  Settings.restore_path = nullptr;
  Positive->ForgetCommands();
  Broken->ForgetCommands();
  return 0;
}
