// The save command family: each member saves one object into the session's
// save file on the server and retrieves that save file into the archive as
// one entry.
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
#include <optional>

#include "archive/header_writer.h"
#include "archive/writer.h"
#include "backup/object_tree.h"
#include "ftp/checkpoint.h"
#include "ftp/data_command.h"
#include "ftp/reply_judge.h"
#include "ftp/session.h"
#include "ftp/transfer_settings.h"
#include "backup/save_commands.h"
#include "ftp/session.h"
#include "support/log.h"
#include "support/run_record.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"
#include "cli/settings.h"

// Failures here are the ftp module's, as they always were.
static constexpr const char* kModule = "ftp.cpp";

namespace {


}  // namespace

// ---------------------------------------------------------------------------
// Save command family
// ---------------------------------------------------------------------------

namespace {

double Elapsed(const struct timeval& from, const struct timeval& to) {
  return static_cast<double>(to.tv_sec - from.tv_sec) +
         static_cast<double>(to.tv_usec - from.tv_usec) / 1000000;
}

// The archive, taken for a retrieval only once its data begins to come
// (or once it ends without any). The PASV, the RETR and their round trips
// are then behind a session before it waits for another session's
// retrieval to end; what the server sends meanwhile waits in the data
// connection. The archive's end is found, and the time it was taken
// recorded, when it is taken.
class ArchiveOnFirstData {
 public:
  ArchiveOnFirstData(ArchiveWriter* writer, DataCallback write, struct timeval* locked)
      : writer_(writer), write_(write), locked_(locked) {}
  ArchiveOnFirstData(const ArchiveOnFirstData&) = delete;
  ArchiveOnFirstData& operator=(const ArchiveOnFirstData&) = delete;

  ArchiveAppend& Take() {
    if (!append_) {
      append_.emplace(writer_);
      gettimeofday(locked_, nullptr);
    }
    return *append_;
  }

  // The transfer's callback: takes the archive, then writes. Without a
  // usable archive nothing can be written, and the transfer ends as it
  // does when a write fails.
  static int Receive(void* self, char* buffer, int* count) {
    auto* taking = static_cast<ArchiveOnFirstData*>(self);
    if (!taking->Take().Usable()) return 1;
    return taking->write_(taking->writer_, buffer, count);
  }

 private:
  ArchiveWriter* writer_;
  DataCallback write_;
  struct timeval* locked_;
  std::optional<ArchiveAppend> append_;
};

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

// Sets the session up for a save file and makes sure QTEMP/SAV<number>
// exists and is empty. 0, or -1 after a message.
int PrepareSaveFile(FtpSession* session, int number, const SaveCommand& save) {
  if (EnsureTransferSettings(session, {'I', false, save.name_format}) != 0) return -1;
  char command[CommandBufferSize];
  FormatBounded(command, sizeof command, "RCMD CLRSAVF FILE(QTEMP/SAV%d)", number);
  if (Command(session->control, command) != 0) {
    // The save file does not exist yet in this job.
    FormatBounded(command, sizeof command, "RCMD CRTSAVF FILE(QTEMP/SAV%d)", number);
    if (Command(session->control, command) != 0) {
      VFAIL("CRTSAVF command failed\n");
      return -1;
    }
  }
  return 0;
}

// Runs the save command itself. A failed reply is judged by the member's
// rule: with precheck off a partial save still counts as saved (reported,
// and marked on the writer so that the run does not end as a full
// success). 0 when the object is in the save file, or -1.
int RunSaveCommand(FtpSession* session, const char* command, ObjectFile* object, const SaveCommand& save,
                   ArchiveWriter* writer) {
  Reply reply;
  // A save runs as long as the server needs for the object: no bound.
  if (LongCommand(session->control, command, &reply) == 0) return 0;
  const char* count = nullptr;
  int length = 0;
  if (!Settings.precheck && save.partial == PartialRule::NotSavedCount &&
      FindNotSavedCount(reply.quoted, &count, &length)) {
    ReportPartial(count, length, object->name, reply.quoted);
  } else if (!Settings.precheck && save.partial == PartialRule::AnyFailure) {
    ReportPartial(nullptr, 0, object->name, reply.quoted);
  } else {
    VFAIL("%s command failed\n  %s\n", save.label, reply.quoted);
    return -1;
  }
  NotePartialReason(reply.quoted);
  writer->partial = 1;
  return 0;
}

// The save family shares everything but the command and the judgement of
// a failed reply: settings, the save file, the command, then retrieval.
int RunSave(FtpSession* session, ObjectFile* object, int number, TransferStats* stats,
            DataCallback callback, void* writer, const SaveCommand& save,
            int (*build)(char* command, ObjectFile* object, int number)) {
  if (!IsSession(session)) return -1;
  auto* archive = static_cast<ArchiveWriter*>(writer);
  const uint8_t outer = session->checkpoint_flags;
  return RunProtected(session, [&]() -> int {
    if (PrepareSaveFile(session, number, save) != 0) return -1;
    char command[CommandBufferSize];
    if (build(command, object, number) != 0) return -1;
    struct timeval started{}, saved{};
    if (stats) gettimeofday(&started, nullptr);
    if (RunSaveCommand(session, command, object, save, archive) != 0) return -1;
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
    int result = RetrieveToArchive(session, outer, object, path, &locked, callback, archive);
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
    // Holds the archive from the retrieval's first data to the end of the
    // block and, unless the entry is closed whole, cuts the archive back
    // to what it was: on a refused or broken transfer, a failed write, or
    // the abort that carries a lost control connection back to the
    // caller's checkpoint.
    ArchiveOnFirstData archive(writer, callback, locked);
    // A broken archive takes no retrieval at all: taking it says why, and
    // no PASV or RETR goes out.
    if (ArchiveBroken) {
      archive.Take();
      session->checkpoint_flags = checkpoint;
      return -1;
    }
    Reply reply;
    Transfer transfer;
    transfer.receive = ArchiveOnFirstData::Receive;
    transfer.argument = &archive;
    int sent = DataCommand(session, command, transfer, &reply);
    session->checkpoint_flags = checkpoint;
    if (sent != 0) {
      VFAIL("RETR command failed\n  %s\n", reply.quoted);
      // The transfer hands data over only in calls that carry some.
      if (writer->calls == 0) LogMessage("Block returned no data\n");
    } else {
      // A retrieval that brought nothing still takes the archive, to be
      // judged the way every entry is closed.
      ArchiveAppend& append = archive.Take();
      if (append.Usable()) result = CloseEntry(&append, object);
    }
  }
  // After a termination request the worker goes no further than this
  // entry: its block ends before the next object, once the entry's
  // success, catalog lines and totals are recorded.
  return result;
}

