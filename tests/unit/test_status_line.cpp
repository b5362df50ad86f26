// The status line at the bottom of a terminal: what it writes for each
// operation, its cut to the terminal's width, and the progress text of a
// backup or restore.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/run_progress.h"
#include "support/status_line.h"

namespace {

struct FitCase {
  const char* what;
  std::string text;
  size_t columns;
  size_t bytes;  // of the prefix that fits
  size_t used;   // columns it fills
};

TEST(FitToColumns, CutsAtTheWidthAndNeverInsideACharacter) {
  const FitCase cases[] = {
      {"shorter than the width", "abc", 10, 3, 3},
      {"exactly the width", "abcde", 5, 5, 5},
      {"longer: cut", "abcdefgh", 5, 5, 5},
      {"no room", "abc", 0, 0, 0},
      {"empty", "", 4, 0, 0},
      // "é" is two bytes and one column.
      {"two-byte characters fit whole", "\xc3\xa9\xc3\xa9x", 3, 5, 3},
      {"a two-byte character at the cut stays out", "ab\xc3\xa9", 2, 2, 2},
      {"a two-byte character at the edge stays in", "ab\xc3\xa9z", 3, 4, 3},
      // "€" is three bytes.
      {"three-byte character whole", "\xe2\x82\xac" "a", 1, 3, 1},
      // A stray continuation byte at the start takes no column of its own.
      {"leading continuation byte", "\x82" "ab", 1, 2, 1},
  };
  for (const FitCase& c : cases) {
    size_t used = 99;
    EXPECT_EQ(FitToColumns(c.text.data(), c.text.size(), c.columns, &used), c.bytes) << c.what;
    EXPECT_EQ(used, c.used) << c.what;
  }
}

// A status line on a memory stream, which no terminal backs: the width is
// the fallback's.
class MemoryLine {
 public:
  explicit MemoryLine(size_t columns) {
    stream_ = open_memstream(&data_, &size_);
    line_ = new StatusLine(stream_, columns);
  }
  ~MemoryLine() {
    delete line_;
    fclose(stream_);
    free(data_);
  }
  StatusLine* operator->() { return line_; }
  // What was written since the last call.
  std::string Taken() {
    fflush(stream_);
    std::string all(data_, size_);
    std::string fresh = all.substr(seen_);
    seen_ = all.size();
    return fresh;
  }

