// ctar salvage: writes a new, whole archive of every entry that can be
// recovered, the hidden ones included, and reports what had to be dropped.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "archive/ctar_format.h"
#include "ctar/archive_input.h"
#include "ctar/commands.h"
#include "ctar/entry_print.h"
#include "ctar/header_scan.h"
#include "ctar/messages.h"
#include "ctar/progress.h"
#include "ctar/status.h"
#include "ctar/survey.h"

namespace ctar {

namespace {

// Where salvage writes: a temporary file beside OUT, renamed over it only
// once the new archive is complete, or standard output.
struct SalvageOutput {
  UniqueFd owned;
  int fd = -1;
  std::vector<char> temporary;  // mkstemp's template, then the name
  const char* path = nullptr;
};

// Opens where the new archive goes: standard output for "-" (never a
// terminal), else a fresh temporary file beside path, which must not be the
// archive itself. A status, after a complaint when it is not StatusWhole.
int OpenSalvageOutput(const char* path, const Archive& archive, SalvageOutput* output) {
  output->path = path;
  if (strcmp(path, "-") == 0) {
    if (isatty(STDOUT_FILENO)) {
      Complain("standard output is a terminal; give a file for the salvaged archive");
      return StatusUsage;
    }
    output->fd = STDOUT_FILENO;
    return StatusWhole;
  }
  struct stat in{}, out{};
  if (archive.owned.Get() >= 0 && fstat(archive.fd, &in) == 0 && stat(path, &out) == 0 &&
      in.st_dev == out.st_dev && in.st_ino == out.st_ino) {
    Complain("%s: is the archive being salvaged; write the new archive to another file", path);
    return StatusUsage;
  }
  std::string pattern = std::string(path) + ".XXXXXX";
  output->temporary.assign(pattern.begin(), pattern.end());
  output->temporary.push_back('\0');
  int fd = mkstemp(output->temporary.data());  // mode 0600, as backups are made
  if (fd < 0) {
    Complain("%s: cannot create: %s", pattern.c_str(), strerror(errno));
    return StatusWriteFailed;
  }
  output->owned.Reset(fd);
  output->fd = fd;
  return StatusWhole;
}

// Makes a complete new archive durable and renames it over OUT (keep), or
// removes the temporary file. StatusWhole, or StatusWriteFailed when the
// new archive is not in place.
int FinishSalvageOutput(SalvageOutput* output, bool keep) {
  if (output->temporary.empty()) return StatusWhole;
  const char* temporary = output->temporary.data();
  if (keep) {
    if (SyncAll(output->fd) != 0 || !output->owned.Close()) {
      Complain("%s: write failed: %s", temporary, strerror(errno));
      keep = false;
    } else if (rename(temporary, output->path) != 0) {
      Complain("%s: cannot rename to %s: %s", temporary, output->path, strerror(errno));
      keep = false;
    }
  }
  if (!keep) {
    output->owned.Close();
    unlink(temporary);
    return StatusWriteFailed;
  }
  return StatusWhole;
}

// Copies one surveyed entry to out: its header exactly as the backup wrote
// it (judged good during the survey), then its data with the padding made
// zero. A DataResult; a header that changed since the survey is a read
// failure (EIO).
int CopySurveyedEntry(const Archive& archive, const FoundEntry& entry, int out) {
  unsigned char header[CtarBlockSize];
  uint64_t size = 0;
  int judged = JudgeAt(archive, entry.view.offset, &size, nullptr, 0, header);
  int result = DataReadFailed;
  bool clean = true;
  if (judged == CtarEntry && size == entry.view.size) {
    result = WriteAllBytes(out, header, sizeof header) ? DataDone : DataWriteFailed;
    if (result == DataDone) result = PassData(archive, entry.view, out, &clean);
  } else if (judged != JudgeReadFailed) {
    errno = EIO;  // the header changed since the survey
  }
  return result;
}

// Writes every surveyed entry to the new archive, in order, and reports
// the recovered ones (every one with -v). A status; *recovered counts the
// entries that were hidden.
int WriteSurveyedEntries(const Archive& archive, const Survey& survey, const Options& options,
                         int out, FILE* report, size_t* recovered) {
  for (const FoundEntry& entry : survey.entries) {
    const int result = CopySurveyedEntry(archive, entry, out);
    if (result == DataWriteFailed) {
      Complain("%s: write failed: %s", options.operands[1], strerror(errno));
      return StatusWriteFailed;
    }
    if (result != DataDone) {
      Complain("%s: read error in %s (header at offset 0x%llX): %s", archive.shown,
               entry.view.name, Ull(entry.view.offset), strerror(errno));
      return StatusUnreadable;
    }
    if (entry.hidden) {
      (*recovered)++;
      fputs("recovered: ", report);
      PrintEntryLine(report, entry.view, true);
    } else if (options.verbose) {
      fputs("kept: ", report);
      PrintEntryLine(report, entry.view, true);
    }
  }
  return StatusWhole;
}

// The closing report of a salvage whose new archive was written: the
// ranges dropped and the count of entries. The command's status.
int ReportSalvage(const Survey& survey, const Options& options, const SalvageOutput& output,
                  FILE* report, size_t recovered) {
  uint64_t dropped_bytes = 0;
  bool lost = false;
  for (const DroppedRange& range : survey.dropped) {
    fprintf(report, "dropped: 0x%010llX %llu bytes: %s\n", Ull(range.offset), Ull(range.length),
            range.reason.c_str());
    dropped_bytes += range.length;
    lost = lost || range.lost;
  }
  fprintf(report, "result: %s: %zu entries written, %zu of them recovered from behind a place "
          "where a restore stops; %llu bytes dropped%s\n",
          output.fd == STDOUT_FILENO ? "standard output" : options.operands[1],
          survey.entries.size(), recovered, Ull(dropped_bytes),
          lost ? ", among them damaged or truncated entries" : "");
  if (report == stderr) fflush(stderr);
  return FlushStandardOutput(lost ? StatusDamaged : StatusWhole);
}

}  // namespace

int SalvageCommand(const Options& options) {
  Archive archive;
  Survey survey;
  int status = SurveySeekableArchive(options.operands[0], "salvage", "salvage: survey", false, &archive, &survey);
  if (status != StatusWhole) return status;

  SalvageOutput output;
  status = OpenSalvageOutput(options.operands[1], archive, &output);
  if (status != StatusWhole) return status;
  // Reports go to standard error when the archive itself goes to standard
  // output.
  FILE* report = output.fd == STDOUT_FILENO ? stderr : stdout;

  CurrentProgress.Start("salvage", archive.size);
  size_t recovered = 0;
  status = WriteSurveyedEntries(archive, survey, options, output.fd, report, &recovered);
  bool written = status == StatusWhole;
  if (written) {
    unsigned char sentinel[CtarBlockSize];
    if (!WriteAllBytes(output.fd, BuildCtarSentinel(sentinel), sizeof sentinel)) {
      Complain("%s: write failed: %s", options.operands[1], strerror(errno));
      status = StatusWriteFailed;
      written = false;
    }
  }
  CurrentProgress.Finish(archive.size);
  if (FinishSalvageOutput(&output, written) != StatusWhole)
    status = Worse(status, StatusWriteFailed);
  if (!written) return FlushStandardOutput(status);
  return ReportSalvage(survey, options, output, report, recovered);
}

}  // namespace ctar
