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

struct FtpSession;

// Run-wide settings. Written only while the options are parsed, before any
// thread but the signal thread exists; read without locks afterwards.
struct RunSettings {
  char* server = nullptr;
  char* user = nullptr;
  char* passphrase = nullptr;
  char* backup_path = nullptr;
  char* restore_path = nullptr;
  FILE* catalog = nullptr;
  FILE* include = nullptr;
  FILE* exclude = nullptr;
  FILE* list = nullptr;
  FILE* notbackedup = nullptr;
  int cutoff_flag = 0;
  int64_t cutoff_time = 0;
  char cutoff_date_text[10] = "";
  char cutoff_time_text[10] = "";
  uint64_t max_block_size = UINT64_MAX;
  uint8_t precheck = 1;
  uint8_t threading = 1;
  int timeout_minutes = 8;
  const char* wait_text = nullptr;  // the save command uses "120" without it
  int verbosity = 0;
  int test_count = 0;
};

extern RunSettings Settings;
extern int StderrIsTerminal;
extern int PageSize;

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
