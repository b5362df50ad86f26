// The FTP session: login, server checks, QUIT, checkpoint recovery, remote
// listing, and the save and restore command families.
#include "ftp.h"

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

#include "backup.h"
#include "support.h"
#include "vondral.h"

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
        ReleaseName(directory);
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

// ---------------------------------------------------------------------------
// Save command family
// ---------------------------------------------------------------------------

namespace {

double Elapsed(const struct timeval& from, const struct timeval& to) {
  return static_cast<double>(to.tv_sec - from.tv_sec) +
         static_cast<double>(to.tv_usec - from.tv_usec) / 1000000;
}

// Closes the entry whose data the retrieval has written behind the old end
// block: the last block padded with zeros, a new end block behind it, and
// the header over the old end block. Nothing of it counts until the header
// is in place; a write that fails leaves the cut-back to the guard. 0, or
// -1 after a message.
int CloseEntry(ArchiveAppend* append, const ObjectFile* object) {
  ArchiveWriter* writer = append->Writer();
  const int descriptor = writer->descriptor;
  if (writer->pending > 0) {
    memset(writer->block + writer->pending, 0, CtarBlockSize - static_cast<size_t>(writer->pending));
    ssize_t written = WriteFull(descriptor, writer->block, CtarBlockSize);
    if (written != static_cast<ssize_t>(CtarBlockSize)) {
      if (written < 0)
        VFAIL("write(): %s\n", strerror(errno));
      else
        VFAIL("write(,, %d) = %d\n", static_cast<int>(CtarBlockSize), static_cast<int>(written));
      return -1;
    }
    writer->bytes += writer->pending;
    writer->pending = 0;
  }
  if (writer->bytes <= 0) {
    // A save file is never empty: whatever the server said, there is
    // nothing here that a restore could bring back.
    LogMessage("Block returned no data\n");
    return -1;
  }
  unsigned char block[CtarBlockSize];
  if (WriteFull(descriptor, BuildCtarSentinel(block), CtarBlockSize) != static_cast<ssize_t>(CtarBlockSize)) {
    VFAIL("CTAR sentinel failed write(): %s\n", strerror(errno));
    return -1;
  }
  BuildCtarHeader(block, object->name, static_cast<uint64_t>(writer->bytes), object->mode, object->mtime);
  size_t written = 0;
  ssize_t result =
      PwriteFull(descriptor, block, CtarBlockSize, append->Start() - static_cast<off64_t>(CtarBlockSize), &written);
  // Only a header that went out in part spoils the old end block; one that
  // did not go out at all leaves it as it was, with nothing to write back
  // on a disk that may be full.
  if (written > 0 && written < CtarBlockSize) append->TouchEndBlock();
  if (result != static_cast<ssize_t>(CtarBlockSize)) {
    VFAIL("CTAR header failed to update: %s\n", strerror(errno));
    return -1;
  }
  append->Commit();
  return 0;
}

// What a failed save reply means for the object.
enum class PartialRule {
  None,          // every failure fails
  NotSavedCount, // 550 "<n> objects saved. <m> objects not saved.." with precheck off
  AnyFailure,    // with precheck off every failure is a partial save
};

struct SaveCommand {
  const char* label;  // "SAV", "SAVLIB", ... as the messages name it
  bool name_format;   // only the members that name an object need NAMEFMT
  PartialRule partial;
};

// Checks a failed save reply for the partial-save phrase; on a match gives
// the number of objects not saved (as text) and its length.
bool NotSavedCount(const char* reply, const char** count, int* length) {
  if (!strstr(reply, "550")) return false;
  const char* saved = strstr(reply, "objects saved. ");
  if (!saved) return false;
  const char* from = saved + strlen("objects saved. ");
  const char* not_saved = strstr(from, " objects not saved..");
  if (!not_saved) return false;
  *count = from;
  *length = static_cast<int>(not_saved - from);
  return true;
}

void ReportPartial(const char* format_count, int length, const char* name, const char* reply) {
  // The object counts as saved; what it left behind is listed for the
  // operator all the same.
  if (format_count) {
    if (Settings.verbosity >= 1)
      LogMessageTo(stdout, "%s: %.*s objects not saved\n", name, length, format_count);
    if (Settings.notbackedup)
      LogMessageTo(Settings.notbackedup, "%s: %.*s objects not saved\n", name, length, format_count);
  } else {
    if (Settings.verbosity >= 1) LogMessageTo(stdout, "%s: %s\n", name, reply);
    if (Settings.notbackedup) LogMessageTo(Settings.notbackedup, "%s: %s\n", name, reply);
  }
}

// The save family shares everything but the command and the judgement of
// a failed reply: settings, the save file, the command, then retrieval.
int RunSave(FtpSession* session, ObjectFile* object, int number, TransferStats* stats,
            DataCallback callback, void* writer, const SaveCommand& save,
            int (*build)(char* command, ObjectFile* object, int number)) {
  if (!IsSession(session)) return -1;
  const uint8_t outer = session->checkpoint_flags;
  return RunProtected(session, [&]() -> int {
    if (EnsureParameter(session, &session->structure, 'F', "STRU F", "STRU") != 0 ||
        EnsureParameter(session, &session->mode, 'S', "MODE S", "MODE") != 0 ||
        EnsureParameter(session, &session->type, 'I', "TYPE I", "TYPE") != 0 ||
        (save.name_format &&
         EnsureParameter(session, &session->name_format, '1', "SITE NAMEFMT 1", "NAMEFMT") != 0))
      return -1;
    char command[CommandBufferSize];
    FormatBounded(command, sizeof command, "RCMD CLRSAVF FILE(QTEMP/SAV%d)", number);
    if (SendCommand(session->control, command, nullptr, 0, nullptr, nullptr, nullptr) != 0) {
      // The save file does not exist yet in this job.
      FormatBounded(command, sizeof command, "RCMD CRTSAVF FILE(QTEMP/SAV%d)", number);
      if (SendCommand(session->control, command, nullptr, 0, nullptr, nullptr, nullptr) != 0) {
        VFAIL("CRTSAVF command failed\n");
        return -1;
      }
    }
    if (build(command, object, number) != 0) return -1;

    struct timeval started{}, saved{};
    if (stats) gettimeofday(&started, nullptr);
    char reply[ShortReplySize] = "";
    if (SendCommand(session->control, command, reply, sizeof reply, nullptr, nullptr, nullptr) != 0) {
      reply[sizeof reply - 1] = '\0';
      const char* count = nullptr;
      int length = 0;
      bool partial = false;
      if (!Settings.precheck && save.partial == PartialRule::NotSavedCount &&
          NotSavedCount(reply, &count, &length)) {
        ReportPartial(count, length, object->name, reply);
        partial = true;
      } else if (!Settings.precheck && save.partial == PartialRule::AnyFailure) {
        ReportPartial(nullptr, 0, object->name, reply);
        partial = true;
      }
      if (!partial) {
        VFAIL("%s command failed\n  %s\n", save.label, reply);
        return -1;
      }
      // Saved, but not all of it: the run must not end as a full success.
      static_cast<ArchiveWriter*>(writer)->partial = 1;
    }
    if (stats) {
      gettimeofday(&saved, nullptr);
      stats->save_seconds = Elapsed(started, saved);
    }
    // The save ran: from here a broken connection fails the object rather
    // than saving it a second time.
    PassPointOfNoReturn(session);
    char path[64];
    FormatBounded(path, sizeof path, "/QSYS.LIB/QTEMP.LIB/SAV%d.SAVF", number);
    struct timeval locked = saved;
    int result = RetrieveToArchive(session, outer, object, path, &locked, callback,
                                   static_cast<ArchiveWriter*>(writer));
    if (stats) {
      struct timeval done{};
      gettimeofday(&done, nullptr);
      stats->wait_seconds = Elapsed(saved, locked);
      stats->transfer_seconds = Elapsed(locked, done);
    }
    return result;
  });
}

int BuildSav(char* command, ObjectFile* object, int number) {
  // A trailing slash would name the directory's contents, not the directory.
  size_t length = strlen(object->name);
  if (length > 1 && object->name[length - 1] == '/') object->name[length - 1] = '\0';
  int n = FormatBounded(command, CommandBufferSize,
                        "RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/SAV%d.FILE') OBJ(('\"%s\"')) SUBTREE(*ALL) "
                        "PRECHK(%s) UPDHST(*NO) SAVACT(*YES)",
                        number, QuoteForCL(object->name), Settings.precheck ? "*YES" : "*NO");
  if (Settings.cutoff_flag && n < CommandBufferSize)
    n += FormatBounded(command + n, CommandBufferSize - static_cast<size_t>(n), " CHGPERIOD('%s' '%s')",
                       Settings.cutoff_date_text, Settings.cutoff_time_text);
  if (n >= CommandBufferSize) {
    VFAIL("SAV command too long\n");
    return -1;
  }
  return 0;
}

int BuildSavlib(char* command, ObjectFile* object, int number) {
  const char* last = strrchr(object->name, '/');
  last = last ? last + 1 : object->name;
  const char* dot = strrchr(last, '.');
  if (!dot || strcmp(dot, ".LIB") != 0) {
    VFAIL("bad library name\n");
    return -1;
  }
  int n = FormatBounded(command, CommandBufferSize,
                        "RCMD SAVLIB LIB(%.*s) DEV(*SAVF) SAVF(QTEMP/SAV%d) PRECHK(%s) UPDHST(*NO) "
                        "SAVACT(*SYNCLIB) SAVACTWAIT(%s) ACCPTH(*YES)",
                        static_cast<int>(dot - last), last, number, Settings.precheck ? "*YES" : "*NO",
                        Settings.wait_text ? Settings.wait_text : "120");
  if (n >= CommandBufferSize) {
    VFAIL("SAVLIB command too long\n");
    return -1;
  }
  return 0;
}

int BuildSavdlo(char* command, ObjectFile*, int number) {
  FormatBounded(command, CommandBufferSize, "RCMD SAVDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAV%d) SAVACT(*YES)",
                number);
  return 0;
}

int BuildSavsecdta(char* command, ObjectFile*, int number) {
  FormatBounded(command, CommandBufferSize, "RCMD SAVSECDTA DEV(*SAVF) SAVF(QTEMP/SAV%d) PRECHK(%s)", number,
                Settings.precheck ? "*YES" : "*NO");
  return 0;
}

int BuildSavcfg(char* command, ObjectFile*, int number) {
  FormatBounded(command, CommandBufferSize, "RCMD SAVCFG DEV(*SAVF) SAVF(QTEMP/SAV%d) PRECHK(%s)", number,
                Settings.precheck ? "*YES" : "*NO");
  return 0;
}

}  // namespace


