// Entry of the program: start-up, options, credentials, path files, the
// signal thread and the choice of the run mode.
#include "cli/vondral.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <getopt.h>
#include <pthread.h>
#include <signal.h>
#include <strings.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <algorithm>

#include "archive/archive_file.h"
#include "backup/driver.h"
#include "ftp/session.h"
#include "restore/restore.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "vondral.cpp";

RunSettings Settings;
int StderrIsTerminal = 0;
int PageSize = 4096;

namespace {

struct OptionRow {
  const char* name;
  int has_arg;  // no_argument, required_argument, optional_argument
  char letter;
  const char* help;
};

// The order of this table fixes the short-option string and the usage text.
const OptionRow Options[] = {
    {"backup", required_argument, 'b',
     "Create a TAR backup archive.  Follow with a path to contain the output."},
    {"credentials", required_argument, 'c',
     "Follow with the credentials to login to the server in the form "
     "\"username:where:key\" .  where explains where the passphrase may be found as "
     "follows.  If where is here, then key is the actual passphrase as in "
     "\"fred:here:passphrase\".  If where is env, then key is the name of an "
     "environment variable which contains the passphrase as in "
     "\"fred:env:PASSPHRASE\".  If where is fd, then key is the number of a file "
     "descriptor from which the first line read is the passphrase as in "
     "\"fred:fd:4\".  If where is file, then key is the name of a file from which "
     "the first line read is the passphrase as in \"fred:file:keyFilename\"."},
    {"Catalog", required_argument, 'C',
     "Create a catalog file containing a list of backed up files.  Follow with a "
     "path to contain the output."},
    {"date", required_argument, 'd',
     "Follow with an epoch.  During backup, any objects that have a timestamp "
     "before the given epoch will not be included in the backup."},
    {"exclude", required_argument, 'e',
     "Follow with a path to a file which contains full paths which should be "
     "excluded from the backup or restore, one full path per line."},
    {"help", no_argument, 'h', "This help."},
    {"include", required_argument, 'i',
     "Follow with a path to a file which contains full paths which should be "
     "included in the backup or restore, one full path per line."},
    {"list", required_argument, 'l',
     "Create a list of the objects on server under the path given by the include "
     "option.  Follow with a file descriptor to which to write the list of full "
     "paths -- one per line."},
    {"maxblocksize", required_argument, 'm', "Debugging option."},
    {"notbackedup", required_argument, 'n',
     "Follow with a file descriptor to which to write the list of full paths -- "
     "one per line -- of objects not backed up by backup command."},
    {"precheck", required_argument, 'p', "Sets the precheck option to either yes or no"},
    {"restore", required_argument, 'r',
     "Restore a TAR archive.  Follow with a path from which to read the archive to "
     "restore or \"-\" to read the archive from stdin."},
    {"server", required_argument, 's',
     "Follow with the host name or IP address of the server."},
    {"test", no_argument, 't', "Test the connection with the given server."},
    {"verbose", optional_argument, 'v', "Produce verbose output."},
    {"wait", required_argument, 'w',
     "Follow with a number of seconds (0-99999) to wait to establish a checkpoint "
     "or enter -1 to wait indefinately"},
    {"threading", required_argument, 'x', "Follow with 0 to disable threading"},
    {"timeout", required_argument, 'z', "Timeout to wait for response in minutes"},
};
constexpr int OptionCount = sizeof(Options) / sizeof(Options[0]);

// Lines of the usage text hold at most this many characters before wrapping.
constexpr size_t UsageLineLimit = 70;

sigset_t SignalSet;

// The first request asks the drivers to stop at their safe points; a second
// one means the operator will not wait: the process ends at once, leaving
// an existing archive untouched and the temporary file behind.
void* SignalThread(void*) {
  for (;;) {
    int signal_number = 0;
    if (sigwait(&SignalSet, &signal_number) != 0) continue;
    if (!IsTerminationSignal(signal_number)) {
      LogMessageTo(stderr, "\nUnexpected signal %d\n", signal_number);
      continue;
    }
    if (TerminationRequested.load() == 0) {
      RequestTermination(signal_number);
      continue;
    }
    LogMessageTo(stderr, "%s: second termination request (signal %d): ending at once\n", ProgramName,
                 signal_number);
    _exit(128 + signal_number);
  }
  return nullptr;
}

// A yes/no option takes yes, true, 1 (on) or no, false, 0 (off), in any
// case. Anything else is refused: a typo such as "-p 2121" or "-x on" must
// not silently mean "no".
int SetYesNo(uint8_t* flag, const char* option, const char* text) {
  static const struct {
    const char* word;
    uint8_t value;
  } words[] = {{"yes", 1}, {"true", 1}, {"1", 1}, {"no", 0}, {"false", 0}, {"0", 0}};
  for (const auto& w : words) {
    if (strcasecmp(text, w.word) == 0) {
      *flag = w.value;
      return 0;
    }
  }
  LogMessageTo(stderr, "invalid argument: --%s %s\n", option, text);
  return -1;
}

// A whole decimal number, an optional minus sign and digits only, within
// [low, high]. Blanks, a plus sign or trailing characters are refused.
bool StrictInteger(const char* text, long low, long high, long* value) {
  const char* digits = text[0] == '-' ? text + 1 : text;
  if (!*digits || strspn(digits, "0123456789") != strlen(digits) || strlen(digits) > 9) return false;
  *value = strtol(text, nullptr, 10);
  return *value >= low && *value <= high;
}

// Takes the line end (and a CR before it, as files written on Windows have)
// off a line of a path file; gives the new length. 0 or a "#" first: the
// line names nothing.
size_t TrimPathLine(char* line, size_t length) {
  if (length > 0 && line[length - 1] == '\n') line[--length] = '\0';
  if (length > 0 && line[length - 1] == '\r') line[--length] = '\0';
  return line[0] == '#' ? 0 : length;
}

// Base-0 conversions that must consume the whole argument and at least one
// character.
bool WholeLong(const char* text, long* value) {
  char* end = nullptr;
  errno = 0;
  *value = strtol(text, &end, 0);
  return end != text && *end == '\0';
}

void ReplaceStream(FILE** slot, FILE* stream) {
  if (*slot) fclose(*slot);
  *slot = stream;
}

}  // namespace

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

