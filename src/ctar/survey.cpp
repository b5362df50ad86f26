// The survey of an archive: header after header along the chain a restore
// follows, and in a seekable archive, past every place where it would stop,
// a scan for the next genuine header, with the ranges dropped on the way.
#include "ctar/survey.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "ctar/header_scan.h"
#include "ctar/messages.h"
#include "ctar/progress.h"
#include "ctar/status.h"
#include "support/text.h"

namespace ctar {

namespace {

[[gnu::format(printf, 2, 3)]] void Note(Survey* survey, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  survey->problems.emplace_back(text);
}

// One survey under way: where it stands, whether it is already past a place
// where a restore stops, and how it fares. Every step gives whether the
// walk goes on.
class SurveyWalk {
 public:
  SurveyWalk(Archive& archive, bool read_data, Survey* survey)
      : archive_(archive), read_data_(read_data), survey_(survey) {}

  // Steps to the end of the archive; the survey's status.
  int Run() {
    while (Step()) {
    }
    CurrentProgress.Finish(survey_->final_sentinel ? archive_.size : offset_);
    return status_;
  }

 private:
  bool Step();
  bool Resume(uint64_t stop, uint64_t drop, uint64_t from, const std::string& reason, bool lost);
  bool DamagedHeader(int judged);
  bool Sentinel();
  bool Entry(const unsigned char* block, const EntryView& view, uint64_t size);
  bool ReadEntryData(const EntryView& view);

  Archive& archive_;
  const bool read_data_;
  Survey* survey_;
  uint64_t offset_ = 0;
  bool hidden_ = false;
  int status_ = StatusWhole;
};

// Judges the block at the current offset and deals with what it is.
bool SurveyWalk::Step() {
  if (offset_ == archive_.size) {
    Note(survey_, "the archive ends at offset 0x%llX without its sentinel", Ull(offset_));
    return false;
  }
  unsigned char block[CtarBlockSize];
  EntryView view;
  uint64_t size = 0;
  const int judged = JudgeAt(archive_, offset_, &size, view.name, sizeof view.name, block);
  if (judged == JudgeReadFailed) {
    Complain("%s: read error at offset 0x%llX: %s", archive_.shown, Ull(offset_), strerror(errno));
    status_ = StatusUnreadable;
    return false;
  }
  if (judged == JudgeBeyondEnd) {
    Note(survey_, "truncated: the archive ends inside the block at offset 0x%llX", Ull(offset_));
    survey_->dropped.push_back({offset_, archive_.size - offset_,
                                "a piece of a header block at the end of the file", true});
    return false;
  }
  if (offset_ == 0 && !LooksLikeArchiveStart(judged, block)) {
    status_ = RefuseArchiveStart(archive_, block, Block);
    return false;
  }
  if (judged == CtarBadChecksum || judged == CtarBadSize) return DamagedHeader(judged);
  if (judged == CtarEnd) return Sentinel();
  Describe(block, offset_, size, &view);
  return Entry(block, view, size);
}

// Marks where a restore stops (the first time) and scans for the next
// entry from `from`; the range from `drop` up to it is dropped for the
// given reason. false when nothing more is to be found.
bool SurveyWalk::Resume(uint64_t stop, uint64_t drop, uint64_t from, const std::string& reason,
                        bool lost) {
  if (!survey_->restore_stops_early) {
    survey_->restore_stops_early = true;
    survey_->restore_stop = stop;
  }
  hidden_ = true;
  uint64_t found = 0;
  int scanned = ScanForHeader(archive_, from, &found);
  if (scanned < 0) {
    Complain("%s: read error while looking for headers behind offset 0x%llX: %s", archive_.shown,
             Ull(from), strerror(errno));
    status_ = StatusUnreadable;
    return false;
  }
  uint64_t end = scanned == 0 ? found : archive_.size;
  if (end > drop) survey_->dropped.push_back({drop, end - drop, reason, lost});
  if (scanned != 0) return false;
  offset_ = found;
  return true;
}

bool SurveyWalk::DamagedHeader(int judged) {
  const char* what_is_bad = judged == CtarBadChecksum ? "bad header checksum"
                                                      : "unreadable size field";
  Note(survey_, "%s at offset 0x%llX%s", what_is_bad, Ull(offset_),
       hidden_ ? "" : ": a restore stops here");
  char reason[128];
  FormatBounded(reason, sizeof reason, "the entry whose header at 0x%llX is damaged (%s)",
                Ull(offset_), what_is_bad);
  return Resume(offset_, offset_, offset_ + Block, reason, true);
}

// The sentinel ends a whole archive; one with more behind it is the trace
// of a broken retrieval.
bool SurveyWalk::Sentinel() {
  if (offset_ + Block == archive_.size) {
    survey_->final_sentinel = true;
    survey_->sentinel = offset_;
    return false;
  }
  Note(survey_, "%llu bytes lie behind the sentinel at offset 0x%llX%s",
       Ull(archive_.size - offset_ - Block), Ull(offset_),
       hidden_ ? "" : ": the trace of a broken retrieval; a restore stops at this sentinel");
  char reason[160];
  FormatBounded(reason, sizeof reason,
                "data behind the sentinel at 0x%llX that no header describes (the partial "
                "save file of a broken retrieval)",
                Ull(offset_));
  return Resume(offset_, offset_ + Block, offset_ + Block, reason, false);
}

bool SurveyWalk::Entry(const unsigned char* block, const EntryView& view, uint64_t size) {
  if (const char* oddity = CtarHeaderOddity(block)) {
    if (hidden_) {
      // Behind a break only genuine headers count: this one may be part
      // of the data the scan skipped.
      char reason[CtarBlockSize + 96];
      FormatBounded(reason, sizeof reason, "a block at 0x%llX that looks like a header of %s "
                    "but whose %s is not as a backup writes it", Ull(offset_), view.name, oddity);
      return Resume(offset_, offset_, offset_ + Block, reason, true);
    }
    // A restore accepts the header; it is still not as the backup wrote it.
    Note(survey_, "the header of %s at offset 0x%llX: its %s is not as a backup writes it",
         view.name, Ull(offset_), oddity);
  }
  const uint64_t next = size <= CtarLargestSize
                            ? offset_ + Block + CtarPaddedSize(size)
                            : UINT64_MAX;
  if (next > archive_.size) {
    Note(survey_, "truncated: the data of %s (header at offset 0x%llX, %llu bytes) runs past the "
         "end of the file", view.name, Ull(offset_), Ull(size));
    char reason[CtarBlockSize + 64];
    FormatBounded(reason, sizeof reason, "the truncated entry %s", view.name);
    survey_->dropped.push_back({offset_, archive_.size - offset_, reason, true});
    return false;
  }
  if (read_data_ && !ReadEntryData(view)) return false;
  survey_->entries.push_back({view, hidden_});
  survey_->data_bytes += size;
  offset_ = next;
  CurrentProgress.Update(offset_);
  return true;
}

// Reads the entry's data so that an unreadable disk shows up, and checks
// its padding.
bool SurveyWalk::ReadEntryData(const EntryView& view) {
  bool clean = true;
  int result = PassData(archive_, view, -1, &clean);
  if (result == DataReadFailed) {
    Complain("%s: read error in the data of %s (header at offset 0x%llX): %s", archive_.shown,
             view.name, Ull(offset_), strerror(errno));
    status_ = StatusUnreadable;
    return false;
  }
  if (result == DataEnded) {
    Note(survey_, "the file shrank while the data of %s was read", view.name);
    return false;
  }
  if (!clean)
    Note(survey_, "the padding behind the data of %s (header at offset 0x%llX) is not zero",
         view.name, Ull(offset_));
  return true;
}

// The survey of a stream: the same chain, read in order, up to the place
// where a restore stops.
class StreamWalk {
 public:
  StreamWalk(Archive& archive, Survey* survey) : archive_(archive), survey_(survey) {}

