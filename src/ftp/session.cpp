// The FTP session: login, server checks, QUIT, checkpoint recovery and the
// remote listing.
#include "ftp/session.h"

#include <pthread.h>
#include <strings.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "backup/object_tree.h"
#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"
#include "cli/vondral.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "ftp.cpp";

std::atomic<int> ServerRelease{0};

namespace {

constexpr int ShortReplySize = 128;

FtpSession* NewSessionRecord() {
  auto* session = static_cast<FtpSession*>(calloc(1, sizeof(FtpSession)));
  if (!session) VFAIL("malloc(%d) failed\n", static_cast<int>(sizeof(FtpSession)));
  return session;
}

FtpSession* Finish(FtpSession* session, FtpConnection* control) {
  if (!control) {
    free(session);
    return nullptr;
  }
  session->control = control;
  memcpy(session->tag, "ftps", 4);
  return session;
}

// Sends "<verb> <value>" within the 255-byte limit of USER and PASS.
int SendCredential(FtpSession* session, const char* verb, const char* value, const char* label) {
  char command[256];
  int length = FormatBounded(command, 255, "%s %s", verb, value);
  if (length > 255) {
    VFAIL("%s too long\n", label);
    return -1;
  }
  char reply[ShortReplySize] = "";
  if (SendCommand(session->control, command, reply, sizeof reply, nullptr, nullptr, nullptr) != 0) {
    reply[sizeof reply - 1] = '\0';
    VFAIL("%s command failed\n  %s\n", verb, reply);
    return -1;
  }
  return 0;
}

void KeepCopy(char** slot, const char* value) {
  if (*slot == value) return;
  free(*slot);
  *slot = strdup(value);
}

void ReadRelease(const char* reply) {
  const char* open = strchr(reply, '"');
  const char* close = open ? strchr(open + 1, '"') : nullptr;
  if (!close) {
    // Without the quoted text the release is unknown; the login goes on.
    VFAIL("invalid SYST reply\n");
    ServerRelease = 0;
    return;
  }
  size_t length = static_cast<size_t>(close - open - 1);
  if (length == 6 && memcmp(open + 1, "V5R3M0", 6) == 0)
    ServerRelease = 1;
  else if (length == 6 && memcmp(open + 1, "V5R4M0", 6) == 0)
    ServerRelease = 2;
  else
    ServerRelease = 0;
}

struct LiveCheckpoint {
  FtpSession* session;
  explicit LiveCheckpoint(FtpSession* s) : session(s) { session->live_checkpoints++; }
  ~LiveCheckpoint() { session->live_checkpoints--; }
};

}  // namespace

bool IsSession(const FtpSession* session) {
  return session && memcmp(session->tag, "ftps", 4) == 0;
}

FtpSession* NewSession(const char* host, const char* service) {
  FtpSession* session = NewSessionRecord();
  if (!session) return nullptr;
  return Finish(session, OpenConnections(session, host, service));
}

FtpSession* NewSessionTo(const sockaddr_in& peer) {
  FtpSession* session = NewSessionRecord();
  if (!session) return nullptr;
  return Finish(session, OpenConnectionsTo(session, peer, 0));
}

int Login(FtpSession* session, const char* user, const char* password) {
  if (!IsSession(session)) return -1;
  if (!user) user = session->user;
  if (!user) {
    VFAIL("we don't have a user name\n");
    return -1;
  }
  if (SendCredential(session, "USER", user, "user") != 0) return -1;
  if (!password) password = session->password;
  if (!password) {
    VFAIL("we don't have a password\n");
    return -1;
  }
  if (SendCredential(session, "PASS", password, "password") != 0) return -1;
  if (SendCommand(session->control, "CWD /", nullptr, 0, nullptr, nullptr, nullptr) != 0) {
    VFAIL("CWD / command failed\n");
    return -1;
  }
  KeepCopy(&session->user, user);
  KeepCopy(&session->password, password);

  char reply[ShortReplySize] = "";
  if (SendCommand(session->control, "SYST", reply, sizeof reply, nullptr, nullptr, nullptr) != 0) {
    VFAIL("SYST command failed\n");
  } else {
    reply[sizeof reply - 1] = '\0';
    ReadRelease(reply);
  }
  if (SendCommand(session->control, "TIME 86400 86400", nullptr, 0, nullptr, nullptr, nullptr) != 0)
    VFAIL("TIME command failed\n");
  return 0;
}

