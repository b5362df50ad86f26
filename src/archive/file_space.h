// Reserving file system space beyond a file's end: the one descriptor call
// the archive writer needs that the system-call layer (support/sysio.h)
// does not carry.
#pragma once

#include <cstdint>

// Reserves length bytes of space from offset on without changing the
// file's size or content (fallocate with FALLOC_FL_KEEP_SIZE), retried after
// a signal. 0, or -1 (errno set) where the file system cannot reserve.
int ReserveSpace(int descriptor, int64_t offset, int64_t length);
