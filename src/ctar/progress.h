// The progress line ctar draws on standard error while it reads a large
// archive for a person at a terminal.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ctar {

enum class ProgressMode { Auto, Always, Never };
// --progress and --no-progress; Auto without either.
extern ProgressMode ProgressSetting;

// Reading an archive of many GiB takes minutes; a person watching a terminal
// is told how far it got. Scripts and small archives see nothing.
class Progress {
 public:
  // A new reading of `total` bytes (0: unknown, as on a pipe) named `what`.
  void Start(const char* what, uint64_t total);
  // `done` bytes are read; redrawn at most twice a second.
  void Update(uint64_t done);
  // Erases the progress line so that a message starts on a clean line.
  void Clear();
  // The last state, and the line is left standing.
  void Finish(uint64_t done);

 private:
  void Draw();

  const char* what_ = "";
  uint64_t total_ = 0;
  uint64_t done_ = 0;
  bool enabled_ = false;
  double last_ = 0;
};

// The one progress line of the run.
extern Progress CurrentProgress;

}  // namespace ctar
