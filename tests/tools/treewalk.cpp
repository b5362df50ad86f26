// Test driver: builds the include tree against a server through the
// program's own listing code and prints it, so end-to-end tests can check
// what a backup would find.
//
//   treewalk HOST USER PASSWORD [-i FILE] [-e FILE] [-d EPOCH]
// Output: one line per node, depth first:
//   D <path> size=<n> count=<n> partial=<0|1>      a directory
//   F <path> size=<n> mode=<octal>                  a file
// and "walk=<sum> calls=<n> errors=<n>" at the end.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "backup/include_list.h"
#include "backup/listing_walk.h"
#include "ftp/checkpoint.h"
#include "ftp/data_command.h"
#include "ftp/remote_listing.h"
#include "ftp/reply_judge.h"
#include "ftp/session.h"
#include "ftp/transfer_settings.h"
#include "cli/settings.h"
#include "support/log.h"

namespace {

void Print(const ObjectNode* dir) {
  if (!dir->name) return;  // released: kept whole as a file of its parent
  char path[8192];
  DirectoryPath(dir, false, path, sizeof path);
  printf("D %s size=%llu count=%llu partial=%d\n", path, static_cast<unsigned long long>(dir->size),
         static_cast<unsigned long long>(dir->count), dir->partial);
  for (const ObjectNode* d = dir->first_dir; d; d = d->next) Print(d);
  for (const ObjectFile* f = dir->first_file; f; f = f->next) {
    FilePath(f, false, path, sizeof path);
    printf("F %s size=%llu mode=%o\n", path, static_cast<unsigned long long>(f->size), f->mode);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    fprintf(stderr, "usage: treewalk HOST USER PASSWORD [-i FILE] [-e FILE] [-d EPOCH]\n");
    return 2;
  }
  RegisterThread(-1);
  for (int i = 4; i + 1 < argc; i += 2) {
    if (strcmp(argv[i], "-i") == 0) Settings.include = fopen(argv[i + 1], "r");
    if (strcmp(argv[i], "-e") == 0) Settings.exclude = fopen(argv[i + 1], "r");
    if (strcmp(argv[i], "-d") == 0) {
      Settings.cutoff_flag = 1;
      Settings.cutoff_time = strtoll(argv[i + 1], nullptr, 0);
    }
  }
  FtpSession* session = NewSession(argv[1], "ftp");
  if (!session || Login(session, argv[2], argv[3]) != 0) return 1;
  ObjectNode* root = BuildIncludeList(session);
  if (!root) {
    Quit(session);
    return 3;
  }
  Print(root);
  printf("calls=%llu errors=%llu\n", static_cast<unsigned long long>(ListCalls),
         static_cast<unsigned long long>(ParseErrors));
  fflush(stdout);
  Quit(session);
  return 0;
}