int Quit(FtpSession* session) {
  if (!IsSession(session)) return -1;
  // Once a termination request's grace is over nothing more is said to the
  // server: the session is simply closed.
  if (TerminationMsLeft() != 0 &&
      SendCommand(session->control, "QUIT", nullptr, 0, nullptr, nullptr, nullptr) != 0)
    VFAIL("QUIT command failed\n");
  int result = CloseConnection(session->control);
  free(session->user);
  free(session->password);
  memset(session->tag, 0, sizeof session->tag);
  free(session);
  return result;
}

const char* QuoteForCL(const char* text) {
  // A doubled quote may carry the count one past 4093; the buffer has room.
  thread_local char quoted[4096];
  size_t used = 0;
  for (const char* at = text; *at && used < 4093; at++) {
    if (*at == '"' || *at == '\'') quoted[used++] = *at;
    quoted[used++] = *at;
  }
  quoted[used] = '\0';
  return quoted;
}

int MakeParentDirectories(FtpSession* session, char* path) {
  if (!path || path[0] != '/') return 1;
  for (char* slash = strchr(path + 1, '/'); slash; slash = strchr(slash + 1, '/')) {
    *slash = '\0';
    char command[CommandBufferSize];
    FormatBounded(command, sizeof command, "MKD %s", path);
    *slash = '/';
    // An existing directory is normal; the restore itself reports failures.
    SendCommand(session->control, command, nullptr, 0, nullptr, nullptr, nullptr);
  }
  return 0;
}

int AbortToCheckpoint(FtpSession* session) {
  if (!IsSession(session)) {
    VFAIL("not a session\n");
    return -1;
  }
  if (!(session->checkpoint_flags & CHECKPOINT_ARMED) || session->live_checkpoints <= 0) {
    VFAIL("jump buffer invalid\n");
    return -1;
  }
  // Whatever the frames in between hold (the archive lock of a retrieval,
  // with its cut-back) is given back by their guards as the abort passes.
  throw CheckpointAbort{session};
}

int RecoverCheckpoint(FtpSession* session) {
  if (!IsSession(session)) return -1;
  VFAIL("recovering checkpoint\n");
  // A data connection left open by the broken exchange belongs to the dead
  // control connection; the next transfer must make a fresh one.
  if (IsDataRecord(session->control->data)) CloseDataSocket(session->control->data);
  if (ConnectControl(session->control) != 0) {
    VFAIL("can't reopen control connection\n");
    return -1;
  }
  if (Login(session, nullptr, nullptr) != 0) {
    VFAIL("login failed\n");
    return -1;
  }
  // The new connection has the server's defaults again.
  session->mode = session->structure = session->type = 0;
  session->name_format = session->list_format = 0;
  return 0;
}

int RunProtectedOperation(FtpSession* session, int (*body)(void*), void* argument) {
  const uint8_t outer = session->checkpoint_flags;
  for (;;) {
    session->checkpoint_flags |= CHECKPOINT_ARMED | CHECKPOINT_RETRY;
    try {
      LiveCheckpoint live(session);
      int result = body(argument);
      session->checkpoint_flags = outer;
      return result;
    } catch (const CheckpointAbort& abort) {
      if (abort.session != session) throw;
    }
    // A run that is ending does not open new connections: the operation
    // fails here, its guards have already undone what it began.
    if (TerminationRequested.load() != 0) {
      VFAIL("termination requested: not recovering\n");
      session->checkpoint_flags = outer;
      return -1;
    }
    // Back through the checkpoint. The body is no longer running, so a
    // failure during recovery fails the recovery instead of aborting again.
    if (RecoverCheckpoint(session) != 0) {
      VFAIL("can't recover checkpoint\n");
      return -1;
    }
    if (!(session->checkpoint_flags & CHECKPOINT_RETRY)) {
      session->checkpoint_flags = outer;
      return -1;
    }
  }
}