  int Run() {
    while (Step()) {
    }
    CurrentProgress.Finish(archive_.position);
    return status_;
  }

 private:
  bool Step();
  bool Entry(const unsigned char* block, const EntryView& view, uint64_t size);
  bool ReadEntryData(const EntryView& view);
  uint64_t Drain();
  void StopsHere(uint64_t offset) {
    survey_->restore_stops_early = true;
    survey_->restore_stop = offset;
    survey_->searched_behind_stop = false;
  }

  Archive& archive_;
  Survey* survey_;
  int status_ = StatusWhole;
};

bool StreamWalk::Step() {
  const uint64_t offset = archive_.position;
  unsigned char block[CtarBlockSize];
  const ssize_t got = ReadFull(archive_.fd, block, Block);
  if (got < 0) {
    Complain("%s: read error at offset 0x%llX: %s", archive_.shown, Ull(offset), strerror(errno));
    status_ = StatusUnreadable;
    return false;
  }
  archive_.position += static_cast<uint64_t>(got);
  if (offset == 0 && static_cast<uint64_t>(got) < Block) {
    status_ = RefuseArchiveStart(archive_, block, static_cast<size_t>(got));
    return false;
  }
  if (got == 0) {
    Note(survey_, "the archive ends at offset 0x%llX without its sentinel", Ull(offset));
    return false;
  }
  if (static_cast<uint64_t>(got) < Block) {
    Note(survey_, "truncated: the archive ends inside the block at offset 0x%llX", Ull(offset));
    return false;
  }
  EntryView view;
  uint64_t size = 0;
  const int judged = ReadCtarHeader(block, &size, view.name, sizeof view.name);
  if (offset == 0 && !LooksLikeArchiveStart(judged, block)) {
    status_ = RefuseArchiveStart(archive_, block, Block);
    return false;
  }
  if (judged == CtarBadChecksum || judged == CtarBadSize) {
    Note(survey_, "%s at offset 0x%llX: a restore stops here",
         judged == CtarBadChecksum ? "bad header checksum" : "unreadable size field", Ull(offset));
    StopsHere(offset);
    Drain();
    return false;
  }
  if (judged == CtarEnd) {
    const uint64_t behind = Drain();
    if (status_ != StatusWhole) return false;
    if (behind == 0) {
      survey_->final_sentinel = true;
      survey_->sentinel = offset;
      return false;
    }
    Note(survey_, "%llu bytes lie behind the sentinel at offset 0x%llX: the trace of a broken "
         "retrieval; a restore stops at this sentinel", Ull(behind), Ull(offset));
    StopsHere(offset);
    return false;
  }
  Describe(block, offset, size, &view);
  return Entry(block, view, size);
}

bool StreamWalk::Entry(const unsigned char* block, const EntryView& view, uint64_t size) {
  if (const char* oddity = CtarHeaderOddity(block))
    Note(survey_, "the header of %s at offset 0x%llX: its %s is not as a backup writes it",
         view.name, Ull(view.offset), oddity);
  if (!ReadEntryData(view)) return false;
  survey_->entries.push_back({view, false});
  survey_->data_bytes += size;
  return true;
}

// Reads the entry's data through, then its padding, which must be zero.
bool StreamWalk::ReadEntryData(const EntryView& view) {
  int result = view.size > CtarLargestSize ? DataEnded : CopyData(archive_, view.size, -1);
  unsigned char padding[CtarBlockSize];
  const size_t pad = result == DataDone ? static_cast<size_t>(CtarPaddedSize(view.size) - view.size)
                                        : 0;
  if (pad > 0) {
    const ssize_t got = ReadFull(archive_.fd, padding, pad);
    if (got >= 0) archive_.position += static_cast<uint64_t>(got);
    result = got < 0 ? DataReadFailed : static_cast<size_t>(got) < pad ? DataEnded : DataDone;
  }
  if (result == DataReadFailed) {
    Complain("%s: read error in the data of %s (header at offset 0x%llX): %s", archive_.shown,
             view.name, Ull(view.offset), strerror(errno));
    status_ = StatusUnreadable;
    return false;
  }
  if (result == DataEnded) {
    Note(survey_, "truncated: the data of %s (header at offset 0x%llX, %llu bytes) runs past the "
         "end of the file", view.name, Ull(view.offset), Ull(view.size));
    Drain();
    return false;
  }
  for (size_t i = 0; i < pad; i++)
    if (padding[i] != 0) {
      Note(survey_, "the padding behind the data of %s (header at offset 0x%llX) is not zero",
           view.name, Ull(view.offset));
      break;
    }
  return true;
}

// Reads the rest of the stream; the bytes there. A read error is complained
// of and ends the survey as unreadable.
uint64_t StreamWalk::Drain() {
  const uint64_t before = archive_.position;
  if (SkipData(archive_, UINT64_MAX) == DataReadFailed) {
    Complain("%s: read error at offset 0x%llX: %s", archive_.shown, Ull(archive_.position),
             strerror(errno));
    status_ = StatusUnreadable;
  }
  return archive_.position - before;
}

}  // namespace

int RunSurvey(Archive& archive, const char* what, bool read_data, Survey* survey) {
  if (archive.size < Block) {
    // Too short for an archive; what little there is may still say what
    // the file is instead.
    unsigned char start[CtarBlockSize];
    const ssize_t got = ReadArchiveAt(archive, start, static_cast<size_t>(archive.size), 0);
    if (got < 0) {
      Complain("%s: read error at offset 0x0: %s", archive.shown, strerror(errno));
      return StatusUnreadable;
    }
    return RefuseArchiveStart(archive, start, static_cast<size_t>(got));
  }
  CurrentProgress.Start(what, archive.size);
  return SurveyWalk(archive, read_data, survey).Run();
}

int RunStreamSurvey(Archive& archive, const char* what, Survey* survey) {
  CurrentProgress.Start(what, 0);
  return StreamWalk(archive, survey).Run();
}

int SurveySeekableArchive(const char* path, const char* command, const char* what, bool read_data,
                          Archive* archive, Survey* survey) {
  const int status = OpenSeekableArchive(path, command, archive);
  if (status != StatusWhole) return status;
  return RunSurvey(*archive, what, read_data, survey);
}

}  // namespace ctar
