// Include and exclude path files: one server path (or pattern) a line, read
// again from the start for every question the backup or restore asks.
#include "cli/path_files.h"

#include <fnmatch.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cli/settings.h"
#include "support/log.h"
#include "support/string_list.h"

// The module this file reports as in failure messages.
[[maybe_unused]] static constexpr const char* kModule = "vondral.cpp";

namespace {

// Takes the line end (and a CR before it, as files written on Windows have)
// off a line of a path file; gives the new length. 0 or a "#" first: the
// line names nothing.
size_t TrimPathLine(char* line, size_t length) {
  if (length > 0 && line[length - 1] == '\n') line[--length] = '\0';
  if (length > 0 && line[length - 1] == '\r') line[--length] = '\0';
  return line[0] == '#' ? 0 : length;
}

int CountSlashes(const char* text) {
  int n = 0;
  for (; *text; text++) n += *text == '/';
  return n;
}

}  // namespace

bool ReadPathLine(FILE* stream, char* line, size_t capacity) {
  while (fgets(line, static_cast<int>(capacity), stream))
    if (TrimPathLine(line, strlen(line)) > 0) return true;
  return false;
}

// Every line of a path file is checked once, when the file is opened, so
// that a mistake is reported before anything is sent to the server: a line
// that names something must be a full server path, and fit the line buffer
// every later reading uses. 0, or -1 after reporting each bad line.
int CheckPathFile(FILE* stream, const char* path) {
  int result = 0;
  char* line = nullptr;
  size_t capacity = 0;
  ssize_t length;
  for (int number = 1; (length = getline(&line, &capacity, stream)) >= 0; number++) {
    length = static_cast<ssize_t>(TrimPathLine(line, static_cast<size_t>(length)));
    if (length == 0) continue;
    if (static_cast<size_t>(length) >= PathLineSize) {
      LogMessageTo(stderr, "%s: %s, line %d: longer than %d characters\n", ProgramName, path, number,
                   static_cast<int>(PathLineSize - 1));
      result = -1;
    } else if (line[0] != '/') {
      LogMessageTo(stderr, "%s: %s, line %d: not a full server path: %s\n", ProgramName, path, number,
                   line);
      result = -1;
    }
  }
  if (ferror(stream)) {
    LogMessageTo(stderr, "%s: read(%s): %s\n", ProgramName, path, strerror(errno));
    result = -1;
  }
  free(line);
  rewind(stream);
  return result;
}

// Answers whether `path` is named by a line of the path file `stream`:
//   1  no stream, or no line matched and nothing was collected;
//   0  a line matched the path (a leading-directory match counts, so a line
//      names the object and everything below it), or, with a list, at least
//      one line naming something below the path was collected;
//  -1  the stream could not be rewound.
// A line may carry a second path after " :: " (where a restore puts the
// object); it is collected beside the first. During a restore, lines with
// wild cards are ignored.
int MatchPathFile(const char* path, StringList* list, FILE* stream) {
  if (!stream) return 1;
  if (fseek(stream, 0, SEEK_SET) != 0) {
    LogMessageTo(stderr, "%s: fseek(stream, 0, SEEK_SET): %s\n", ProgramName, strerror(errno));
    return -1;
  }
  const bool restoring = Settings.restore_path != nullptr;
  const int path_slashes = CountSlashes(path);
  const size_t path_length = strlen(path);
  int result = 1;
  char line[PathLineSize];
  while (ReadPathLine(stream, line, sizeof line)) {
    const char* second = nullptr;
    char* separator = strstr(line, " :: ");
    if (separator) {
      *separator = '\0';
      second = separator + 4;
    }
    if (restoring && strpbrk(line, "*?")) continue;
    if (CountSlashes(line) <= path_slashes &&
        fnmatch(line, path, FNM_PATHNAME | FNM_LEADING_DIR) == 0) {
      if (list) AppendStringPair(list, path, second);
      return 0;
    }
    if (list && strncmp(line, path, path_length) == 0 && line[path_length] == '/') {
      AppendStringPair(list, line, second);
      result = 0;
    }
  }
  return result;
}
