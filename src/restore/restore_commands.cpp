// The restore command family: each member uploads one archive entry into
// the session's save file QTEMP/SAVTEMP and runs the restore command for its
// kind of object.
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

#include "ftp/checkpoint.h"
#include "ftp/data_command.h"
#include "ftp/reply_judge.h"
#include "ftp/session.h"
#include "ftp/transfer_settings.h"
#include "restore/restore_commands.h"
#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"
#include "cli/path_files.h"
#include "cli/settings.h"

// Failures here are the ftp module's, as they always were.
static constexpr const char* kModule = "ftp.cpp";

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
int UploadSaveFile(FtpSession* session, bool name_format, RestoreTimes* times, SendCallback send,
                   void* argument, RestoreUpload* upload) {
  if (EnsureTransferSettings(session, {'I', false, name_format}) != 0) return -1;
  // The save file survives in QTEMP for the life of the server job, so only
  // the first restore of a session has to create it.
  char clear[64], create[64], store[64];
  FormatBounded(clear, sizeof clear, "RCMD CLRSAVF FILE(%s)", SaveTempFile);
  FormatBounded(create, sizeof create, "RCMD CRTSAVF FILE(%s)", SaveTempFile);
  FormatBounded(store, sizeof store, "STOR %s", SaveTempUpload);
  if (Command(session->control, clear) != 0 && Command(session->control, create) != 0) {
    VFAIL("CRTSAVF command failed\n");
    return -1;
  }
  double start = 0;
  bool started = RestoreClock(&start);
  PassPointOfNoReturn(session);
  Transfer transfer;
  transfer.send = send;
  transfer.argument = argument;
  if (DataCommand(session, store, transfer) != 0) {
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
  Reply reply;
  // A restore runs as long as the server needs for the objects: no bound.
  if (LongCommand(session->control, command, &reply) == 0) return RestoreCommandDone;
  VFAIL("%s command failed\n  %s\n", label, reply.quoted);
  return ClassifyRestoreReply(reply.quoted) >= 1 ? RestoreCommandTolerated : RestoreCommandFailed;
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
                         SendCallback send, void* argument, const char* command,
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
                      SendCallback send, void* argument) {
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
                   SendCallback send, void* argument) {
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
                     SendCallback send, void* argument) {
  if (!IsSession(session)) return -1;
  return RunProtected(session, [&]() -> int {
    RestoreUpload upload{};
    if (UploadSaveFile(session, false, times, send, argument, &upload) != 0) return -1;
    // Document restores are judged by the reply code alone.
    int result =
        LongCommand(session->control, "RCMD RSTDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)");
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
                        SendCallback send, void* argument) {
  // Only profiles missing on the server are created.
  return RestoreWholeSaveFile(
      session, name, times, send, argument,
      "RCMD RSTUSRPRF DEV(*SAVF) SAVF(QTEMP/SAVTEMP) USRPRF(*NEW) ALWOBJDIF(*ALL)", "RSTUSRPRF");
}

int RestoreConfiguration(FtpSession* session, const char* name, RestoreTimes* times,
                         SendCallback send, void* argument) {
  return RestoreWholeSaveFile(session, name, times, send, argument,
                              "RCMD RSTCFG OBJ(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)",
                              "RSTCFG");
}

int RestoreAuthority(FtpSession* session) {
  if (!IsSession(session)) return -1;
  // Nothing is handed to a callback, so the command may always be repeated.
  return RunProtected(session, [&]() -> int {
    if (LongCommand(session->control, "RCMD RSTAUT USRPRF(*ALL)") != 0) {
      VFAIL("RSTAUT command failed\n");
      return -1;
    }
    return 0;
  });
}


