// Log output with thread tags and the thread registry.
#include "support/log.h"

#include <pthread.h>

#include <cstring>
#include <ctime>

#include "support/status_line.h"

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

// The calling thread's last message to standard error, for LastFailureLine.
thread_local std::string FailureLine;
thread_local bool HasFailureLine = false;

void KeepFailureLine(const char* format, va_list args) {
  char text[2048];
  vsnprintf(text, sizeof text, format, args);
  FailureLine = text;
  while (!FailureLine.empty() && FailureLine.back() == '\n') FailureLine.pop_back();
  HasFailureLine = true;
}

// The status line, when one is shown, and whether the last text written to
// a terminal left its line open (a -v4 reply echo without its line end): the
// status line waits for the line to end rather than draw into it.
StatusLine* Status = nullptr;
StatusSource Source = nullptr;
bool LineOpen = false;

// The formatted text written to a terminal that shows the status line: the
// line is erased first, and drawn again once the text ends its line.
void WriteAroundStatus(FILE* stream, const char* head, const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const int length = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (length < 0) return;
  std::string text(static_cast<size_t>(length) + 1, '\0');
  vsnprintf(text.data(), text.size(), format, args);
  text.pop_back();
  Status->Erase();
  fputs(head, stream);
  fputs(text.c_str(), stream);
  fflush(stream);
  LineOpen = text.empty() ? LineOpen : text.back() != '\n';
  DrawLogStatus();
}

void WriteLine(FILE* stream, const char* format, va_list args) {
  if (stream == stderr) {
    va_list copy;
    va_copy(copy, args);
    KeepFailureLine(format, copy);
    va_end(copy);
  }
  // The clock is read before the lock, so two threads may print their times
  // out of order; the lines themselves never mix.
  time_t now = time(nullptr);
  struct tm local{};
  localtime_r(&now, &local);
  std::lock_guard<std::mutex> hold(LogLock);
  char head[64];
  snprintf(head, sizeof head, "[%02d:%02d:%02d] [T%02u] ", local.tm_hour, local.tm_min, local.tm_sec,
           ThreadNumber(CurrentThreadIdentity()));
  if (Status && StreamIsTerminal(stream)) {
    WriteAroundStatus(stream, head, format, args);
    return;
  }
  fputs(head, stream);
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

void SetLogStatus(StatusSource source) {
  static StatusLine line(stderr);
  Status = &line;
  Source = source;
}

void DrawLogStatus() {
  if (!Status || !Source || LineOpen) return;
  char text[512];
  Source(text, sizeof text);
  Status->Show(text);
}

void ForgetLogStatus() {
  if (!Status) return;
  Status->Forget();
  Status = nullptr;
  Source = nullptr;
}

bool LastFailureLine(std::string* text) {
  if (!HasFailureLine) return false;
  *text = FailureLine;
  return true;
}

void ForgetFailureLine() {
  FailureLine.clear();
  HasFailureLine = false;
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
