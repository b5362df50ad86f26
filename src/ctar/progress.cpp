// ctar's progress line on standard error, and byte counts in words.
#include "ctar/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "support/status_line.h"
#include "support/text.h"

namespace ctar {

namespace {

// The size from which a terminal is shown progress without being asked.
constexpr uint64_t ProgressThreshold = 4ull << 30;

StatusLine& Line() {
  static StatusLine line(stderr);
  return line;
}

double Now() {
  struct timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

}  // namespace

ProgressMode ProgressSetting = ProgressMode::Auto;
Progress CurrentProgress;

void Progress::Start(const char* what, uint64_t total) {
  what_ = what;
  total_ = total;
  last_ = 0;
  enabled_ = ProgressSetting == ProgressMode::Always ||
             (ProgressSetting == ProgressMode::Auto && isatty(STDERR_FILENO) &&
              total >= ProgressThreshold);
}

void Progress::Update(uint64_t done) {
  done_ = done;
  // On a pipe the size is unknown until the end; a long stream earns
  // progress once it passed the threshold.
  if (!enabled_ && ProgressSetting == ProgressMode::Auto && total_ == 0 &&
      done >= ProgressThreshold && isatty(STDERR_FILENO))
    enabled_ = true;
  if (!enabled_) return;
  double now = Now();
  if (Line().Shown() && now - last_ < 0.5) return;
  last_ = now;
  Draw();
}

void Progress::Clear() {
  if (Line().Shown()) Line().Forget();
}

void Progress::Finish(uint64_t done) {
  if (!enabled_) return;
  done_ = done;
  Draw();
  Line().Leave();
  enabled_ = false;
}

void Progress::Draw() {
  char done[32], total[32], line[128];
  HumanBytes(done_, done, sizeof done);
  if (total_ > 0) {
    HumanBytes(total_, total, sizeof total);
    int percent = static_cast<int>(static_cast<double>(std::min(done_, total_)) * 100.0 /
                                   static_cast<double>(total_));
    FormatBounded(line, sizeof line, "ctar: %s: %s of %s (%d %%)", what_, done, total, percent);
  } else {
    FormatBounded(line, sizeof line, "ctar: %s: %s read", what_, done);
  }
  Line().Show(line);
}

}  // namespace ctar
