// Test driver: moves one file through the program's own session layer, so
// that end-to-end tests can check every byte against servers we did not
// write.
//
//   ftpxfer [--tls | --tls-implicit] [--cacert PEM] HOST USER PASSWORD retr REMOTE LOCAL
//   ftpxfer [--tls | --tls-implicit] [--cacert PEM] HOST USER PASSWORD stor LOCAL REMOTE
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "cli/settings.h"
#include "ftp/data_command.h"
#include "ftp/session.h"
#include "support/log.h"

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

int ReadFrom(void* argument, char* buffer, int* count, const char**) {
  int fd = *static_cast<int*>(argument);
  ssize_t n = read(fd, buffer, static_cast<size_t>(*count));
  if (n < 0) return 1;
  *count = static_cast<int>(n);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // The TLS flags come first, as the program's own options do.
  for (; argc > 1 && strncmp(argv[1], "--", 2) == 0; argc--, argv++) {
    if (strcmp(argv[1], "--tls") == 0) {
      Settings.tls_mode = TlsExplicit;
    } else if (strcmp(argv[1], "--tls-implicit") == 0) {
      Settings.tls_mode = TlsImplicit;
    } else if (strcmp(argv[1], "--cacert") == 0 && argc > 2) {
      Settings.cacert = argv[2];
      argc--, argv++;
    } else {
      break;
    }
  }
  if (argc != 7) {
    fprintf(stderr, "usage: ftpxfer [--tls | --tls-implicit] [--cacert PEM] HOST USER PASSWORD retr|stor FROM TO\n");
    return 2;
  }
  RegisterThread(-1);
  FtpSession* session = NewSession(argv[1], ControlService());
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
