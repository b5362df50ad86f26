// ctar list: one line per entry in the manner of tar -tv, or one JSON
// document for scripts.
#include <cstdio>

#include "ctar/archive_input.h"
#include "ctar/commands.h"
#include "ctar/entry_print.h"
#include "ctar/messages.h"
#include "ctar/status.h"
#include "ctar/walk.h"

namespace ctar {

int ListCommand(const Options& options) {
  const char* path = options.operands[0];
  if (options.json) {
    fputs("{\"archive\": ", stdout);
    PrintJsonString(stdout, path);
    fputs(", \"entries\": [", stdout);
  }
  Archive archive;
  int status = OpenArchive(path, "list", &archive);
  bool first = true;
  if (status == StatusWhole)
    status = WalkArchive(archive, "list", [&](const EntryView& view) {
      if (options.json) {
        PrintJsonEntry(stdout, view, first);
        first = false;
      } else {
        PrintEntryLine(stdout, view, options.verbose);
      }
      return TakeData(archive, view, -1);
    });
  if (options.json) {
    fprintf(stdout, "%s], \"whole\": %s, \"status\": %d, \"problem\": ", first ? "" : "\n",
            status == StatusWhole ? "true" : "false", status);
    if (status == StatusWhole)
      fputs("null", stdout);
    else
      PrintJsonString(stdout, LastProblem);
    fputs("}\n", stdout);
  }
  return FlushStandardOutput(status);
}

}  // namespace ctar
