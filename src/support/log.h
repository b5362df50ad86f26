// Log output: every line timestamped and tagged with its thread's number,
// the thread registry behind those numbers, and the head of internal
// failure messages.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

// Name the program was started under; every message starts with it.
extern const char* ProgramName;

// One mutex makes every log line whole and guards the thread registry.
extern std::mutex LogLock;

// Writes "[hh:mm:ss] [Tnn] " and the formatted text to standard output.
[[gnu::format(printf, 1, 2)]] void LogMessage(const char* format, ...);
// The same to the given stream (standard error for failures and usage).
[[gnu::format(printf, 2, 3)]] void LogMessageTo(FILE* stream, const char* format, ...);

// A status line at the bottom of standard error, kept below the log lines:
// erased before a line reaches a terminal and drawn again after it, with
// its text asked anew of `source` at every draw. Shown only on a terminal;
// the caller checks. All three under LogLock.
using StatusSource = void (*)(char* text, size_t capacity);
void SetLogStatus(StatusSource source);
void DrawLogStatus();
// Erased for good.
void ForgetLogStatus();

// The text of the last message this thread wrote to standard error since
// ForgetFailureLine, without its time, thread tag and final newline (a
// message of two lines, such as a failed command and the server's quoted
// reply, is kept whole). false when there was none. What the run summary
// gives as the reason an object failed.
bool LastFailureLine(std::string* text);
void ForgetFailureLine();

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
