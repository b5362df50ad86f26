// Shared by the fuzz targets: quiet program logs and a check that turns a
// broken promise of the code under test into a crash libFuzzer keeps.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace fuzz {

// Where findings are reported: the real standard error, saved before the
// program's streams are pointed at /dev/null.
inline FILE*& ReportStream() {
  static FILE* stream = stderr;
  return stream;
}

// The program reports every odd input it meets. At thousands of inputs a
// second that output would cost more time than the code under test and
// would bury libFuzzer's own report, so the program's streams (the FILE
// pointers its log functions write to) go to /dev/null. libFuzzer and the
// sanitizers keep writing to descriptor 2 and are unaffected.
inline void SilenceProgramLog() {
  ReportStream() = stderr;
  if (getenv("FUZZ_SHOW_LOG")) return;  // for debugging a finding by hand
  FILE* sink = fopen("/dev/null", "w");
  if (!sink) abort();
  stdout = sink;
  stderr = sink;
}

[[noreturn]] inline void Fail(const char* file, int line, const char* what) {
  fprintf(ReportStream(), "FUZZ CHECK FAILED %s:%d: %s\n", file, line, what);
  fflush(ReportStream());
  abort();
}

// Reads fixed-size header bytes off the front of an input, zero when the
// input is shorter, so that every input, however short, is usable.
struct Input {
  const uint8_t* data;
  size_t size;
  uint8_t Byte() {
    if (size == 0) return 0;
    uint8_t b = *data++;
    size--;
    return b;
  }
  std::string Rest() const { return std::string(reinterpret_cast<const char*>(data), size); }
};

// Bytes of a C string up to its terminator (what the code under test sees
// of text that holds NUL bytes).
inline std::string AsCString(const std::string& text) { return std::string(text.c_str()); }

}  // namespace fuzz

#define FUZZ_CHECK(condition) \
  do {                        \
    if (!(condition)) fuzz::Fail(__FILE__, __LINE__, #condition); \
  } while (0)
