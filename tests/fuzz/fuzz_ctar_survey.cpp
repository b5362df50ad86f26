// Fuzzes the survey of ctar verify and salvage, RunSurvey (src/ctar/
// survey.cpp, with the scan for hidden headers in src/ctar/header_scan.cpp),
// over an arbitrary archive file.
//
// Input: one settings byte (bit 0: read every entry's data as verify does),
// then the bytes of the archive file.
//
// Besides the sanitizers' findings the survey must hold together: a file is
// an archive or not (never unreadable), every entry found lies inside the
// file, in order and apart from the others, the data bytes are their sum,
// the dropped ranges lie inside the file, and a survey without problems
// found the sentinel at the very end.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "archive/ctar_format.h"
#include "ctar/archive_input.h"
#include "ctar/progress.h"
#include "ctar/status.h"
#include "ctar/survey.h"
#include "fuzz_common.h"
#include "support/sysio.h"

namespace {

char ArchivePath[] = "/tmp/fuzz-survey-XXXXXX";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceProgramLog();
  ctar::ProgressSetting = ctar::ProgressMode::Never;
  const int fd = mkstemp(ArchivePath);
  if (fd < 0) abort();
  close(fd);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input{data, size};
  const bool read_data = (input.Byte() & 1) != 0;
  const int fd = open(ArchivePath, O_WRONLY | O_TRUNC);
  if (fd < 0 || WriteFull(fd, input.data, input.size) != static_cast<ssize_t>(input.size)) abort();
  close(fd);

  ctar::Archive archive;
  ctar::Survey survey;
  const int status =
      ctar::SurveySeekableArchive(ArchivePath, "verify", "verify", read_data, &archive, &survey);
  FUZZ_CHECK(status == ctar::StatusWhole || status == ctar::StatusNotArchive);
  FUZZ_CHECK(archive.size == input.size);
  if (status != ctar::StatusWhole) return 0;

  uint64_t end_of_last = 0;
  uint64_t data_bytes = 0;
  for (const ctar::FoundEntry& entry : survey.entries) {
    const uint64_t offset = entry.view.offset;
    FUZZ_CHECK(offset % CtarBlockSize == 0);
    FUZZ_CHECK(offset >= end_of_last);
    FUZZ_CHECK(entry.view.size <= CtarLargestSize);
    const uint64_t padded = CtarPaddedSize(entry.view.size);
    FUZZ_CHECK(padded % CtarBlockSize == 0 && padded >= entry.view.size);
    FUZZ_CHECK(offset + CtarBlockSize + padded <= archive.size);
    FUZZ_CHECK(memchr(entry.view.name, '\0', sizeof entry.view.name) != nullptr);
    end_of_last = offset + CtarBlockSize + padded;
    data_bytes += entry.view.size;
  }
  FUZZ_CHECK(survey.data_bytes == data_bytes);
  for (const ctar::DroppedRange& range : survey.dropped) {
    FUZZ_CHECK(range.length > 0);
    FUZZ_CHECK(range.offset <= archive.size && range.length <= archive.size - range.offset);
  }
  if (survey.final_sentinel) FUZZ_CHECK(survey.sentinel + CtarBlockSize == archive.size);
  if (survey.problems.empty()) FUZZ_CHECK(survey.final_sentinel && !survey.restore_stops_early);
  if (survey.restore_stops_early) FUZZ_CHECK(survey.restore_stop < archive.size);
  return 0;
}
