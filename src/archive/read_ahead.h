// Read-ahead of one entry's data for a restore from a file read with
// direct I/O: reader threads fetch the next stretches of whole blocks while
// the upload sends, and the archive reader's callback hands over from them.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "net/connection.h"

struct ArchiveReader;

// With direct I/O every read waits for the device, and one 64 KiB read at a
// time leaves the upload waiting for each. So while the engine sends,
// reader threads read the entry's next stretch of whole blocks (direct,
// 512-aligned, into page-aligned buffers) in reads of 1 MiB, several in
// flight, and the callback hands over from them, in order, exactly what its
// own read would have given: it lends the upload the bytes where they were
// read (the stretch is not read into again before the next hand-over), so
// no byte is copied on the way. Where a stretch comes back short or failed
// (the archive ends, or the device fails), the callback goes back to its
// own reads from that point on, so an archive cut short or a failing device
// ends the upload just as before, with the same message. The archive's file
// position is kept where the callback's own reads would have left it. Pipes
// (standard input), and files the system refused direct I/O for, are read
// as they go.
class ReadAhead {
 public:
  static constexpr int64_t Step = TransferBufferSize;  // one hand-over
  static constexpr int64_t Stretch = 16 * Step;         // one read ahead
  static constexpr int Slots = 8;                       // stretches held
  static constexpr int Readers = 4;                     // reads in flight

  // Takes over an entry's reading when it is worth it: a regular file read
  // with direct I/O (elsewhere the kernel reads ahead itself) and more than
  // a few hand-overs. Called at the entry's first hand-over.
  bool Start(const ArchiveReader* reader, int64_t room);

  bool Serves(const ArchiveReader* reader) const { return active_ && reader_ == reader; }

  // The next hand-over's bytes (its padding included) from what was read
  // ahead: the count, with *bytes pointing at them where they were read;
  // they stay as they are until the next Take or Stop. -1 when the
  // callback must read for itself from here on (the read-ahead has then
  // ended).
  ssize_t Take(const char** bytes);

  // Ends the current entry's read-ahead once the reads in flight are back.
  void Stop();

 private:
  enum class SlotState { Free, Reading, Ready };
  struct Slot {
    char* data = nullptr;
    SlotState state = SlotState::Free;
    int64_t length = 0;
    int64_t got = 0;  // -1: the read failed
  };

  // Maps the slots and starts the reader threads, once.
  bool StartThreads();
  // Frees the slot whose bytes the last hand-over lent, if that one ended
  // its stretch. Called with the lock held.
  void ReturnLent();
  // The body of every reader thread.
  void Read();

  std::mutex lock_;
  std::condition_variable work_;  // readers wait for stretches to read
  std::condition_variable done_;  // the callback waits for stretches read
  Slot slots_[Slots];
  bool started_ = false;
  bool active_ = false;
  const ArchiveReader* reader_ = nullptr;
  int descriptor_ = -1;
  int64_t base_ = 0;    // file offset of the entry's data
  int64_t total_ = 0;   // bytes the entry's reads cover (whole blocks)
  int64_t issued_ = 0;  // stretches handed to the readers
  int64_t taken_ = 0;   // bytes handed over
  Slot* lent_ = nullptr;  // read out, still lent to the upload
};

// The one read-ahead of the process. Made once and never destroyed: its
// threads outlive every caller.
ReadAhead& SharedReadAhead();
