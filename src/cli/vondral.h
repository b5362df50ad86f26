// The program's entry: options and run-wide settings, credentials, include
// and exclude path files, list mode and the signal thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"
#include "cli/settings.h"

struct FtpSession;


// The whole program: returns the process exit status.
int VondralMain(int argc, char** argv);

// Blocks SIGTERM in the calling thread and starts the thread that waits for
// it. 0 on success; -1 when the mask failed, -2 when the thread did not start.
int StartSignalThread();

// Writes the usage text to standard error.
void Usage();
// Builds the short-option string from the option table into out.
void BuildShortOptions(char* out, size_t capacity);

// Parses "username:where:key" into Settings.user and Settings.passphrase.
int ReadCredentials(const char* argument);

// Lines of include and exclude files are read with a buffer of this size.
constexpr size_t PathLineSize = 4096;
// The next line of a path file that names something, without its line end
// (and a CR before it); empty lines and lines starting with "#" are skipped.
// false at the end of the file.
bool ReadPathLine(FILE* stream, char* line, size_t capacity);
// Checks every line of a path file; reports each bad one. 0 or -1.
int CheckPathFile(FILE* stream, const char* path);

// Tests a server path against an include or exclude file (see vondral.cpp).
struct StringList;
int MatchPathFile(const char* path, StringList* list, FILE* stream);

// List mode: writes the full path of every object directly under each
// include path to the --list stream, one per line.
int ListMode(FtpSession* session);

// State of one listing in list mode: the part of a listing line that has
// arrived so far (a line may be split over data chunks).
struct ListPrinterContext {
  const char* include_path;
  int pending_length;
  char pending[4097];
  bool after_line_end;  // the last chunk ended inside a line end
};
int ListPrinter(void* context, char* data, int* count);
// Prints the listing's last line when the server ended it without a line
// end. 0, or -1 when its path is too long.
int FinishListPrinter(ListPrinterContext* context);