int SAV(FtpSession* session, ObjectFile* object, int number, TransferStats* stats, DataCallback callback,
        void* writer) {
  return RunSave(session, object, number, stats, callback, writer, {"SAV", true, PartialRule::NotSavedCount},
                 BuildSav);
}

int SAVLIB(FtpSession* session, ObjectFile* object, int number, TransferStats* stats, DataCallback callback,
           void* writer) {
  return RunSave(session, object, number, stats, callback, writer, {"SAVLIB", true, PartialRule::AnyFailure},
                 BuildSavlib);
}

int SAVDLO(FtpSession* session, ObjectFile* object, int number, TransferStats* stats, DataCallback callback,
           void* writer) {
  return RunSave(session, object, number, stats, callback, writer, {"SAVDLO", false, PartialRule::None},
                 BuildSavdlo);
}

int SAVSECDTA(FtpSession* session, ObjectFile* object, int number, TransferStats* stats,
              DataCallback callback, void* writer) {
  return RunSave(session, object, number, stats, callback, writer,
                 {"SAVSECDTA", false, PartialRule::NotSavedCount}, BuildSavsecdta);
}

int SAVCFG(FtpSession* session, ObjectFile* object, int number, TransferStats* stats, DataCallback callback,
           void* writer) {
  return RunSave(session, object, number, stats, callback, writer,
                 {"SAVCFG", false, PartialRule::NotSavedCount}, BuildSavcfg);
}

