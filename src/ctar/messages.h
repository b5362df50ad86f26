// How ctar complains: one line on standard error, clear of the progress
// line, kept as the last problem for the JSON listing; and the final flush
// of standard output, whose failure is a failure of the command.
#pragma once

#include <cstdint>

namespace ctar {

// The last complaint, so that the JSON listing can carry it as its problem.
extern char LastProblem[1024];

// "ctar: " and the formatted text on standard error.
[[gnu::format(printf, 1, 2)]] void Complain(const char* format, ...);

// Flushes standard output; a write that failed there makes the status at
// least StatusWriteFailed, after a complaint.
int FlushStandardOutput(int status);

// For printing offsets and sizes with %llu and %llX.
inline unsigned long long Ull(uint64_t value) { return static_cast<unsigned long long>(value); }

}  // namespace ctar
