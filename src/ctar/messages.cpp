// ctar's complaints on standard error and the flush of standard output.
#include "ctar/messages.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "ctar/progress.h"
#include "ctar/status.h"

namespace ctar {

char LastProblem[1024] = "";

void Complain(const char* format, ...) {
  CurrentProgress.Clear();
  va_list args;
  va_start(args, format);
  vsnprintf(LastProblem, sizeof LastProblem, format, args);
  va_end(args);
  fprintf(stderr, "ctar: %s\n", LastProblem);
}

int FlushStandardOutput(int status) {
  if (fflush(stdout) != 0 || ferror(stdout)) {
    Complain("standard output: write failed: %s", strerror(errno));
    return Worse(status, StatusWriteFailed);
  }
  return status;
}

}  // namespace ctar