int RetrieveToArchive(FtpSession* session, uint8_t checkpoint, ObjectFile* object, const char* savf_path,
                      struct timeval* locked, DataCallback callback, ArchiveWriter* writer) {
  char command[CommandBufferSize];
  FormatBounded(command, sizeof command, "RETR %s", savf_path);
  int result = -1;
  {
    // Holds the archive from here to the end of the block and, unless the
    // entry is closed whole, cuts the archive back to what it was: on a
    // refused or broken transfer, a failed write, or the abort that carries
    // a lost control connection back to the caller's checkpoint.
    ArchiveAppend append(writer);
    gettimeofday(locked, nullptr);
    if (append.Usable()) {
      char reply[ShortReplySize] = "";
      int sent = SendCommand(session->control, command, reply, sizeof reply, callback, nullptr, writer);
      session->checkpoint_flags = checkpoint;
      if (sent != 0) {
        reply[sizeof reply - 1] = '\0';
        VFAIL("RETR command failed\n  %s\n", reply);
        // The transfer hands data over only in calls that carry some.
        if (writer->calls == 0) LogMessage("Block returned no data\n");
      } else {
        result = CloseEntry(&append, object);
      }
    } else {
      session->checkpoint_flags = checkpoint;
    }
  }
  // After a termination request the worker goes no further than this
  // entry: its block ends before the next object, once the entry's
  // success, catalog lines and totals are recorded.
  return result;
}

