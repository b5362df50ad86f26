// ctar's progress line on standard error, and byte counts in words.
#include "ctar/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "support/text.h"

namespace ctar {

namespace {

// The size from which a terminal is shown progress without being asked.
constexpr uint64_t ProgressThreshold = 4ull << 30;

double Now() {
  struct timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

}  // namespace

ProgressMode ProgressSetting = ProgressMode::Auto;
Progress CurrentProgress;

void HumanBytes(uint64_t bytes, char* out, size_t capacity) {
  static const char* const units[] = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < sizeof units / sizeof units[0]) {
    value /= 1024;
    unit++;
  }
  if (unit == 0)
    FormatBounded(out, capacity, "%llu bytes", static_cast<unsigned long long>(bytes));
  else
    FormatBounded(out, capacity, "%.1f %s", value, units[unit]);
}

void Progress::Start(const char* what, uint64_t total) {
  what_ = what;
  total_ = total;
  shown_ = false;
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
  if (shown_ && now - last_ < 0.5) return;
  last_ = now;
  Draw();
}

void Progress::Clear() {
  if (!shown_) return;
  fprintf(stderr, "\r%*s\r", static_cast<int>(width_), "");
  shown_ = false;
}

void Progress::Finish(uint64_t done) {
  if (!enabled_) return;
  done_ = done;
  Draw();
  fputc('\n', stderr);
  shown_ = false;
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
  size_t length = strlen(line);
  fprintf(stderr, "\r%s%*s", line, static_cast<int>(width_ > length ? width_ - length : 0), "");
  width_ = length;
  shown_ = true;
}

}  // namespace ctar
