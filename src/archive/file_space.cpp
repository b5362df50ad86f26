// Reserving file system space beyond a file's end, in the manner of the
// system-call layer: retried after a signal, errno kept for the caller.
#include "archive/file_space.h"

#include <fcntl.h>

#include <cerrno>

// The module this file would report as; it reports nothing itself.
static constexpr const char* kModule = "backup.cpp";

int ReserveSpace(int descriptor, int64_t offset, int64_t length) {
  for (;;) {
    int result = fallocate64(descriptor, FALLOC_FL_KEEP_SIZE, static_cast<off64_t>(offset),
                             static_cast<off64_t>(length));
    if (!(result < 0 && errno == EINTR)) return result;
  }
}
