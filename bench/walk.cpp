// The planning phase of a backup against a server, timed: the include tree
// built by listing and walking (the program's own listing code), then the
// per-kind trees the workers would save from.
//
//   bench_walk HOST USER PASSWORD INCLUDE-FILE
// Prints one JSON line: seconds of the walk and of the sorting, objects
// found, listings made, parse errors and the peak resident size.
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "backup/backup_list.h"
#include "backup/include_list.h"
#include "backup/listing_walk.h"
#include "ftp/remote_listing.h"
#include "ftp/session.h"
#include "cli/settings.h"
#include "support/log.h"

namespace {

double Now() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    fprintf(stderr, "usage: bench_walk HOST USER PASSWORD INCLUDE-FILE\n");
    return 2;
  }
  RegisterThread(-1);
  Settings.include = fopen(argv[4], "r");
  if (!Settings.include) {
    perror(argv[4]);
    return 2;
  }
  FtpSession* session = NewSession(argv[1], "ftp");
  if (!session || Login(session, argv[2], argv[3]) != 0) return 1;
  const double t0 = Now();
  ObjectNode* root = BuildIncludeList(session);
  const double t1 = Now();
  if (!root) return 3;
  const unsigned long long files = root->count;
  ObjectNode** kinds = BuildBackupList(root);
  const double t2 = Now();
  if (!kinds) return 3;
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  printf("{\"walk_s\": %.4f, \"plan_s\": %.4f, \"files\": %llu, \"objects\": %llu, \"listings\": %llu, "
         "\"parse_errors\": %llu, \"list_bytes\": %.0f, \"cpu_s\": %.4f, \"max_rss_kib\": %ld}\n",
         t1 - t0, t2 - t1, files, static_cast<unsigned long long>(ObjectsFound),
         static_cast<unsigned long long>(ListCalls), static_cast<unsigned long long>(ParseErrors), ListBytes,
         static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
             static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6,
         usage.ru_maxrss);
  fflush(stdout);
  Quit(session);
  return 0;
}
