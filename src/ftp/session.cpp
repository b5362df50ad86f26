// The FTP session: making one, login with the server checks (SYST, TIME),
// QUIT, and the CL quoting and directory making that commands share.
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
#include "ftp/checkpoint.h"
#include "ftp/reply_judge.h"
#include "net/command.h"
#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "ftp.cpp";

std::atomic<int> ServerRelease{0};

namespace {

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
  Reply reply;
  if (Command(session->control, command, &reply) != 0) {
    VFAIL("%s command failed\n  %s\n", verb, reply.quoted);
    return -1;
  }
  return 0;
}

void KeepCopy(char** slot, const char* value) {
  if (*slot == value) return;
  free(*slot);
  *slot = strdup(value);
}

// Remembers the release that SYST named.
void ReadRelease(const char* reply) {
  const int release = JudgeSystemReply(reply);
  if (release < 0) {
    // Without the quoted text the release is unknown; the login goes on.
    VFAIL("invalid SYST reply\n");
    ServerRelease = 0;
    return;
  }
  ServerRelease = release;
}

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
  SocketAddress address{};
  address.v4 = peer;
  address.v4.sin_family = AF_INET;
  return Finish(session, OpenConnectionsTo(session, address, 0));
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
  if (ProtectDataConnections(session->control) != 0) return -1;
  if (Command(session->control, "CWD /") != 0) {
    VFAIL("CWD / command failed\n");
    return -1;
  }
  KeepCopy(&session->user, user);
  KeepCopy(&session->password, password);

  Reply reply;
  if (Command(session->control, "SYST", &reply) != 0) {
    VFAIL("SYST command failed\n");
  } else {
    // The release is looked for where a quoted reply would be cut.
    char shown[QuotedReplySize];
    CopyBounded(shown, sizeof shown, reply.line);
    ReadRelease(shown);
  }
  if (Command(session->control, "TIME 86400 86400") != 0)
    VFAIL("TIME command failed\n");
  return 0;
}

int Quit(FtpSession* session) {
  if (!IsSession(session)) return -1;
  // Once a termination request's grace is over nothing more is said to the
  // server: the session is simply closed.
  if (TerminationMsLeft() != 0 &&
      Command(session->control, "QUIT") != 0)
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
    Command(session->control, command);
  }
  return 0;
}