// ---------------------------------------------------------------------------
// Restore command family
// ---------------------------------------------------------------------------


namespace {

// Seconds of the wall clock; false when it cannot be read, so that no time
// is reported rather than a wrong one.
bool RestoreClock(double* seconds) {
  struct timeval now{};
  if (gettimeofday(&now, nullptr) != 0) return false;
  *seconds = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1e6;
  return true;
}

// When the upload ended, as far as the clock could tell.
struct RestoreUpload {
  bool timed;
  double end;
};

// The part every member shares, run inside its protected operation: the
// transfer settings, an empty save file, and the upload. The point of no
// return comes right before STOR, since the callback consumes the archive.
int UploadSaveFile(FtpSession* session, bool name_format, RestoreTimes* times, DataCallback send,
                   void* argument, RestoreUpload* upload) {
  if (EnsureParameter(session, &session->structure, 'F', "STRU F", "STRU") != 0 ||
      EnsureParameter(session, &session->mode, 'S', "MODE S", "MODE") != 0 ||
      EnsureParameter(session, &session->type, 'I', "TYPE I", "TYPE") != 0)
    return -1;
  if (name_format &&
      EnsureParameter(session, &session->name_format, '1', "SITE NAMEFMT 1", "NAMEFMT") != 0)
    return -1;
  // The save file survives in QTEMP for the life of the server job, so only
  // the first restore of a session has to create it.
  char clear[64], create[64], store[64];
  FormatBounded(clear, sizeof clear, "RCMD CLRSAVF FILE(%s)", SaveTempFile);
  FormatBounded(create, sizeof create, "RCMD CRTSAVF FILE(%s)", SaveTempFile);
  FormatBounded(store, sizeof store, "STOR %s", SaveTempUpload);
  if (SendCommand(session->control, clear, nullptr, 0, nullptr, nullptr, nullptr) != 0 &&
      SendCommand(session->control, create, nullptr, 0, nullptr, nullptr, nullptr) != 0) {
    VFAIL("CRTSAVF command failed\n");
    return -1;
  }
  double start = 0;
  bool started = RestoreClock(&start);
  PassPointOfNoReturn(session);
  if (SendCommand(session->control, store, nullptr, 0, nullptr, send, argument) != 0) {
    VFAIL("STOR command failed\n");
    return -1;
  }
  upload->timed = RestoreClock(&upload->end);
  if (times && started && upload->timed) times->transfer_seconds = upload->end - start;
  return 0;
}

void NoteRestoreSeconds(RestoreTimes* times, const RestoreUpload& upload) {
  double now = 0;
  if (times && upload.timed && RestoreClock(&now)) times->restore_seconds = now - upload.end;
}

// Outcomes of one restore command.
constexpr int RestoreCommandDone = 0;
constexpr int RestoreCommandTolerated = 1;  // failed, but judged good enough
constexpr int RestoreCommandFailed = -1;

// Sends a restore command with the short reply buffer. On failure the reply
// is quoted under `label` and judged: a restore that put some objects back,
// or found nothing to restore, is tolerated rather than failed.
int RunRestoreCommand(FtpSession* session, const char* command, const char* label) {
  char reply[RestoreReplySize] = "";
  if (SendCommand(session->control, command, reply, sizeof reply, nullptr, nullptr, nullptr) == 0)
    return RestoreCommandDone;
  reply[sizeof reply - 1] = '\0';
  VFAIL("%s command failed\n  %s\n", label, reply);
  return ClassifyRestoreReply(reply) >= 1 ? RestoreCommandTolerated : RestoreCommandFailed;
}

// A CL command built piece by piece in the command buffer, counting what
// the whole text would need even where the buffer cut it.
struct RestoreCommandText {
  char text[CommandBufferSize] = "";
  size_t needed = 0;
  void Add(const char* piece) {
    AppendBounded(text, sizeof text, piece);
    needed += strlen(piece);
  }
  // QuoteForCL's buffer is reused by its next call, so each quoted path is
  // added on its own.
  void AddQuoted(const char* path) { Add(QuoteForCL(path)); }
};

void BuildRestoreObjectCommand(RestoreCommandText* command, const StringPair* pair,
                               const StringList* exclusions) {
  command->Add("RCMD RST DEV('");
  command->Add(SaveTempDevice);
  command->Add("') OBJ(('\"");
  command->AddQuoted(pair->first);
  command->Add("\"'");
  if (pair->second) {
    command->Add(" *INCLUDE '\"");
    command->AddQuoted(pair->second);
    command->Add("\"')");
  } else {
    command->Add(")");
  }
  for (const StringPair* omit = exclusions->first; omit; omit = omit->next) {
    command->Add(" ('\"");
    command->AddQuoted(omit->first);
    command->Add("\"' *OMIT)");
  }
  command->Add(") SUBTREE(*ALL) ALWOBJDIF(*ALL)");
  if (ServerRelease > 1) command->Add(" CRTPRNDIR(*Yes)");
}

// A library path ends in ".LIB" behind its last '.'; out receives it cut
// at that '.', so "/QSYS.LIB/PAYROLL.LIB" becomes "/QSYS.LIB/PAYROLL".
bool CutLibraryPath(const char* path, char* out, size_t capacity) {
  const char* dot = strrchr(path, '.');
  if (!dot || strcmp(dot, ".LIB") != 0) return false;
  size_t length = static_cast<size_t>(dot - path);
  if (length >= capacity) return false;
  memcpy(out, path, length);
  out[length] = '\0';
  return true;
}

constexpr const char* RestoreLibraryPrefix = "/QSYS.LIB/";
constexpr size_t RestoreLibraryPrefixLength = 10;

// Restores of objects the save file names itself (documents, profiles,
// configuration): upload, one command, and the entry name on success.
int RestoreWholeSaveFile(FtpSession* session, const char* name, RestoreTimes* times,
                         DataCallback send, void* argument, const char* command,
                         const char* label) {
  if (!IsSession(session)) return -1;
  return RunProtected(session, [&]() -> int {
    RestoreUpload upload{};
    if (UploadSaveFile(session, false, times, send, argument, &upload) != 0) return -1;
    int outcome = RunRestoreCommand(session, command, label);
    NoteRestoreSeconds(times, upload);
    if (outcome == RestoreCommandDone) LogMessage("Restore Success: %s\n", name);
    return outcome == RestoreCommandFailed ? -1 : 0;
  });
}

}  // namespace