 private:
  FILE* stream_ = nullptr;
  char* data_ = nullptr;
  size_t size_ = 0;
  size_t seen_ = 0;
  StatusLine* line_ = nullptr;
};

enum class Op { Show, Erase, Leave, Forget };

struct Step {
  Op op;
  const char* text;      // for Show
  const char* written;   // the bytes the step writes
  bool shown;            // Shown() after it
};

struct LineCase {
  const char* what;
  size_t columns;
  std::vector<Step> steps;
};

TEST(StatusLine, WritesWhatEachOperationNeedsAndNoMore) {
  const LineCase cases[] = {
      {"a line shown, then one that is shorter is padded over",
       20,
       {{Op::Show, "abcdef", "\rabcdef", true},
        {Op::Show, "xy", "\rxy    \rxy", true},
        {Op::Show, "longer", "\rlonger", true}}},
      {"cut one column short of the width",
       6,
       {{Op::Show, "abcdefgh", "\rabcde", true}}},
      {"erased once: a second erase writes nothing",
       20,
       {{Op::Show, "abc", "\rabc", true},
        {Op::Erase, nullptr, "\r   \r", false},
        {Op::Erase, nullptr, "", false},
        {Op::Show, "abc", "\rabc", true}}},
      {"nothing to erase or leave before the first show",
       20,
       {{Op::Erase, nullptr, "", false}, {Op::Leave, nullptr, "", false}}},
      {"left standing: the line is ended and the next show starts afresh",
       20,
       {{Op::Show, "abc", "\rabc", true},
        {Op::Leave, nullptr, "\n", false},
        {Op::Leave, nullptr, "", false},
        {Op::Show, "d", "\rd", true}}},
      {"left standing after an erase: drawn once more first",
       20,
       {{Op::Show, "abc", "\rabc", true},
        {Op::Erase, nullptr, "\r   \r", false},
        {Op::Leave, nullptr, "\rabc\n", false}}},
      {"forgotten: erased, and no redraw brings it back",
       20,
       {{Op::Show, "abcd", "\rabcd", true},
        {Op::Forget, nullptr, "\r    \r", false},
        {Op::Leave, nullptr, "", false}}},
  };
  for (const LineCase& c : cases) {
    MemoryLine line(c.columns);
    for (size_t i = 0; i < c.steps.size(); i++) {
      const Step& s = c.steps[i];
      switch (s.op) {
        case Op::Show: line->Show(s.text); break;
        case Op::Erase: line->Erase(); break;
        case Op::Leave: line->Leave(); break;
        case Op::Forget: line->Forget(); break;
      }
      EXPECT_EQ(line.Taken(), s.written) << c.what << ", step " << i;
      EXPECT_EQ(line->Shown(), s.shown) << c.what << ", step " << i;
    }
  }
}

struct ProgressCase {
  const char* what;
  ProgressFigures figures;
  const char* text;
};

ProgressFigures Backup(uint64_t done, uint64_t total, uint64_t bytes, double elapsed, const char* in_hand) {
  ProgressFigures f;
  f.done = done;
  f.total = total;
  f.bytes = bytes;
  f.elapsed = elapsed;
  f.in_hand = in_hand;
  return f;
}

ProgressFigures Restore(uint64_t done, uint64_t bytes, uint64_t bytes_total, double elapsed, const char* in_hand) {
  ProgressFigures f;
  f.restore = true;
  f.done = done;
  f.bytes = bytes;
  f.bytes_total = bytes_total;
  f.elapsed = elapsed;
  f.in_hand = in_hand;
  return f;
}

TEST(FormatProgress, SaysHowFarTheRunIsAndHowLongItHasLeft) {
  constexpr uint64_t MiB = 1 << 20;
  const ProgressCase cases[] = {
      {"backup just started: no rate before a second, no estimate before an object",
       Backup(0, 136, 0, 0.4, ""), "vondral: 0/136 objects, 0 bytes, 0:00 elapsed"},
      {"backup under way: the time left from the objects done",
       Backup(34, 136, 300 * MiB, 60, "/QSYS.LIB/PAY.LIB"),
       "vondral: 34/136 objects, 300.0 MiB, 5.0 MiB/s, 1:00 elapsed, 3:00 left, /QSYS.LIB/PAY.LIB"},
      {"backup of more than an hour",
       Backup(1, 3, 0, 3725, "/home/a"), "vondral: 1/3 objects, 0 bytes, 0 bytes/s, 1:02:05 elapsed, 2:04:10 left, /home/a"},
      {"backup done: nothing left to estimate",
       Backup(5, 5, 2048, 2, ""), "vondral: 5/5 objects, 2.0 KiB, 1.0 KiB/s, 0:02 elapsed"},
      {"an empty library counted beyond the plan: the total never falls behind",
       Backup(4, 3, 0, 1, ""), "vondral: 4/4 objects, 0 bytes, 0 bytes/s, 0:01 elapsed"},
      {"restore of a file: the time left from the archive's bytes",
       Restore(2, 256 * MiB, 1024 * MiB, 10, "/QSYS.LIB/A.LIB"),
       "vondral: 2 entries, 256.0 MiB of 1.0 GiB, 25.6 MiB/s, 0:10 elapsed, 0:30 left, /QSYS.LIB/A.LIB"},
      {"restore of one entry so far",
       Restore(1, 512, 1024, 1, ""), "vondral: 1 entry, 512 bytes of 1.0 KiB, 512 bytes/s, 0:01 elapsed, 0:01 left"},
      {"restore from a pipe: no size, no estimate",
       Restore(7, 3 * MiB, 0, 3, "/QDLS"), "vondral: 7 entries, 3.0 MiB, 1.0 MiB/s, 0:03 elapsed, /QDLS"},
  };
  for (const ProgressCase& c : cases) {
    char text[512];
    FormatProgress(c.figures, "vondral", text, sizeof text);
    EXPECT_STREQ(text, c.text) << c.what;
  }
}

TEST(FormatProgress, ALongNameIsCutAtTheBufferAndTerminated) {
  const std::string name(1000, 'n');
  char text[64];
  FormatProgress(Backup(1, 2, 0, 0, name.c_str()), "vondral", text, sizeof text);
  EXPECT_EQ(std::string(text).size(), sizeof text - 1);
  EXPECT_EQ(std::string(text).substr(0, 20), "vondral: 1/2 objects");
}

}  // namespace
