// The read-ahead of a restore: reader threads that fetch an entry's data
// in stretches ahead of the upload, and the hand-over from them in order.
#include "archive/read_ahead.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <thread>

#include "archive/reader.h"
#include "support/sysio.h"

bool ReadAhead::Start(const ArchiveReader* reader, int64_t room) {
  Stop();
  struct stat st{};
  const int flags = fcntl(reader->descriptor, F_GETFL);
  if (room != Step || reader->left <= 2 * Step || flags < 0 || !(flags & O_DIRECT) ||
      fstat(reader->descriptor, &st) != 0 || !S_ISREG(st.st_mode))
    return false;
  const int64_t here = CurrentOffset(reader->descriptor);
  if (here < 0) return false;
  std::unique_lock<std::mutex> hold(lock_);
  if (!StartThreads()) return false;
  reader_ = reader;
  descriptor_ = reader->descriptor;
  base_ = here;
  total_ = WholeBlocks(reader->left);
  issued_ = 0;
  taken_ = 0;
  for (Slot& slot : slots_) slot.state = SlotState::Free;
  lent_ = nullptr;
  active_ = true;
  work_.notify_all();
  return true;
}

ssize_t ReadAhead::Take(const char** bytes) {
  std::unique_lock<std::mutex> hold(lock_);
  // The upload has sent what the last hand-over lent: the caller is back.
  ReturnLent();
  const int64_t stretch = taken_ / Stretch;
  Slot& slot = slots_[stretch % Slots];
  done_.wait(hold, [&] { return slot.state == SlotState::Ready; });
  const int64_t within = taken_ - stretch * Stretch;
  const int64_t length = std::min(Step, total_ - taken_);
  if (slot.got != slot.length) {
    // A short or failed stretch: where the file position stands now, the
    // callback's own reads take over and meet the end or the failure.
    hold.unlock();
    Stop();
    return -1;
  }
  // A ready slot is the callback's until it is freed; its last hand-over
  // frees it only at the next Take, once the upload has sent the bytes.
  *bytes = slot.data + within;
  taken_ += length;
  if (taken_ == total_ || taken_ % Stretch == 0) lent_ = &slot;
  const int64_t position = base_ + taken_;
  hold.unlock();
  // Where the callback's own reads would have left the file.
  SeekTo(descriptor_, position, SEEK_SET);
  return static_cast<ssize_t>(length);
}

void ReadAhead::ReturnLent() {
  if (!lent_) return;
  lent_->state = SlotState::Free;
  lent_ = nullptr;
  work_.notify_one();  // one more stretch may be read
}

void ReadAhead::Stop() {
  std::unique_lock<std::mutex> hold(lock_);
  if (!active_) return;
  active_ = false;
  ReturnLent();
  done_.wait(hold, [&] {
    for (const Slot& slot : slots_)
      if (slot.state == SlotState::Reading) return false;
    return true;
  });
  reader_ = nullptr;
}

bool ReadAhead::StartThreads() {
  if (started_) return true;
  if (!slots_[0].data) {
    // One mapping for all the slots, on a huge-page boundary and offered
    // huge pages: every direct read pins its buffer's pages, and every send
    // walks them, so fewer and larger pages cost less. Where the system
    // gives none, small pages serve as before.
    constexpr size_t Huge = size_t{2} << 20;
    constexpr size_t Length = static_cast<size_t>(Slots * Stretch);
    void* mapped = mmap(nullptr, Length + Huge, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) return false;
    const uintptr_t at = reinterpret_cast<uintptr_t>(mapped);
    const uintptr_t aligned = (at + Huge - 1) / Huge * Huge;
    madvise(reinterpret_cast<void*>(aligned), Length, MADV_HUGEPAGE);
    for (int i = 0; i < Slots; i++) slots_[i].data = reinterpret_cast<char*>(aligned) + i * Stretch;
  }
  // The readers live as long as the process and are never joined.
  for (int i = 0; i < Readers; i++) std::thread([this] { Read(); }).detach();
  started_ = true;
  return true;
}

void ReadAhead::Read() {
  std::unique_lock<std::mutex> hold(lock_);
  for (;;) {
    // The slot must be free too: a stretch read out may still be lent.
    work_.wait(hold, [&] {
      return active_ && issued_ * Stretch < total_ && issued_ < taken_ / Stretch + Slots &&
             slots_[issued_ % Slots].state == SlotState::Free;
    });
    const int64_t index = issued_++;
    Slot& slot = slots_[index % Slots];
    slot.state = SlotState::Reading;
    slot.length = std::min(Stretch, total_ - index * Stretch);
    const int descriptor = descriptor_;
    const int64_t offset = base_ + index * Stretch;
    hold.unlock();
    // A failure anywhere in the stretch makes it a failed one (-1), as the
    // callback's own read would fail there.
    const ssize_t got = PreadFull(descriptor, slot.data, static_cast<size_t>(slot.length), offset);
    hold.lock();
    slot.got = got;
    slot.state = SlotState::Ready;
    done_.notify_one();  // only the callback (or Stop) waits
  }
}

ReadAhead& SharedReadAhead() {
  static ReadAhead* ahead = new ReadAhead;
  return *ahead;
}
