// ctar verify: reads the whole archive, checks every header, size, the
// data and the single sentinel at the end, and names the entries a broken
// retrieval hid from a restore (in a file; a stream is checked up to where
// a restore stops).
#include <cstdio>
#include <string>

#include "ctar/archive_input.h"
#include "ctar/commands.h"
#include "ctar/entry_print.h"
#include "ctar/messages.h"
#include "ctar/progress.h"
#include "ctar/status.h"
#include "ctar/survey.h"
#include "support/text.h"

namespace ctar {

int VerifyCommand(const Options& options) {
  Archive archive;
  Survey survey;
  // Nothing is written to standard output before the survey has run.
  int status = OpenArchive(options.operands[0], "verify", &archive);
  if (status == StatusWhole)
    status = archive.seekable ? RunSurvey(archive, "verify", true, &survey)
                              : RunStreamSurvey(archive, "verify", &survey);
  if (status != StatusWhole) return FlushStandardOutput(status);

  size_t reachable = 0, hidden = 0;
  for (const FoundEntry& entry : survey.entries) {
    if (entry.hidden) {
      hidden++;
      fputs("hidden: ", stdout);
      PrintEntryLine(stdout, entry.view, true);
    } else {
      reachable++;
      if (options.verbose) {
        fputs("entry: ", stdout);
        PrintEntryLine(stdout, entry.view, true);
      }
    }
  }
  for (const std::string& problem : survey.problems) printf("damaged: %s\n", problem.c_str());

  char data[32];
  HumanBytes(survey.data_bytes, data, sizeof data);
  if (survey.problems.empty()) {
    printf("result: whole: %zu entries, %s of data, ended by the sentinel at offset 0x%llX\n",
           reachable, data, Ull(survey.sentinel));
    return FlushStandardOutput(StatusWhole);
  }
  if (survey.restore_stops_early && !survey.searched_behind_stop)
    printf("result: damaged: a restore stops at offset 0x%llX after %zu %s; what lies behind it "
           "was not searched for hidden entries, which needs a file (save the stream to one and "
           "verify that)\n",
           Ull(survey.restore_stop), reachable, reachable == 1 ? "entry" : "entries");
  else if (survey.restore_stops_early)
    printf("result: damaged: a restore stops at offset 0x%llX after %zu %s; %zu more %s "
           "behind it%s\n",
           Ull(survey.restore_stop), reachable, reachable == 1 ? "entry" : "entries", hidden,
           hidden == 1 ? "entry lies" : "entries lie",
           hidden ? " (ctar salvage writes an archive that holds them)" : "");
  else
    printf("result: damaged: %zu entries, %zu %s\n", reachable, survey.problems.size(),
           survey.problems.size() == 1 ? "problem" : "problems");
  return FlushStandardOutput(StatusDamaged);
}

}  // namespace ctar
