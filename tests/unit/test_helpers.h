// Small helpers shared by the unit tests.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "support/termination.h"

// A temporary stream whose whole content can be read back as text.
struct CapturedStream {
  FILE* stream = tmpfile();
  ~CapturedStream() {
    if (stream) fclose(stream);
  }
  std::string Text() {
    fflush(stream);
    std::string out;
    rewind(stream);
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, stream)) > 0) out.append(buffer, n);
    return out;
  }
};

// Writes `text` to a new temporary file and returns a stream on it, read
// position at the start.
inline FILE* StreamWith(const std::string& text) {
  FILE* f = tmpfile();
  fwrite(text.data(), 1, text.size(), f);
  rewind(f);
  return f;
}

// Redirects standard error into a temporary file for the life of the object.
struct StderrCapture {
  CapturedStream capture;
  FILE* saved = stderr;
  StderrCapture() { stderr = capture.stream; }
  ~StderrCapture() { stderr = saved; }
  std::string Text() { return capture.Text(); }
};

// Redirects standard output into a temporary file for the life of the
// object. GoogleTest reports failed checks on standard output too, so when
// the test has failed the captured text (reports included) is passed on.
struct StdoutCapture {
  CapturedStream capture;
  FILE* saved = stdout;
  StdoutCapture() { stdout = capture.stream; }
  ~StdoutCapture() {
    stdout = saved;
    if (::testing::Test::HasFailure()) {
      std::string text = capture.Text();
      fwrite(text.data(), 1, text.size(), stdout);
    }
  }
  std::string Text() { return capture.Text(); }
};

// A termination request as the drivers meet it long after it came: the
// flag is set as the signal thread would, but without a new request time,
// and the call waits until the calling thread's grace is over (at once,
// unless this process made a request or this thread ended a transfer in the
// last few seconds). false when the grace never ended.
inline bool RequestWithGraceOver(int signal_number) {
  TerminationRequested = signal_number;
  for (int waited = 0; TerminationMsLeft() != 0; waited += 10) {
    if (waited > TerminationGraceMs + 1000) return false;
    usleep(10000);
  }
  return true;
}

// Archive helpers for the tests that save into a real archive file. They
// need the library's archive and lock declarations, which most test files
// do without, so a file asks for them by defining VONDRAL_ARCHIVE_HELPERS
// before including this header.
#ifdef VONDRAL_ARCHIVE_HELPERS
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <thread>
#include <vector>

#include "ftp/checkpoint.h"
#include "ftp/data_command.h"
#include "ftp/remote_listing.h"
#include "ftp/reply_judge.h"
#include "archive/writer.h"
#include "ftp/session.h"
#include "ftp/transfer_settings.h"

// A temporary archive file, removed with the object.
struct TempArchive {
  int fd = -1;
  std::string path;
  TempArchive() {
    char name[] = "/tmp/vondral-archive-XXXXXX";
    fd = mkstemp(name);
    path = name;
  }
  ~TempArchive() {
    if (fd >= 0) close(fd);
    unlink(path.c_str());
  }
  off_t Size() const {
    struct stat st{};
    fstat(fd, &st);
    return st.st_size;
  }
  std::string Contents() const {
    std::string out(static_cast<size_t>(Size()), '\0');
    ssize_t n = pread(fd, out.data(), out.size(), 0);
    out.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return out;
  }
  void Append(const std::string& bytes) {
    lseek(fd, 0, SEEK_END);
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
};

// A writer on `fd` as a worker sets one up.
inline std::unique_ptr<ArchiveWriter> ArchiveWriterFor(int fd) {
  std::unique_ptr<ArchiveWriter> writer(new ArchiveWriter{});
  writer->descriptor = fd;
  writer->block = writer->storage;
  return writer;
}

inline std::string SentinelBlock() {
  unsigned char block[CtarBlockSize];
  return std::string(reinterpret_cast<const char*>(BuildCtarSentinel(block)), CtarBlockSize);
}

struct ArchiveEntry {
  std::string name;
  std::string data;
  bool operator==(const ArchiveEntry& other) const { return name == other.name && data == other.data; }
};

// Reads the archive as the restore driver would: header after header until
// the end block. `ended_at` receives the offset just behind the end block,
// -1 when the reader never met one.
inline std::vector<ArchiveEntry> ReadArchiveEntries(const std::string& archive, long* ended_at) {
  std::vector<ArchiveEntry> entries;
  *ended_at = -1;
  size_t at = 0;
  while (at + CtarBlockSize <= archive.size()) {
    uint64_t size = 0;
    char name[512] = "";
    int kind = ReadCtarHeader(reinterpret_cast<const unsigned char*>(archive.data() + at), &size, name,
                              sizeof name);
    if (kind == CtarEnd) {
      *ended_at = static_cast<long>(at + CtarBlockSize);
      break;
    }
    if (kind != CtarEntry || at + CtarBlockSize + size > archive.size()) break;
    entries.push_back({name, archive.substr(at + CtarBlockSize, size)});
    at += CtarBlockSize + static_cast<size_t>(CtarPaddedSize(size));
  }
  return entries;
}

// Whether another thread could take the archive lock now, i.e. nobody kept
// it behind.
inline bool ArchiveLockIsFree() {
  bool got = false;
  std::thread other([&] {
    got = ArchiveLock.try_lock();
    if (got) ArchiveLock.unlock();
  });
  other.join();
  return got;
}
#endif  // VONDRAL_ARCHIVE_HELPERS