namespace {

// --include and --exclude: the file is kept open (and read again for every
// question) for the whole run.
int OpenPathFile(FILE** slot, const char* path) {
  ReplaceStream(slot, nullptr);
  FILE* stream = fopen(path, "r");
  if (!stream) {
    LogMessageTo(stderr, "%s: fopen(%s): %s\n", ProgramName, path, strerror(errno));
    return -1;
  }
  setlinebuf(stream);
  *slot = stream;
  return CheckPathFile(stream, path);
}

// --list and --notbackedup take a descriptor the caller opened for us.
int OpenDescriptorStream(FILE** slot, const char* argument) {
  ReplaceStream(slot, nullptr);
  long descriptor = 0;
  if (!WholeLong(argument, &descriptor) || errno == ERANGE || descriptor < 0 || descriptor > INT_MAX) {
    LogMessageTo(stderr, "%s: '%s': can't parse file descriptor\n", ProgramName, argument);
    return -1;
  }
  FILE* stream = fdopen(static_cast<int>(descriptor), "w");
  if (!stream) {
    LogMessageTo(stderr, "%s: fdopen(%d): %s\n", ProgramName, static_cast<int>(descriptor),
                 strerror(errno));
    return -1;
  }
  setlinebuf(stream);
  *slot = stream;
  return 0;
}

int SetDate(const char* argument) {
  char* end = nullptr;
  errno = 0;
  long long seconds = strtoll(argument, &end, 0);
  int result = 0;
  if (end == argument || *end != '\0' || errno == ERANGE) {
    LogMessageTo(stderr, "%s: '%s': can't parse timestamp\n", ProgramName, argument);
    result = -1;
  }
  Settings.cutoff_flag = 1;
  Settings.cutoff_time = seconds;
  time_t instant = static_cast<time_t>(seconds);
  struct tm local{};
  Settings.cutoff_date_text[0] = Settings.cutoff_time_text[0] = '\0';
  if (localtime_r(&instant, &local)) {
    strftime(Settings.cutoff_date_text, 9, "%m/%d/%y", &local);
    strftime(Settings.cutoff_time_text, 9, "%H:%M:%S", &local);
  }
  return result;
}

int SetMaxBlockSize(const char* argument) {
  char* end = nullptr;
  errno = 0;
  Settings.max_block_size = strtoull(argument, &end, 0);
  // strtoull takes "-1" as the largest value there is: a size is never
  // negative, and one beyond 64 bits is no size either.
  if (end == argument || *end != '\0' || errno == ERANGE || strchr(argument, '-')) {
    LogMessageTo(stderr, "%s: '%s': can't parse block size\n", ProgramName, argument);
    return -1;
  }
  return 0;
}

int SetVerbose(const char* argument) {
  if (!argument) {
    Settings.verbosity++;
    return 0;
  }
  long value = 0;
  bool whole = WholeLong(argument, &value);
  Settings.verbosity = static_cast<int>(value);
  if (!whole) {
    LogMessageTo(stderr, "%s: verbose value must be a number\n", ProgramName);
    return -1;
  }
  return 0;
}

int SetWait(const char* argument) {
  // Only a whole number reaches the save command, written as a number:
  // "12abc" would make every SAVLIB fail on the server.
  long seconds = 0;
  if (!StrictInteger(argument, -1, 99999, &seconds)) {
    LogMessageTo(stderr, "invalid argument: --wait %s\n", argument);
    return -1;
  }
  if (seconds == -1) {
    Settings.wait_text = "*NOMAX";
  } else {
    static char text[8];
    FormatBounded(text, sizeof text, "%ld", seconds);
    Settings.wait_text = text;
  }
  return 0;
}

int SetTimeout(const char* argument) {
  long minutes = 0;
  if (!StrictInteger(argument, 1, 99999, &minutes)) {
    LogMessageTo(stderr, "invalid argument: --timeout %s\n", argument);
    return -1;
  }
  Settings.timeout_minutes = static_cast<int>(minutes);
  return 0;
}

int CopyArgument(char** slot, const char* argument, const char* what) {
  *slot = strdup(argument);
  if (!*slot) {
    LogMessageTo(stderr, "%s: can't malloc %s\n", ProgramName, what);
    return -1;
  }
  return 0;
}

// One option; returns 0, -1 for a bad option, 1 for --help.
int HandleOption(int letter, const char* argument) {
  switch (letter) {
    case 'b': return CopyArgument(&Settings.backup_path, argument, "backup output path");
    case 'c': return ReadCredentials(argument) == 0 ? 0 : -1;
    case 'C': {
      // An earlier catalog stream stays open (and empty): only the last one
      // receives the catalog.
      FILE* stream = fopen(argument, "w");
      if (!stream) {
        LogMessageTo(stderr, "%s: Failed to open catalog file %s\n", ProgramName, argument);
        return -1;
      }
      Settings.catalog = stream;
      return 0;
    }
    case 'd': return SetDate(argument);
    case 'e': return OpenPathFile(&Settings.exclude, argument);
    case 'h': return 1;
    case 'i': return OpenPathFile(&Settings.include, argument);
    case 'l': return OpenDescriptorStream(&Settings.list, argument);
    case 'm': return SetMaxBlockSize(argument);
    case 'n': return OpenDescriptorStream(&Settings.notbackedup, argument);
    case 'p': return SetYesNo(&Settings.precheck, "precheck", argument);
    case 'r': return CopyArgument(&Settings.restore_path, argument, "restore input path");
    case 's': return CopyArgument(&Settings.server, argument, "server name");
    case 't': Settings.test_count++; return 0;
    case 'v': return SetVerbose(argument);
    case 'w': return SetWait(argument);
    case 'x': return SetYesNo(&Settings.threading, "threading", argument);
    case 'z': return SetTimeout(argument);
    case '?': return -1;  // getopt_long has already said what was wrong
    default:
      LogMessageTo(stderr, "%s: getopt(): ", ProgramName);
      if (isprint(letter))
        LogMessageTo(stderr, "%c\n", letter);
      else
        LogMessageTo(stderr, "0x%02X\n", letter & 0xFF);
      return -1;
  }
}

// Collects every bad option of the command line before judging, so that an
// operator sees all mistakes at once. Returns 0, -1 or 1 (help).
int ParseOptions(int argc, char** argv) {
  const size_t short_capacity = 57;
  char* short_options = static_cast<char*>(malloc(short_capacity));
  if (!short_options) {
    VFAIL("malloc(%d): %s\n", static_cast<int>(short_capacity), strerror(errno));
    return -1;
  }
  BuildShortOptions(short_options, short_capacity);
  struct option long_options[OptionCount + 1];
  for (int i = 0; i < OptionCount; i++)
    long_options[i] = {Options[i].name, Options[i].has_arg, nullptr, Options[i].letter};
  long_options[OptionCount] = {nullptr, 0, nullptr, 0};

  int state = 0;
  int letter;
  while ((letter = getopt_long(argc, argv, short_options, long_options, nullptr)) != -1) {
    int result = HandleOption(letter, optarg);
    if (result == 1)
      state = 1;
    else if (result != 0)
      state = -1;
  }
  free(short_options);
  return state;
}

double Seconds(const struct timeval& t) {
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1000000;
}

// Runs the one mode the options ask for; -t wins over -l, which wins over
// -b, which wins over -r.
int RunMode(FtpSession* session) {
  if (Settings.test_count > 0) return 0;  // the login was the test
  if (Settings.list) return ListMode(session);
  if (Settings.backup_path) return BackupDriver(session);
  if (Settings.restore_path) return RestoreArchive(session);
  LogMessageTo(stderr, "%s: don't know what to do\n", ProgramName);
  Usage();
  return -1;
}

}  // namespace

