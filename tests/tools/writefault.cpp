// A write-fault injector, loaded with LD_PRELOAD into the program under test.
//
// It stands between the program and write(), pwrite()/pwrite64() and
// fdatasync(), but only for the file whose path (as /proc/self/fd/N names
// it) begins with $WRITEFAULT_PATH; every other descriptor goes straight
// through. The write calls on that file are counted, from all threads, and
// the call numbered $WRITEFAULT_AT (1-based) meets the fault $WRITEFAULT_KIND:
//
//   enospc  that call and every later one fail with ENOSPC (the disk is full
//           from there on)
//   eio     that one call fails with EIO
//   short   that call writes only half of what was asked (at least 1 byte)
//   eintr   that one call fails with EINTR before writing anything
//   sync    (no call number) every fdatasync() of the file fails with EIO
//
// Without $WRITEFAULT_KIND nothing is injected, and the shim only counts.
// With $WRITEFAULT_COUNT set to a path, the number of write calls seen is
// written there after every call and once more at exit, so that a test can
// first measure how many writes a clean run makes.
//
// A prefix rather than an exact path, because a program that writes an
// archive under a temporary name beside the final one (NAME.partial) is to be
// hit there too.
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using WriteFn = ssize_t (*)(int, const void*, size_t);
using PwriteFn = ssize_t (*)(int, const void*, size_t, off_t);
using Pwrite64Fn = ssize_t (*)(int, const void*, size_t, off64_t);
using SyncFn = int (*)(int);

enum class Kind { None, Enospc, Eio, Short, Eintr, Sync };

struct Config {
  WriteFn write = nullptr;
  PwriteFn pwrite = nullptr;
  Pwrite64Fn pwrite64 = nullptr;
  SyncFn fdatasync = nullptr;
  const char* prefix = nullptr;
  size_t prefix_length = 0;
  const char* count_path = nullptr;
  Kind kind = Kind::None;
  unsigned long at = 0;
};

Config config;
std::atomic<bool> ready{false};
std::atomic<unsigned long> calls{0};

// A misconfigured run must not pass as a clean one: it stops at once, with a
// status no run of the program under test gives.
[[noreturn]] void Refuse(const char* what) {
  const char* text = "writefault: bad configuration: ";
  config.write(2, text, strlen(text));
  config.write(2, what, strlen(what));
  config.write(2, "\n", 1);
  _exit(127);
}

void Setup() {
  // The real functions come first: everything below may need them.
  config.write = reinterpret_cast<WriteFn>(dlsym(RTLD_NEXT, "write"));
  config.pwrite = reinterpret_cast<PwriteFn>(dlsym(RTLD_NEXT, "pwrite"));
  config.pwrite64 = reinterpret_cast<Pwrite64Fn>(dlsym(RTLD_NEXT, "pwrite64"));
  config.fdatasync = reinterpret_cast<SyncFn>(dlsym(RTLD_NEXT, "fdatasync"));
  if (!config.write || !config.pwrite || !config.pwrite64 || !config.fdatasync) _exit(127);
  config.prefix = getenv("WRITEFAULT_PATH");
  config.prefix_length = config.prefix ? strlen(config.prefix) : 0;
  config.count_path = getenv("WRITEFAULT_COUNT");
  const char* kind = getenv("WRITEFAULT_KIND");
  const char* at = getenv("WRITEFAULT_AT");
  if (kind && *kind) {
    static const struct {
      const char* name;
      Kind kind;
    } names[] = {{"enospc", Kind::Enospc}, {"eio", Kind::Eio}, {"short", Kind::Short},
                 {"eintr", Kind::Eintr},   {"sync", Kind::Sync}};
    for (const auto& n : names)
      if (strcmp(kind, n.name) == 0) config.kind = n.kind;
    if (config.kind == Kind::None) Refuse("unknown WRITEFAULT_KIND");
    if (config.prefix_length == 0) Refuse("WRITEFAULT_PATH is not set");
    if (config.kind != Kind::Sync) {
      char* end = nullptr;
      config.at = at ? strtoul(at, &end, 10) : 0;
      if (config.at == 0 || !end || *end != '\0') Refuse("WRITEFAULT_AT must be a call number from 1");
    }
  }
  ready.store(true);
}

// Another library's constructor may write before ours has run.
void Ready() {
  if (!ready.load()) Setup();
}

bool OnTarget(int descriptor) {
  if (config.prefix_length == 0 || descriptor < 0) return false;
  const int saved = errno;
  char link[64], path[PATH_MAX];
  snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
  ssize_t n = readlink(link, path, sizeof path - 1);
  errno = saved;
  if (n < 0) return false;
  path[n] = '\0';
  return strncmp(path, config.prefix, config.prefix_length) == 0;
}

void WriteCount(unsigned long n) {
  if (!config.count_path) return;
  const int saved = errno;
  int descriptor = open(config.count_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (descriptor >= 0) {
    char text[32];
    int length = snprintf(text, sizeof text, "%lu\n", n);
    if (config.write(descriptor, text, static_cast<size_t>(length)) != length) {
      // The count is missing or cut: the test reading it fails.
    }
    close(descriptor);
  }
  errno = saved;
}

// Counts one write call on the target file and decides its fate: false with
// errno set when it is to fail, true when it goes ahead with *length bytes
// (halved for a short write).
bool Proceed(size_t* length) {
  const unsigned long n = calls.fetch_add(1) + 1;
  WriteCount(n);
  if (config.kind == Kind::Enospc && n >= config.at) {
    errno = ENOSPC;
    return false;
  }
  if (n != config.at) return true;
  switch (config.kind) {
    case Kind::Eio:
      errno = EIO;
      return false;
    case Kind::Eintr:
      errno = EINTR;
      return false;
    case Kind::Short:
      if (*length > 1) *length /= 2;
      return true;
    default:
      return true;
  }
}

__attribute__((constructor)) void Load() { Ready(); }

__attribute__((destructor)) void Unload() {
  if (ready.load()) WriteCount(calls.load());
}

}  // namespace

extern "C" {

ssize_t write(int descriptor, const void* data, size_t length) {
  Ready();
  if (OnTarget(descriptor) && !Proceed(&length)) return -1;
  return config.write(descriptor, data, length);
}

ssize_t pwrite(int descriptor, const void* data, size_t length, off_t offset) {
  Ready();
  if (OnTarget(descriptor) && !Proceed(&length)) return -1;
  return config.pwrite(descriptor, data, length, offset);
}

ssize_t pwrite64(int descriptor, const void* data, size_t length, off64_t offset) {
  Ready();
  if (OnTarget(descriptor) && !Proceed(&length)) return -1;
  return config.pwrite64(descriptor, data, length, offset);
}

int fdatasync(int descriptor) {
  Ready();
  if (config.kind == Kind::Sync && OnTarget(descriptor)) {
    errno = EIO;
    return -1;
  }
  return config.fdatasync(descriptor);
}

}  // extern "C"
