// Small helpers shared by the unit tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

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