int RestoreIfsObjects(FtpSession* session, const StringList* objects, RestoreTimes* times,
                      DataCallback send, void* argument) {
  if (!IsSession(session)) return -1;
  // Made outside the protected body, so that a run cut short by a broken
  // connection cannot lose it.
  StringList* exclusions = NewStringList();
  int result = RunProtected(session, [&]() -> int {
    RestoreUpload upload{};
    if (UploadSaveFile(session, true, times, send, argument, &upload) != 0) return -1;
    int last = 0;
    for (const StringPair* pair = objects ? objects->first : nullptr; pair; pair = pair->next) {
      if (Settings.verbosity >= 1) LogMessage("Object   : %s\n", pair->first);
      ClearStringList(exclusions);
      MatchPathFile(pair->first, exclusions, Settings.exclude);
      if (ServerRelease < 2) {
        // Older releases cannot create missing parents during the restore.
        char target[CommandBufferSize];
        CopyBounded(target, sizeof target, pair->second ? pair->second : pair->first);
        MakeParentDirectories(session, target);
      }
      RestoreCommandText command;
      BuildRestoreObjectCommand(&command, pair, exclusions);
      if (command.needed >= CommandBufferSize) {
        VFAIL("RST command too long\n");
        return -1;
      }
      int outcome = RunRestoreCommand(session, command.text, "RST");
      if (outcome == RestoreCommandDone) LogMessage("Restore Success: %s\n", pair->first);
      last = outcome == RestoreCommandFailed ? -1 : 0;
    }
    NoteRestoreSeconds(times, upload);
    return last;
  });
  FreeStringList(exclusions);
  return result;
}

