// List mode: each include path is listed on the server and the objects
// directly under it are printed as full paths; under /QSYS.LIB only the
// libraries, which are what a backup can save.
#include "cli/list_mode.h"

#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "cli/path_files.h"
#include "cli/settings.h"
#include "ftp/remote_listing.h"
#include "ftp/session.h"
#include "support/log.h"
#include "support/termination.h"
#include "support/text.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "vondral.cpp";

namespace {

// Prints the full path of the object one listing line names.
int PrintListedObject(const ListPrinterContext* context, const char* line) {
  const char* path = context->include_path;
  size_t path_length = strlen(path);
  const char* separator = path_length > 0 && path[path_length - 1] == '/' ? "" : "/";
  // The name is the ninth field of the Unix long listing (mode, links,
  // owner, group, size, month, day, time or year, name); a blank ends it.
  const char* p = line;
  while (*p && isspace(static_cast<unsigned char>(*p))) p++;
  bool directory = *p == 'd';
  p = line;
  while (*p && !isspace(static_cast<unsigned char>(*p))) p++;
  if (*p) p++;
  for (int field = 0; field < 7; field++) {
    while (*p && isspace(static_cast<unsigned char>(*p))) p++;
    while (*p && !isspace(static_cast<unsigned char>(*p))) p++;
  }
  while (*p && isspace(static_cast<unsigned char>(*p))) p++;
  const char* name = p;
  while (*p && !isspace(static_cast<unsigned char>(*p))) p++;
  int name_length = static_cast<int>(p - name);

  char full[4095];
  if (FormatBounded(full, sizeof full, "%s%s%.*s", path, separator, name_length, name) >
      static_cast<int>(sizeof full)) {
    VFAIL("path too long\n");
    return -1;
  }
  if (strncasecmp(full, "/QSYS.LIB/", 10) != 0) {
    fprintf(Settings.list, "%s%s\n", full, directory ? "/" : "");
  } else if (name_length >= 4 && strncasecmp(name + name_length - 4, ".LIB", 4) == 0) {
    fprintf(Settings.list, "%s%s\n", full, "");  // libraries get no "/"
  } else if (Settings.verbosity >= 1) {
    LogMessageTo(stderr, "%s: ignoring non-library %.*s under /QSYS.LIB\n", ProgramName,
                 name_length, name);
  }
  return 0;
}

}  // namespace

int ListPrinter(void* argument, char* data, int* count) {
  auto* context = static_cast<ListPrinterContext*>(argument);
  if (!context) {
    VFAIL("bad argument\n");
    return -1;
  }
  const int length = *count;
  if (Settings.verbosity >= 1) {
    std::lock_guard<std::mutex> hold(LogLock);
    fwrite(data, 1, static_cast<size_t>(length), stdout);
  }
  constexpr int PendingLimit = 4095;
  int at = 0;
  // The line end that began in the last chunk (a CR there, its LF here)
  // belongs to the line already printed.
  if (context->after_line_end) {
    while (at < length && isspace(static_cast<unsigned char>(data[at]))) at++;
    if (at < length) context->after_line_end = false;
  }
  while (at < length) {
    while (at < length && data[at] != '\r') {
      if (context->pending_length > PendingLimit) {
        VFAIL("buffer overflow\n");
        return -1;
      }
      context->pending[context->pending_length++] = data[at++];
    }
    if (context->pending_length > PendingLimit) {
      VFAIL("buffer overflow\n");
      return -1;
    }
    if (at >= length) return 0;  // the rest of the line comes with the next chunk
    while (at < length && isspace(static_cast<unsigned char>(data[at]))) at++;
    context->after_line_end = at >= length;
    context->pending[context->pending_length] = '\0';
    context->pending_length = 0;
    if (PrintListedObject(context, context->pending) != 0) return -1;
  }
  return 0;
}

int FinishListPrinter(ListPrinterContext* context) {
  // The last line of a listing that the server ended without a line end.
  if (context->pending_length == 0) return 0;
  context->pending[context->pending_length] = '\0';
  context->pending_length = 0;
  return PrintListedObject(context, context->pending);
}

int ListMode(FtpSession* session) {
  char line[PathLineSize];
  if (!Settings.include) {
    CopyBounded(line, sizeof line, "/");
  } else if (!ReadPathLine(Settings.include, line, sizeof line)) {
    LogMessageTo(stderr, "%s: empty include list\n", ProgramName);
    return -1;
  }
  int result = 0;
  for (;;) {
    line[sizeof line - 1] = '\0';
    // Newlines go from the end, but a line is never emptied: a line that is
    // only a newline is listed as that one character.
    size_t length = strlen(line);
    while (length > 1 && line[length - 1] == '\n') line[--length] = '\0';
    auto* context = new ListPrinterContext{};
    context->include_path = line;
    if (ListDirectory(session, line, ListPrinter, context, nullptr) != 0 ||
        FinishListPrinter(context) != 0) {
      VFAIL("list failed\n");
      result = -1;
    }
    delete context;
    if (TerminationRequested.load()) break;
    if (!Settings.include || !ReadPathLine(Settings.include, line, sizeof line)) break;
  }
  return result;
}
