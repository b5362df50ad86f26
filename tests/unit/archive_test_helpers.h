// Helpers of the tests that append to a real archive file: positioned
// writes and file sizes made to fail, recognisable data, and the archive an
// earlier retrieval leaves. Include after defining VONDRAL_ARCHIVE_HELPERS.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include "archive/writer.h"
#include "test_helpers.h"

#ifndef VONDRAL_ARCHIVE_HELPERS
#error "define VONDRAL_ARCHIVE_HELPERS before including archive_test_helpers.h"
#endif

// Arms the plan of positioned writes (failing_pwrite.cpp) for one
// descriptor while it lives: its n-th positioned write writes at most
// caps[n] bytes, or fails with EIO when caps[n] is negative.
struct FailingPwrites {
  FailingPwrites(int descriptor, std::vector<long> caps);
  ~FailingPwrites();
  // The positioned writes the plan has met so far.
  size_t Calls();
};

// Lets no file of the process grow beyond `bytes` while it lives: a write
// that starts there fails with EFBIG, one that crosses it is cut short (and
// the next one fails). SIGXFSZ, which would end the process, is ignored
// meanwhile. Both are put back afterwards, so the limit must only be held
// around the call under test, and the messages that call writes to a
// captured stream must stay below it.
struct FileSizeLimit {
  struct rlimit saved{};
  struct sigaction saved_action{};
  explicit FileSizeLimit(rlim_t bytes) {
    struct sigaction ignore{};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGXFSZ, &ignore, &saved_action);
    getrlimit(RLIMIT_FSIZE, &saved);
    struct rlimit limit = saved;
    limit.rlim_cur = bytes;
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0) << strerror(errno);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &saved);
    sigaction(SIGXFSZ, &saved_action, nullptr);
  }
};

// Bytes that differ from block to block, so that a block written twice or
// out of order shows.
inline std::string Pattern(size_t size, int seed) {
  std::string out(size, '\0');
  for (size_t i = 0; i < size; i++) out[i] = static_cast<char>((i * 31 + i / 509 + seed * 7) & 0xFF);
  return out;
}

inline bool Matches(const std::string& text, const std::string& pattern) {
  return std::regex_search(text, std::regex(pattern));
}

inline struct tm SampleTime() {
  struct tm t{};
  t.tm_year = 124;
  t.tm_mon = 4;
  t.tm_mday = 6;
  t.tm_hour = 7;
  t.tm_isdst = -1;
  return t;
}

inline std::string HeaderBlock(const char* name, uint64_t size, uint32_t mode) {
  unsigned char block[CtarBlockSize];
  return std::string(reinterpret_cast<const char*>(BuildCtarHeader(block, name, size, mode, SampleTime())),
                     CtarBlockSize);
}

inline std::string PadToBlocks(std::string data) {
  data.resize(static_cast<size_t>(CtarPaddedSize(data.size())), '\0');
  return data;
}

// An archive holding one entry "/old/entry" of ten bytes and its end block,
// as the backup driver and an earlier retrieval leave it.
inline std::string OldArchive() {
  return HeaderBlock("/old/entry", 10, 0100644) + PadToBlocks("0123456789") + SentinelBlock();
}
