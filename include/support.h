// Support library: timestamped, thread-tagged log lines, the thread registry,
// bounded text helpers and the small list of path pairs.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <mutex>

#include <sys/types.h>

// Name the program was started under; every message starts with it.
extern const char* ProgramName;

// One mutex makes every log line whole and guards the thread registry.
extern std::mutex LogLock;

// Writes "[hh:mm:ss] [Tnn] " and the formatted text to standard output.
[[gnu::format(printf, 1, 2)]] void LogMessage(const char* format, ...);
// The same to the given stream (standard error for failures and usage).
[[gnu::format(printf, 2, 3)]] void LogMessageTo(FILE* stream, const char* format, ...);

// Registers the calling thread under `number`, or under the next free number
// when `number` is -1. Numbers are never reused within a run.
uint32_t RegisterThread(int number);
// Number of the thread with this identity (low 32 bits of pthread_self);
// a thread seen for the first time is registered. Caller holds LogLock.
uint32_t ThreadNumber(uint32_t identity);
// Identity of the calling thread as the registry compares it.
uint32_t CurrentThreadIdentity();
// Frees the registry; a later registration starts again from 0.
void FreeThreadRegistry();

// Internal failures carry the reporting module's name and the source line.
// Each source file says once which module it reports as, in a constant
// `kModule` ("backup.cpp", ...; several files may share a module, so the
// name in a message does not depend on where the code lives); the line
// comes from the compiler.
#define VFAIL(fmt, ...) \
  LogMessageTo(stderr, "%s[%s,%d]: " fmt, ProgramName, kModule, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

// Every bounded copy of text goes through these helpers; nothing else in the
// program copies protocol or path text by hand.
//
// Copies at most cap-1 bytes of src and always terminates (cap > 0).
// Returns the length of src, so a result >= cap means the text was cut.
size_t CopyBounded(char* dst, size_t cap, const char* src);
// Appends src behind the text in dst within cap bytes, always terminated.
// Returns the length the joined text would have had.
size_t AppendBounded(char* dst, size_t cap, const char* src);
// snprintf into dst; returns the length the full text would have had.
[[gnu::format(printf, 3, 4)]] int FormatBounded(char* dst, size_t cap, const char* format, ...);

// Writes all of length bytes, going on after a signal and after a short
// write. Gives length; fewer when the file took no more (errno ENOSPC); -1
// when a write failed (errno set), whatever went out before. With `done`,
// the bytes that did go out are stored there in every case.
ssize_t WriteFull(int descriptor, const void* data, size_t length, size_t* done = nullptr);
// The same at an offset, leaving the file position alone.
ssize_t PwriteFull(int descriptor, const void* data, size_t length, int64_t offset,
                   size_t* done = nullptr);

// Decimal and binary scaling of byte counts for report lines. The two rules
// differ on purpose: per-object lines step by 1000 above 2000 ("K", "M",
// "G"), run totals by 1024 above 2048 ("k", "M", "G").
double ScaleDecimal(double value, char* unit);
double ScaleBinary(double value, char* unit);

// A list of (path, optional second path) pairs, in insertion order.
struct StringPair {
  char* first;
  char* second;  // absent (nullptr) when the line had no " :: " part
  StringPair* next;
};

struct StringList {
  int count;
  StringPair* first;
  StringPair* last;
};

StringList* NewStringList();
void AppendStringPair(StringList* list, const char* text, const char* second);
void ClearStringList(StringList* list);
void FreeStringList(StringList* list);
