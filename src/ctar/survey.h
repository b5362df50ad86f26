// The survey of a whole archive that verify and salvage share: the chain a
// restore follows, and, in a seekable archive, behind every place where a
// restore would stop, the entries that lie hidden there.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ctar/archive_input.h"
#include "ctar/entry_view.h"

namespace ctar {

struct FoundEntry {
  EntryView view;
  bool hidden;  // behind a premature sentinel or a damaged header: no restore reaches it
};

struct DroppedRange {
  uint64_t offset;
  uint64_t length;
  std::string reason;
  bool lost;  // it held (part of) an entry that had been completed
};

struct Survey {
  std::vector<FoundEntry> entries;
  std::vector<DroppedRange> dropped;
  std::vector<std::string> problems;  // for verify, in the order found
  bool restore_stops_early = false;
  uint64_t restore_stop = 0;  // offset where a restore ends before the archive does
  uint64_t data_bytes = 0;
  bool final_sentinel = false;
  uint64_t sentinel = 0;
  // false when the archive was read as a stream: behind the place where a
  // restore stops nothing was looked for, so no hidden entry is known.
  bool searched_behind_stop = true;
};

// Walks the whole archive: the chain a restore follows, and behind every
// place where a restore would stop (a premature sentinel, a damaged header)
// a scan for the entries that lie hidden there. With read_data every entry's
// data is read as well, so an unreadable disk shows up and the padding is
// checked. what names the survey on the progress line. A status: whole (the
// survey ran; judge it by its contents), not an archive, or unreadable.
int RunSurvey(Archive& archive, const char* what, bool read_data, Survey* survey);

// The same for an archive read as a stream (a pipe), which allows no
// looking ahead: every header, size, the data with its padding, the
// sentinel and what follows it are checked in order, but the walk ends
// where a restore stops, without looking for hidden entries there. The rest
// of the stream is read all the same, so that whatever feeds it can finish.
int RunStreamSurvey(Archive& archive, const char* what, Survey* survey);

// Opens the archive at path for command (verify, salvage), which needs to
// seek in it, and surveys it as RunSurvey does. A status.
int SurveySeekableArchive(const char* path, const char* command, const char* what, bool read_data,
                          Archive* archive, Survey* survey);

}  // namespace ctar
