// The progress line of a backup or restore, and the thread that redraws it.
#include "support/run_progress.h"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "support/log.h"
#include "support/status_line.h"
#include "support/text.h"

namespace {

// How often the line is drawn anew while nothing is logged: the elapsed
// time moves on even while the server saves for minutes.
constexpr auto RedrawEvery = std::chrono::seconds(1);

double MonotonicSeconds() {
  struct timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// "1:23", or "1:02:03" from an hour on.
void FormatDuration(double seconds, char* out, size_t capacity) {
  if (seconds < 0) seconds = 0;
  const auto whole = static_cast<unsigned long long>(seconds);
  const unsigned long long hours = whole / 3600, minutes = whole / 60 % 60, rest = whole % 60;
  if (hours > 0)
    FormatBounded(out, capacity, "%llu:%02llu:%02llu", hours, minutes, rest);
  else
    FormatBounded(out, capacity, "%llu:%02llu", minutes, rest);
}

// The time left, from the share of the work done so far: objects for a
// backup (their sizes are not known before they are saved), the archive's
// bytes for a restore. Negative when it cannot be told.
double SecondsLeft(const ProgressFigures& f) {
  if (f.restore) {
    if (f.bytes_total == 0 || f.bytes == 0 || f.bytes >= f.bytes_total) return -1;
    return f.elapsed * static_cast<double>(f.bytes_total - f.bytes) / static_cast<double>(f.bytes);
  }
  if (f.total == 0 || f.done == 0 || f.done >= f.total) return -1;
  return f.elapsed * static_cast<double>(f.total - f.done) / static_cast<double>(f.done);
}

// The running line: its figures, and the thread that draws it.
struct Progress {
  std::atomic<bool> running{false};
  bool restore = false;
  uint64_t total = 0;
  uint64_t bytes_total = 0;
  double started = 0;
  std::atomic<uint64_t> done{0};
  std::atomic<uint64_t> bytes{0};
  std::mutex in_hand_lock;  // taken after LogLock, never before
  std::string in_hand;
  std::mutex wake_lock;
  std::condition_variable wake;
  bool stop = false;
  std::thread drawer;
};

Progress Line;

ProgressFigures Snapshot() {
  ProgressFigures f;
  f.restore = Line.restore;
  f.done = Line.done.load(std::memory_order_relaxed);
  f.total = Line.total;
  f.bytes = Line.bytes.load(std::memory_order_relaxed);
  f.bytes_total = Line.bytes_total;
  f.elapsed = MonotonicSeconds() - Line.started;
  std::lock_guard<std::mutex> hold(Line.in_hand_lock);
  f.in_hand = Line.in_hand;
  return f;
}

// The line's text now; asked by the log under LogLock.
void CurrentText(char* text, size_t capacity) { FormatProgress(Snapshot(), ProgramName, text, capacity); }

void DrawNow() {
  std::lock_guard<std::mutex> hold(LogLock);
  DrawLogStatus();
}

// The drawing thread: a line now, then one a second until told to stop.
// Nothing it calls throws but an allocation; a failed one ends the drawing,
// never the run.
void DrawLoop() {
  try {
    std::unique_lock<std::mutex> hold(Line.wake_lock);
    while (!Line.stop) {
      hold.unlock();
      DrawNow();
      hold.lock();
      Line.wake.wait_for(hold, RedrawEvery, [] { return Line.stop; });
    }
  } catch (...) {
  }
}

void Start(bool restore, uint64_t total, uint64_t bytes_total) {
  if (Line.running.load() || !StreamIsTerminal(stderr)) return;
  Line.restore = restore;
  Line.total = total;
  Line.bytes_total = bytes_total;
  Line.started = MonotonicSeconds();
  Line.done = 0;
  Line.bytes = 0;
  Line.stop = false;
  // A run that ends by exit() from any thread stops the line first: a
  // thread still drawing while the process is torn down would draw into a
  // destroyed stream.
  static const bool registered = atexit(StopRunProgress) == 0;
  if (!registered) return;
  {
    std::lock_guard<std::mutex> hold(LogLock);
    SetLogStatus(CurrentText);
  }
  try {
    Line.drawer = std::thread(DrawLoop);
  } catch (...) {
    // No thread, no line: the run goes on without it.
    std::lock_guard<std::mutex> hold(LogLock);
    ForgetLogStatus();
    return;
  }
  Line.running = true;
}

}  // namespace

void FormatProgress(const ProgressFigures& f, const char* program, char* out, size_t capacity) {
  char count[64], bytes[32], of[48] = "", rate[40] = "", elapsed[32], left[48] = "";
  if (f.restore)
    FormatBounded(count, sizeof count, "%llu %s", static_cast<unsigned long long>(f.done),
                  f.done == 1 ? "entry" : "entries");
  else  // an empty library is saved, and counted, although its tree counts no object
    FormatBounded(count, sizeof count, "%llu/%llu objects", static_cast<unsigned long long>(f.done),
                  static_cast<unsigned long long>(std::max(f.total, f.done)));
  HumanBytes(f.bytes, bytes, sizeof bytes);
  if (f.restore && f.bytes_total > 0) {
    char total[32];
    HumanBytes(f.bytes_total, total, sizeof total);
    FormatBounded(of, sizeof of, " of %s", total);
  }
  if (f.elapsed >= 1) {
    char per_second[32];
    HumanBytes(static_cast<uint64_t>(static_cast<double>(f.bytes) / f.elapsed), per_second, sizeof per_second);
    FormatBounded(rate, sizeof rate, ", %s/s", per_second);
  }
  FormatDuration(f.elapsed, elapsed, sizeof elapsed);
  const double seconds_left = SecondsLeft(f);
  if (seconds_left >= 0) {
    char shown[32];
    FormatDuration(seconds_left, shown, sizeof shown);
    FormatBounded(left, sizeof left, ", %s left", shown);
  }
  FormatBounded(out, capacity, "%s: %s, %s%s%s, %s elapsed%s%s%s", program, count, bytes, of, rate, elapsed, left,
                f.in_hand.empty() ? "" : ", ", f.in_hand.c_str());
}

void StartBackupProgress(uint64_t objects) { Start(false, objects, 0); }

void StartRestoreProgress(uint64_t archive_bytes) { Start(true, 0, archive_bytes); }

void StopRunProgress() {
  if (!Line.running.exchange(false)) return;
  {
    std::lock_guard<std::mutex> hold(Line.wake_lock);
    Line.stop = true;
  }
  Line.wake.notify_all();
  // The drawing thread itself never ends the run, so this is not it.
  if (Line.drawer.joinable()) Line.drawer.join();
  std::lock_guard<std::mutex> hold(LogLock);
  ForgetLogStatus();
}

void ProgressInHand(const char* name) {
  if (!Line.running.load(std::memory_order_relaxed)) return;
  std::lock_guard<std::mutex> hold(Line.in_hand_lock);
  Line.in_hand = name;
}

void ProgressDone(uint64_t count) {
  if (Line.running.load(std::memory_order_relaxed)) Line.done.fetch_add(count, std::memory_order_relaxed);
}

void ProgressBytes(uint64_t count) {
  if (Line.running.load(std::memory_order_relaxed)) Line.bytes.fetch_add(count, std::memory_order_relaxed);
}

void ProgressPosition(uint64_t position) {
  if (Line.running.load(std::memory_order_relaxed)) Line.bytes.store(position, std::memory_order_relaxed);
}
