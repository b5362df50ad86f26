// The remote listing: LIST of one server path in the listing's transfer
// settings, and the handling of a listing the server refused.
#include "ftp/remote_listing.h"

#include <cstring>
#include <ctime>

#include "backup/object_tree.h"
#include "ftp/checkpoint.h"
#include "ftp/data_command.h"
#include "ftp/reply_judge.h"
#include "ftp/transfer_settings.h"
#include "support/log.h"
#include "support/text.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "ftp.cpp";

namespace {

// Listings go as text, in the format the listing parser reads, with full
// path names.
constexpr TransferSettings ListingSettings = {'A', true, true};

// Paths whose refused listing is always fatal: nothing above them could
// save them whole.
bool ExemptFromSavingWhole(const char* name) {
  static const char* const exempt[] = {"", "/QSYS.LIB"};
  for (const char* path : exempt) {
    if (strcmp(name, path) == 0) {
      VFAIL("%s is exempt\n", name);
      return true;
    }
  }
  return false;
}

// The server will not list this directory, but it can still save it: keep
// it as one object of its parent and let the walk skip it. A top directory
// has no parent and becomes an object of its own node instead.
void KeepDirectoryAsObject(ObjectNode* directory, const char* name) {
  ObjectNode* parent = directory->parent;
  if (parent) {
    AppendFile(parent, directory->name, directory->mode, directory->size, directory->mtime);
    MarkPartial(parent);
    SkipInWalk(directory);
    return;
  }
  bool present = false;
  for (ObjectNode* d = directory->first_dir; d && !present; d = d->next)
    present = d->name && strcmp(d->name, name) == 0;
  for (ObjectFile* f = directory->first_file; f && !present; f = f->next)
    present = f->name && strcmp(f->name, name) == 0;
  if (!present) AppendFile(directory, name, 0, 0, tm{});
}

}  // namespace

int ListDirectory(FtpSession* session, const char* path, DataCallback callback, void* context,
                  ObjectNode* directory) {
  if (!IsSession(session)) return -1;
  Reply reply;
  bool list_failed = false;
  int result = RunProtected(session, [&]() -> int {
    if (EnsureTransferSettings(session, ListingSettings) != 0) return -1;
    char command[CommandBufferSize];
    if (FormatBounded(command, CommandBufferSize - 1, "LIST %s", path) > CommandBufferSize - 1) {
      VFAIL("LIST command too long\n");
      return -1;
    }
    // The callback may already have part of the listing: a recovery must
    // not run the LIST again.
    PassPointOfNoReturn(session);
    reply = Reply{};
    Transfer transfer;
    transfer.receive = callback;
    transfer.argument = context;
    if (DataCommand(session, command, transfer, &reply) == 0) return 0;
    list_failed = true;
    return -1;
  });
  if (!list_failed) return result;
  return ResolveListingFailure(reply.quoted, directory);
}

int ResolveListingFailure(const char* reply, ObjectNode* directory) {
  if (!reply) {
    VFAIL("NULL input\n");
    return -22;
  }
  // List mode keeps no tree: there is nothing to save whole instead, so a
  // failed listing is simply fatal there.
  if (directory) {
    const char* name = directory->name ? directory->name : "";
    if (!ExemptFromSavingWhole(name) && ListingRefusedButSavable(reply)) {
      KeepDirectoryAsObject(directory, name);
      return 0;
    }
  }
  VFAIL("LIST command failed\n  %s\n", reply);
  return -1;
}
