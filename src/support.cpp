// Log output with thread tags, the thread registry, bounded text helpers and
// the string list.
#include "support.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

const char* ProgramName = "vondral";
std::mutex LogLock;

namespace {

struct RegistryEntry {
  uint32_t number;
  uint32_t identity;
  RegistryEntry* next;
};

struct ThreadRegistry {
  uint32_t count;  // registrations ever made; never lowered
  RegistryEntry* first;
  RegistryEntry* last;
};

ThreadRegistry* Registry = nullptr;

ThreadRegistry* RegistryMade() {
  if (!Registry) Registry = new ThreadRegistry{0, nullptr, nullptr};
  return Registry;
}

void RemoveEntry(uint32_t identity) {
  RegistryEntry* previous = nullptr;
  for (RegistryEntry* e = Registry->first; e; previous = e, e = e->next) {
    if (e->identity != identity) continue;
    if (previous)
      previous->next = e->next;
    else
      Registry->first = e->next;
    if (Registry->last == e) Registry->last = previous;
    delete e;
    return;
  }
}

uint32_t AppendEntry(int number, uint32_t identity) {
  uint32_t n = number == -1 ? Registry->count : static_cast<uint32_t>(number);
  auto* e = new RegistryEntry{n, identity, nullptr};
  if (Registry->last)
    Registry->last->next = e;
  else
    Registry->first = e;
  Registry->last = e;
  Registry->count++;
  return n;
}

void WriteLine(FILE* stream, const char* format, va_list args) {
  // The clock is read before the lock, so two threads may print their times
  // out of order; the lines themselves never mix.
  time_t now = time(nullptr);
  struct tm local{};
  localtime_r(&now, &local);
  std::lock_guard<std::mutex> hold(LogLock);
  fprintf(stream, "[%02d:%02d:%02d] ", local.tm_hour, local.tm_min, local.tm_sec);
  fprintf(stream, "[T%02u] ", ThreadNumber(CurrentThreadIdentity()));
  vfprintf(stream, format, args);
}

}  // namespace

uint32_t CurrentThreadIdentity() {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(
      reinterpret_cast<void*>(pthread_self())));
}

void LogMessage(const char* format, ...) {
  va_list args;
  va_start(args, format);
  WriteLine(stdout, format, args);
  va_end(args);
}

void LogMessageTo(FILE* stream, const char* format, ...) {
  va_list args;
  va_start(args, format);
  WriteLine(stream, format, args);
  va_end(args);
}

uint32_t RegisterThread(int number) {
  std::lock_guard<std::mutex> hold(LogLock);
  uint32_t identity = CurrentThreadIdentity();
  if (Registry)
    RemoveEntry(identity);
  else
    RegistryMade();
  return AppendEntry(number, identity);
}

uint32_t ThreadNumber(uint32_t identity) {
  RegistryMade();
  for (RegistryEntry* e = Registry->first; e; e = e->next)
    if (e->identity == identity) return e->number;
  return AppendEntry(-1, identity);
}

void FreeThreadRegistry() {
  std::lock_guard<std::mutex> hold(LogLock);
  if (!Registry) return;
  for (RegistryEntry* e = Registry->first; e;) {
    RegistryEntry* next = e->next;
    delete e;
    e = next;
  }
  delete Registry;
  Registry = nullptr;
}

size_t CopyBounded(char* dst, size_t cap, const char* src) {
  size_t length = strlen(src);
  if (cap == 0) return length;
  size_t n = length < cap - 1 ? length : cap - 1;
  memcpy(dst, src, n);
  dst[n] = '\0';
  return length;
}

size_t AppendBounded(char* dst, size_t cap, const char* src) {
  size_t used = strnlen(dst, cap);
  if (used == cap) return used + strlen(src);
  return used + CopyBounded(dst + used, cap - used, src);
}

int FormatBounded(char* dst, size_t cap, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = vsnprintf(dst, cap, format, args);
  va_end(args);
  return n;
}

namespace {

template <typename Step>
ssize_t WriteAll(size_t length, size_t* done_out, Step step) {
  size_t done = 0;
  ssize_t result = -1;
  for (;;) {
    if (done == length) {
      result = static_cast<ssize_t>(done);
      break;
    }
    ssize_t n = step(done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    if (n == 0) {
      errno = ENOSPC;
      result = static_cast<ssize_t>(done);
      break;
    }
    done += static_cast<size_t>(n);
  }
  if (done_out) *done_out = done;
  return result;
}

}  // namespace

ssize_t WriteFull(int descriptor, const void* data, size_t length, size_t* done) {
  const char* bytes = static_cast<const char*>(data);
  return WriteAll(length, done, [&](size_t at) { return write(descriptor, bytes + at, length - at); });
}

ssize_t PwriteFull(int descriptor, const void* data, size_t length, int64_t offset, size_t* done) {
  const char* bytes = static_cast<const char*>(data);
  return WriteAll(length, done, [&](size_t at) {
    return pwrite64(descriptor, bytes + at, length - at, static_cast<off64_t>(offset) + static_cast<off64_t>(at));
  });
}

double ScaleDecimal(double value, char* unit) {
  static const char letters[] = {' ', 'K', 'M', 'G'};
  int step = 0;
  while (value > 2000 && step < 3) {
    value /= 1000;
    step++;
  }
  *unit = letters[step];
  return value;
}

double ScaleBinary(double value, char* unit) {
  static const char letters[] = {' ', 'k', 'M', 'G'};
  int step = 0;
  while (value > 2048 && step < 3) {
    value *= 1.0 / 1024;
    step++;
  }
  *unit = letters[step];
  return value;
}

StringList* NewStringList() {
  return new (std::nothrow) StringList{0, nullptr, nullptr};
}

void AppendStringPair(StringList* list, const char* text, const char* second) {
  auto* pair = new StringPair{strdup(text), second ? strdup(second) : nullptr, nullptr};
  if (list->last)
    list->last->next = pair;
  else
    list->first = pair;
  list->last = pair;
  list->count++;
}

void ClearStringList(StringList* list) {
  for (StringPair* p = list->first; p;) {
    StringPair* next = p->next;
    free(p->first);
    free(p->second);
    delete p;
    p = next;
  }
  list->first = list->last = nullptr;
  list->count = 0;
}

void FreeStringList(StringList* list) {
  if (!list) return;
  ClearStringList(list);
  delete list;
}
