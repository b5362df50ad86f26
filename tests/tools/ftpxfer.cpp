// Test driver: moves one file through the program's own session layer, so
// that end-to-end tests can check every byte against servers we did not
// write.
//
//   ftpxfer HOST USER PASSWORD retr REMOTE LOCAL
//   ftpxfer HOST USER PASSWORD stor LOCAL REMOTE
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "ftp/data_command.h"
#include "ftp/checkpoint.h"
#include "ftp/data_command.h"
#include "ftp/remote_listing.h"
#include "ftp/reply_judge.h"
#include "ftp/session.h"
#include "ftp/transfer_settings.h"
#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"

namespace {

int WriteTo(void* argument, char* buffer, int* count) {
  int fd = *static_cast<int*>(argument);
  for (int done = 0; done < *count;) {
    ssize_t n = write(fd, buffer + done, static_cast<size_t>(*count - done));
    if (n <= 0) return 1;
    done += static_cast<int>(n);
  }
  return 0;
}

int ReadFrom(void* argument, char* buffer, int* count) {
  int fd = *static_cast<int*>(argument);
  ssize_t n = read(fd, buffer, static_cast<size_t>(*count));
  if (n < 0) return 1;
  *count = static_cast<int>(n);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) {
    fprintf(stderr, "usage: ftpxfer HOST USER PASSWORD retr|stor FROM TO\n");
    return 2;
  }
  RegisterThread(-1);
  FtpSession* session = NewSession(argv[1], "ftp");
  if (!session || Login(session, argv[2], argv[3]) != 0) return 1;
  if (Command(session->control, "TYPE I") != 0) return 1;
  bool retrieve = strcmp(argv[4], "retr") == 0;
  std::string command = std::string(retrieve ? "RETR " : "STOR ") + (retrieve ? argv[5] : argv[6]);
  int fd = retrieve ? open(argv[6], O_WRONLY | O_CREAT | O_TRUNC, 0600) : open(argv[5], O_RDONLY);
  if (fd < 0) return 1;
  Reply reply;
  Transfer transfer;
  transfer.receive = retrieve ? WriteTo : nullptr;
  transfer.send = retrieve ? nullptr : ReadFrom;
  transfer.argument = &fd;
  int result = DataCommand(session, command.c_str(), transfer, &reply);
  close(fd);
  Quit(session);
  if (result != 0) fprintf(stderr, "transfer failed (%d): %s\n", result, reply.quoted);
  return result == 0 ? 0 : 1;
}
