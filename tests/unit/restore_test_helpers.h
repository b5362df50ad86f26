// Helpers of the tests that read archive entries as a restore does: an
// entry's data on file with a reader at its start, and the check of a
// failure message by the module that reports it.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <regex>
#include <string>

#include "archive/reader.h"

// Whether the log holds the message, with the "[<file>,<line>]: " prefix
// the program's failure reports carry.
inline ::testing::AssertionResult Reported(const std::string& log, const char* file, const std::string& message) {
  if (std::regex_search(log, std::regex(std::string(R"(\[)") + file + R"(\.cpp,\d+\]: )" + message)))
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "no [" << file << ".cpp]: " << message << " in:\n" << log;
}

// Distinct bytes, so that a read from the wrong place shows.
inline std::string Pattern(size_t length, int seed) {
  std::string out(length, '\0');
  for (size_t i = 0; i < length; i++) out[i] = static_cast<char>((i * 7 + seed * 13 + i / 251) & 0xFF);
  return out;
}

inline std::string Padded(const std::string& data) {
  return data + std::string((512 - data.size() % 512) % 512, '\0');
}

// One archive entry's data on file, padded to whole blocks, and a reader at
// its start.
struct EntryData {
  std::string data;
  FILE* file = tmpfile();
  ArchiveReader reader;
  explicit EntryData(size_t size, int seed = 9)
      : data(Pattern(size, seed)),
        reader{fileno(file), 0, static_cast<int64_t>(size), static_cast<int64_t>(size)} {
    const std::string padded = Padded(data);
    fwrite(padded.data(), 1, padded.size(), file);
    fflush(file);
    rewind(file);
  }
  ~EntryData() { fclose(file); }
  off_t position() const { return lseek(reader.descriptor, 0, SEEK_CUR); }
};
