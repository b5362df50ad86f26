// Setting a session's transfer parameters only when they change.
#include "ftp/transfer_settings.h"

#include "net/command.h"
#include "support/log.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "ftp.cpp";

namespace {

// Sends a set-up command only when the session's remembered value differs,
// and remembers it once the server accepted it. 0, or -1 after
// "<label> command failed".
int EnsureParameter(FtpSession* session, int* field, int wanted, const char* command, const char* label) {
  if (*field == wanted) return 0;
  if (Command(session->control, command) != 0) {
    VFAIL("%s command failed\n", label);
    return -1;
  }
  *field = wanted;
  return 0;
}

}  // namespace

int EnsureTransferSettings(FtpSession* session, const TransferSettings& wanted) {
  char type[] = "TYPE ?";
  type[5] = wanted.type;
  if (EnsureParameter(session, &session->structure, 'F', "STRU F", "STRU") != 0) return -1;
  if (EnsureParameter(session, &session->mode, 'S', "MODE S", "MODE") != 0) return -1;
  if (EnsureParameter(session, &session->type, wanted.type, type, "TYPE") != 0) return -1;
  if (wanted.list_format &&
      EnsureParameter(session, &session->list_format, '1', "SITE LISTFMT 1", "LISTFMT") != 0)
    return -1;
  if (wanted.name_format &&
      EnsureParameter(session, &session->name_format, '1', "SITE NAMEFMT 1", "NAMEFMT") != 0)
    return -1;
  return 0;
}