void BuildShortOptions(char* out, size_t capacity) {
  size_t used = 0;
  for (int i = 0; i < OptionCount && used + 4 <= capacity; i++) {
    out[used++] = Options[i].letter;
    if (Options[i].has_arg != no_argument) out[used++] = ':';
    if (Options[i].has_arg == optional_argument) out[used++] = ':';
  }
  out[used] = '\0';
}

void Usage() {
  size_t width = 0;
  for (const OptionRow& row : Options) {
    size_t length = 12 + strlen(row.name);  // "  -%c, --%s :  "
    if (length > width) width = length;
  }
  LogMessageTo(stderr, "usage: %s [ options ]\n", ProgramName);
  for (const OptionRow& row : Options) {
    char line[256];
    int pad = static_cast<int>(width - 12 - strlen(row.name));
    size_t used = static_cast<size_t>(
        FormatBounded(line, sizeof line, "  -%c, --%s %*s:  ", row.letter, row.name, pad, ""));
    const char* text = row.help;
    if (!text || !*text) {
      LogMessageTo(stderr, "%s\n", line);
      continue;
    }
    while (*text) {
      size_t taken = 0;
      while (used < UsageLineLimit && text[taken]) line[used++] = text[taken++];
      if (!text[taken]) {
        line[used] = '\0';
        LogMessageTo(stderr, "%s\n", line);
        break;
      }
      // Text remains: break at the last blank copied on this line (the blank
      // itself is dropped), or cut the word at the margin and mark the cut.
      size_t cut = taken;
      while (cut > 0 && !isspace(static_cast<unsigned char>(text[cut - 1]))) cut--;
      if (cut > 0) {
        used -= taken - (cut - 1);
        line[used] = '\0';
        text += cut;
      } else {
        used -= 1;
        line[used++] = '-';
        line[used] = '\0';
        text += taken - 1;
      }
      LogMessageTo(stderr, "%s\n", line);
      used = static_cast<size_t>(FormatBounded(line, sizeof line, "%*s", static_cast<int>(width), ""));
    }
  }
}

