// Positioned writes that fail as a test plans: the header that closes an
// entry is written over the old end block, below the archive's end, so no
// file size limit can make that write fail once the data behind it went
// out. Positioned writes are therefore routed through this definition,
// which the linker prefers to the C library's: while a plan is armed for a
// descriptor, its n-th positioned write writes at most caps[n] bytes, or
// fails with EIO when caps[n] is negative; every other write goes straight
// to the kernel. One definition serves the whole unit test program.
#define VONDRAL_ARCHIVE_HELPERS
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <mutex>
#include <vector>

#include "archive_test_helpers.h"

namespace {
struct PwritePlan {
  std::mutex lock;
  int descriptor = -1;
  std::vector<long> caps;
  size_t calls = 0;
};
PwritePlan& ThePwritePlan() {
  static PwritePlan plan;
  return plan;
}
}  // namespace

extern "C" ssize_t pwrite64(int descriptor, const void* data, size_t length, off64_t offset) {
  long cap = LONG_MAX;
  {
    PwritePlan& plan = ThePwritePlan();
    std::lock_guard<std::mutex> hold(plan.lock);
    if (descriptor == plan.descriptor && plan.calls < plan.caps.size()) cap = plan.caps[plan.calls++];
  }
  if (cap < 0) {
    errno = EIO;
    return -1;
  }
  return syscall(SYS_pwrite64, descriptor, data, std::min(length, static_cast<size_t>(cap)), offset);
}

FailingPwrites::FailingPwrites(int descriptor, std::vector<long> caps) {
  PwritePlan& plan = ThePwritePlan();
  std::lock_guard<std::mutex> hold(plan.lock);
  plan.descriptor = descriptor;
  plan.caps = std::move(caps);
  plan.calls = 0;
}

FailingPwrites::~FailingPwrites() {
  PwritePlan& plan = ThePwritePlan();
  std::lock_guard<std::mutex> hold(plan.lock);
  plan.descriptor = -1;
  plan.caps.clear();
}

size_t FailingPwrites::Calls() {
  PwritePlan& plan = ThePwritePlan();
  std::lock_guard<std::mutex> hold(plan.lock);
  return plan.calls;
}