int RestoreLibrary(FtpSession* session, const StringPair* pair, RestoreTimes* times,
                   DataCallback send, void* argument) {
  if (!IsSession(session)) return -1;
  char library[CommandBufferSize];
  if (!pair || !pair->first || !CutLibraryPath(pair->first, library, sizeof library) ||
      strlen(library) < RestoreLibraryPrefixLength) {
    VFAIL("bad library name\n");
    return -1;
  }
  // A library name has at most ten characters: "/QSYS.LIB/" + 10 + ".LIB".
  char destination[CommandBufferSize] = "";
  if (pair->second &&
      (strncmp(pair->second, RestoreLibraryPrefix, RestoreLibraryPrefixLength) != 0 ||
       strlen(pair->second) >= 25 ||
       !CutLibraryPath(pair->second, destination, sizeof destination))) {
    VFAIL("bad library destination\n");
    return -1;
  }
  char command[CommandBufferSize];
  if (FormatBounded(command, sizeof command,
                    "RCMD RSTLIB SAVLIB(%s) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) RSTLIB(%s) "
                    "MBROPT(*ALL) ALWOBJDIF(*ALL)",
                    library + RestoreLibraryPrefixLength,
                    pair->second ? destination + RestoreLibraryPrefixLength : "*SAVLIB") >=
      CommandBufferSize) {
    VFAIL("RSTLIB command too long\n");
    return -1;
  }
  return RunProtected(session, [&]() -> int {
    RestoreUpload upload{};
    if (UploadSaveFile(session, true, times, send, argument, &upload) != 0) return -1;
    int outcome = RunRestoreCommand(session, command, "RSTLIB");
    NoteRestoreSeconds(times, upload);
    if (outcome == RestoreCommandDone) LogMessage("Restore Success: %s\n", library);
    return outcome == RestoreCommandFailed ? -1 : 0;
  });
}