int ReadCredentials(const char* argument) {
  const char* colon = strchr(argument, ':');
  if (!colon) {
    LogMessageTo(stderr, "%s: Missing password in credentials\n", ProgramName);
    return -1;
  }
  size_t user_size = static_cast<size_t>(colon - argument) + 1;
  char* user = static_cast<char*>(malloc(user_size));
  if (!user) {
    LogMessageTo(stderr, "%s: malloc(%d) failed\n", ProgramName, static_cast<int>(user_size));
    return -1;
  }
  memcpy(user, argument, user_size - 1);
  user[user_size - 1] = '\0';
  Settings.user = user;

  auto fail = [&]() {
    // Without a user name the run later asks for credentials as a whole.
    free(Settings.user);
    Settings.user = nullptr;
    return -1;
  };

  const char* where = colon + 1;
  const char* passphrase = nullptr;
  char buffer[4096];
  bool from_read = false;
  ssize_t got = 0;
  if (strncasecmp(where, "here:", 5) == 0) {
    passphrase = where + 5;
  } else if (strncasecmp(where, "env:", 4) == 0) {
    const char* key = where + 4;
    passphrase = getenv(key);
    if (!passphrase) {
      LogMessageTo(stderr, "%s: There is no environment variable named '%s'\n", ProgramName, key);
      return fail();
    }
  } else if (strncasecmp(where, "fd:", 3) == 0) {
    const char* key = where + 3;
    long descriptor = 0;
    if (!WholeLong(key, &descriptor)) {
      LogMessageTo(stderr, "%s: Bad file descriptor '%s'\n", ProgramName, key);
      return fail();
    }
    // The descriptor belongs to whoever started us; it stays open.
    got = read(static_cast<int>(descriptor), buffer, sizeof buffer - 1);
    if (got < 0) {
      LogMessageTo(stderr, "%s: read(%d): %s\n", ProgramName, static_cast<int>(descriptor),
                   strerror(errno));
      return fail();
    }
    from_read = true;
  } else if (strncasecmp(where, "file:", 5) == 0) {
    const char* key = where + 5;
    int descriptor = open(key, O_RDONLY);
    if (descriptor <= 0) {
      // Descriptor 0 would mean that standard input was closed: refused too.
      int error = errno;
      if (descriptor == 0) close(descriptor);
      LogMessageTo(stderr, "%s: open(%s): %s\n", ProgramName, key, strerror(error));
      return fail();
    }
    got = read(descriptor, buffer, sizeof buffer - 1);
    int error = errno;
    close(descriptor);
    if (got < 0) {
      LogMessageTo(stderr, "%s: read(%s): %s\n", ProgramName, key, strerror(error));
      return fail();
    }
    from_read = true;
  } else {
    LogMessageTo(stderr, "%s: bad where following user name\n", ProgramName);
    return fail();
  }

  if (from_read) {
    // Only the first line counts; a read is never continued.
    buffer[got] = '\0';
    char* newline = static_cast<char*>(memchr(buffer, '\n', static_cast<size_t>(got)));
    if (newline)
      *newline = '\0';
    else
      LogMessageTo(stderr, "%s: Passphrase truncated to %d bytes\n", ProgramName,
                   static_cast<int>(got));
    passphrase = buffer;
  }
  char* copy = strdup(passphrase);
  if (!copy) {
    LogMessageTo(stderr, "%s: malloc(%d) failed\n", ProgramName,
                 static_cast<int>(strlen(passphrase)));
    return fail();
  }
  Settings.passphrase = copy;
  return 0;
}