void PassPointOfNoReturn(FtpSession* session) {
  session->checkpoint_flags = static_cast<uint8_t>(session->checkpoint_flags & ~CHECKPOINT_RETRY);
}

int EnsureParameter(FtpSession* session, int* field, int wanted, const char* command,
                    const char* label) {
  if (*field == wanted) return 0;
  if (SendCommand(session->control, command, nullptr, 0, nullptr, nullptr, nullptr) != 0) {
    VFAIL("%s command failed\n", label);
    return -1;
  }
  *field = wanted;
  return 0;
}

int ListDirectory(FtpSession* session, const char* path, DataCallback callback, void* context,
                  ObjectNode* directory) {
  if (!IsSession(session)) return -1;
  char reply[ShortReplySize] = "";
  bool list_failed = false;
  int result = RunProtected(session, [&]() -> int {
    if (EnsureParameter(session, &session->structure, 'F', "STRU F", "STRU") != 0 ||
        EnsureParameter(session, &session->mode, 'S', "MODE S", "MODE") != 0 ||
        EnsureParameter(session, &session->type, 'A', "TYPE A", "TYPE") != 0 ||
        EnsureParameter(session, &session->list_format, '1', "SITE LISTFMT 1", "LISTFMT") != 0 ||
        EnsureParameter(session, &session->name_format, '1', "SITE NAMEFMT 1", "NAMEFMT") != 0)
      return -1;
    char command[CommandBufferSize];
    if (FormatBounded(command, CommandBufferSize - 1, "LIST %s", path) > CommandBufferSize - 1) {
      VFAIL("LIST command too long\n");
      return -1;
    }
    // The callback may already have part of the listing: a recovery must
    // not run the LIST again.
    PassPointOfNoReturn(session);
    memset(reply, 0, sizeof reply);
    if (SendCommand(session->control, command, reply, sizeof reply, callback, nullptr, context) == 0)
      return 0;
    list_failed = true;
    return -1;
  });
  if (!list_failed) return result;
  reply[sizeof reply - 1] = '\0';
  return ListFailed(reply, directory);
}

int ListFailed(const char* reply, ObjectNode* directory) {
  if (!reply) {
    VFAIL("NULL input\n");
    return -22;
  }
  // List mode keeps no tree: there is nothing to save whole instead, so a
  // failed listing is simply fatal there.
  if (directory) {
    static const char* const exempt[] = {"", "/QSYS.LIB"};
    const char* name = directory->name ? directory->name : "";
    bool is_exempt = false;
    for (const char* path : exempt) {
      if (strcmp(name, path) == 0) {
        VFAIL("%s is exempt\n", name);
        is_exempt = true;
        break;
      }
    }
    if (!is_exempt && strstr(reply, "CPF3CAA")) {
      // The server will not list this directory, but it can still save it:
      // keep it as one object of its parent and let the walk skip it.
      ObjectNode* parent = directory->parent;
      if (parent) {
        AppendFile(parent, directory->name, directory->mode, directory->size, directory->mtime);
        MarkPartial(parent);
        SkipInWalk(directory);
      } else {
        bool present = false;
        for (ObjectNode* d = directory->first_dir; d && !present; d = d->next)
          present = d->name && strcmp(d->name, name) == 0;
        for (ObjectFile* f = directory->first_file; f && !present; f = f->next)
          present = f->name && strcmp(f->name, name) == 0;
        if (!present) AppendFile(directory, name, 0, 0, tm{});
      }
      return 0;
    }
  }
  VFAIL("LIST command failed\n  %s\n", reply);
  return -1;
}