int RestoreDocuments(FtpSession* session, const char* name, RestoreTimes* times,
                     DataCallback send, void* argument) {
  if (!IsSession(session)) return -1;
  return RunProtected(session, [&]() -> int {
    RestoreUpload upload{};
    if (UploadSaveFile(session, false, times, send, argument, &upload) != 0) return -1;
    // Document restores are judged by the reply code alone.
    int result = SendCommand(session->control,
                             "RCMD RSTDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)",
                             nullptr, 0, nullptr, nullptr, nullptr);
    NoteRestoreSeconds(times, upload);
    if (result != 0) {
      VFAIL("RSTDLO command failed\n");
      return result;
    }
    LogMessage("Restore Success: %s\n", name);
    return 0;
  });
}

int RestoreUserProfiles(FtpSession* session, const char* name, RestoreTimes* times,
                        DataCallback send, void* argument) {
  // Only profiles missing on the server are created.
  return RestoreWholeSaveFile(
      session, name, times, send, argument,
      "RCMD RSTUSRPRF DEV(*SAVF) SAVF(QTEMP/SAVTEMP) USRPRF(*NEW) ALWOBJDIF(*ALL)", "RSTUSRPRF");
}

int RestoreConfiguration(FtpSession* session, const char* name, RestoreTimes* times,
                         DataCallback send, void* argument) {
  return RestoreWholeSaveFile(session, name, times, send, argument,
                              "RCMD RSTCFG OBJ(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)",
                              "RSTCFG");
}

int RestoreAuthority(FtpSession* session) {
  if (!IsSession(session)) return -1;
  // Nothing is handed to a callback, so the command may always be repeated.
  return RunProtected(session, [&]() -> int {
    if (SendCommand(session->control, "RCMD RSTAUT USRPRF(*ALL)", nullptr, 0, nullptr, nullptr,
                    nullptr) != 0) {
      VFAIL("RSTAUT command failed\n");
      return -1;
    }
    return 0;
  });
}

namespace {

// The text at `at` starts with `phrase`, ignoring case.
bool StartsWithPhrase(const char* at, const char* phrase) {
  return at && strncasecmp(at, phrase, strlen(phrase)) == 0;
}

// The number standing before the phrase at `phrase_at`. The walk never goes
// below the fourth character, so the reply code is never taken for a count.
int RestoredCount(const char* text, const char* phrase_at) {
  constexpr ptrdiff_t Floor = 3;
  ptrdiff_t at = (phrase_at - text) - 1;
  if (at > Floor) {
    while (at > Floor && isspace(static_cast<unsigned char>(text[at]))) at--;
    while (at > Floor && isdigit(static_cast<unsigned char>(text[at]))) at--;
  }
  const char* number = text + at + 1;
  char* end = nullptr;
  long count = strtol(number, &end, 0);  // base 0: a leading 0 reads as octal
  if (count < 1 || *end != ' ') return 0;
  return count > INT_MAX ? INT_MAX : static_cast<int>(count);
}

}  // namespace

int ClassifyRestoreReply(const char* text) {
  if (!text) return -1;
  // Only the first occurrence of each initial letter is looked at.
  const char* at = strpbrk(text, "oO");
  if (StartsWithPhrase(at, "objects restored")) return RestoredCount(text, at);
  at = strpbrk(text, "lL");
  if (StartsWithPhrase(at, "libraries restored")) return RestoredCount(text, at);
  at = strpbrk(text, "nN");
  if (StartsWithPhrase(at, "Not all ")) return 1;
  at = strpbrk(text, "sS");
  if (StartsWithPhrase(at, "Save file ")) {
    at = strpbrk(at + strlen("Save file "), "cC");
    if (StartsWithPhrase(at, "contains no data")) return 1;
  }
  return -1;
}