// Answers whether `path` is named by a line of the path file `stream`:
//   1  no stream, or no line matched and nothing was collected;
//   0  a line matched the path (a leading-directory match counts, so a line
//      names the object and everything below it), or, with a list, at least
//      one line naming something below the path was collected;
//  -1  the stream could not be rewound.
// During a restore, lines with wild cards are ignored.
int MatchPathFile(const char* path, StringList* list, FILE* stream) {
  if (!stream) return 1;
  if (fseek(stream, 0, SEEK_SET) != 0) {
    LogMessageTo(stderr, "%s: fseek(stream, 0, SEEK_SET): %s\n", ProgramName, strerror(errno));
    return -1;
  }
  auto slashes = [](const char* text) {
    int n = 0;
    for (; *text; text++) n += *text == '/';
    return n;
  };
  const bool restoring = Settings.restore_path != nullptr;
  const int path_slashes = slashes(path);
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
    if (slashes(line) <= path_slashes &&
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

bool ReadPathLine(FILE* stream, char* line, size_t capacity) {
  while (fgets(line, static_cast<int>(capacity), stream))
    if (TrimPathLine(line, strlen(line)) > 0) return true;
  return false;
}

int StartSignalThread() {
  sigemptyset(&SignalSet);
  sigaddset(&SignalSet, SIGTERM);
  sigaddset(&SignalSet, SIGINT);
  sigaddset(&SignalSet, SIGHUP);
  if (pthread_sigmask(SIG_BLOCK, &SignalSet, nullptr) != 0) return -1;
  if (OpenTerminationWake() != 0) return -2;
  pthread_t thread;
  if (pthread_create(&thread, nullptr, SignalThread, nullptr) != 0) return -2;
  return 0;
}

namespace {

// The status of a run that failed before its mode ran: 255, or the
// signal's when a termination request is why it failed.
int EarlyFailureStatus() { return TerminationRequested.load() ? TerminationStatus() : 255; }

}  // namespace

int VondralMain(int argc, char** argv) {
  struct timeval start{};
  gettimeofday(&start, nullptr);
  RegisterThread(-1);
  const char* slash = strrchr(argv[0], '/');
  ProgramName = slash ? slash + 1 : argv[0];

  // SIGTERM is blocked before any other thread exists, so every later thread
  // inherits the block and only the signal thread ever takes it.
  int signals = StartSignalThread();
  if (signals == -1) {
    VFAIL("Failed to mask signals\n");
    exit(143);
  }
  if (signals == -2) {
    VFAIL("Failed to launch signal thread\n");
    exit(143);
  }
  StderrIsTerminal = isatty(STDERR_FILENO);
  setlinebuf(stdout);
  setlinebuf(stderr);
  PageSize = getpagesize();

  int state = ParseOptions(argc, argv);
  if (optind < argc) {
    for (int i = optind; i < argc; i++)
      LogMessageTo(stderr, "%s: unknown argument: %s\n", ProgramName, argv[i]);
    Usage();
    return 255;
  }
  if (state != 0) {
    Usage();
    return 255;
  }
  if (!Settings.server) {
    LogMessageTo(stderr, "%s: you must provide a server name\n", ProgramName);
    Usage();
    return 255;
  }
  if (!Settings.user || !Settings.passphrase) {
    LogMessageTo(stderr, "%s: you must provide login credentials\n", ProgramName);
    Usage();
    return 255;
  }
  // A backup's archive file is made before anything is sent, so that a path
  // it cannot be written to ends the run before the server is touched.
  const bool backup_mode = Settings.test_count == 0 && !Settings.list && Settings.backup_path;
  if (backup_mode && PrepareArchiveFile(Settings.backup_path) != 0) return 255;
  // Likewise a restore reads its archive's first block before the login:
  // a file that is no CTAR archive sends nothing to the server.
  const bool restore_mode = Settings.test_count == 0 && !Settings.list && !Settings.backup_path &&
                            Settings.restore_path;
  if (restore_mode && PrepareRestore() != 0) return EarlyFailureStatus();
  FtpSession* session = NewSession(Settings.server, "ftp");
  if (!session) {
    DiscardArchiveFile();
    return EarlyFailureStatus();
  }
  if (Login(session, Settings.user, Settings.passphrase) != 0) {
    VFAIL("login failed\n");
    Quit(session);
    DiscardArchiveFile();
    return EarlyFailureStatus();
  }
  int result = RunMode(session);
  // List and test modes have no safe point of their own: a request ends
  // them after their current wait, with the signal's status.
  if (TerminationRequested.load()) result = TerminationStatus();
  Quit(session);
  struct timeval end{};
  gettimeofday(&end, nullptr);
  LogMessage("** Total Run Time: %.3f seconds\n", Seconds(end) - Seconds(start));
  return result & 0xFF;
}

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
