// The command line's options: one table gives the long and short names and
// the help of each, from which the short-option string, getopt's long
// options and the usage text are all made; each option's argument is then
// read into the run-wide settings.
#include "cli/options.h"

#include <getopt.h>
#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cli/argument_numbers.h"
#include "cli/credentials.h"
#include "cli/path_files.h"
#include "cli/settings.h"
#include "support/log.h"
#include "support/text.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "vondral.cpp";

namespace {

struct OptionRow {
  const char* name;
  int has_arg;  // no_argument, required_argument, optional_argument
  int letter;   // beyond LastShortOption: a long option only
  const char* help;
};

// Options added after the first set have no short letter; their values lie
// beyond every character.
constexpr int LastShortOption = 0x7F;
constexpr int TlsOption = 0x100;
constexpr int TlsImplicitOption = 0x101;
constexpr int CacertOption = 0x102;
constexpr int VersionOption = 0x103;
constexpr int SummaryOption = 0x104;
constexpr int SessionsOption = 0x105;

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
    {"tls", no_argument, TlsOption,
     "Encrypt the connections with explicit TLS (AUTH TLS on the FTP port); the "
     "server's certificate must be trusted and name the server."},
    {"tls-implicit", no_argument, TlsImplicitOption,
     "Encrypt the connections with implicit TLS, from the first byte, on the ftps "
     "port (990)."},
    {"cacert", required_argument, CacertOption,
     "Follow with a PEM file of the CA certificates to trust for TLS instead of "
     "the system's."},
    {"version", no_argument, VersionOption,
     "Print the program's name, version and TLS library, and exit."},
    {"summary", required_argument, SummaryOption,
     "Follow with a path to which to write a JSON summary of the backup or "
     "restore run when it ends, whatever its status."},
    {"sessions", required_argument, SessionsOption,
     "Follow with a number of sessions (1-16, default 1) that save the objects of "
     "one kind side by side; the archive then holds them in the order they were "
     "saved."},
};
constexpr int OptionCount = sizeof(Options) / sizeof(Options[0]);

// Lines of the usage text hold at most this many characters before wrapping.
constexpr size_t UsageLineLimit = 70;

// ---- each option's argument into the settings ------------------------------

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

void ReplaceStream(FILE** slot, FILE* stream) {
  if (*slot) fclose(*slot);
  *slot = stream;
}

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

// --Catalog: an earlier catalog stream stays open (and empty): only the
// last one receives the catalog.
int OpenCatalog(const char* path) {
  FILE* stream = fopen(path, "w");
  if (!stream) {
    LogMessageTo(stderr, "%s: Failed to open catalog file %s\n", ProgramName, path);
    return -1;
  }
  Settings.catalog = stream;
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

// A whole number from low to high for --name, or the option's error.
bool BoundedNumber(const char* name, const char* argument, long low, long high, long* value) {
  if (StrictInteger(argument, low, high, value)) return true;
  LogMessageTo(stderr, "invalid argument: --%s %s\n", name, argument);
  return false;
}

int SetWait(const char* argument) {
  // Only a whole number reaches the save command, written as a number:
  // "12abc" would make every SAVLIB fail on the server.
  long seconds = 0;
  if (!BoundedNumber("wait", argument, -1, 99999, &seconds)) return -1;
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
  if (!BoundedNumber("timeout", argument, 1, 99999, &minutes)) return -1;
  Settings.timeout_minutes = static_cast<int>(minutes);
  return 0;
}

// --sessions: more sessions for one kind of object cut the round trips an
// object waits for on a slow link; each is one more job on the server.
int SetSessions(const char* argument) {
  long sessions = 0;
  if (!BoundedNumber("sessions", argument, 1, 16, &sessions)) return -1;
  Settings.sessions = static_cast<int>(sessions);
  return 0;
}

// --tls and --tls-implicit: one way of encrypting, asked for once.
int SetTls(TlsMode mode, const char* option) {
  if (Settings.tls_mode != TlsOff && Settings.tls_mode != mode) {
    LogMessageTo(stderr, "%s: --%s: only one of --tls and --tls-implicit may be given\n", ProgramName, option);
    return -1;
  }
  Settings.tls_mode = mode;
  return 0;
}

// --cacert: the file must be there to read now, not fail the first
// connection after the run has started.
int SetCacert(const char* path) {
  if (access(path, R_OK) != 0) {
    LogMessageTo(stderr, "%s: --cacert %s: %s\n", ProgramName, path, strerror(errno));
    return -1;
  }
  Settings.cacert = path;
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

// One option; returns 0, -1 for a bad option, 1 for --help, 2 for
// --version.
int HandleOption(int letter, char* argument) {
  switch (letter) {
    case 'b': return CopyArgument(&Settings.backup_path, argument, "backup output path");
    case 'c': {
      const int read = ReadCredentials(argument) == 0 ? 0 : -1;
      HidePassphraseArgument(argument);
      return read;
    }
    case 'C': return OpenCatalog(argument);
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
    case TlsOption: return SetTls(TlsExplicit, "tls");
    case TlsImplicitOption: return SetTls(TlsImplicit, "tls-implicit");
    case CacertOption: return SetCacert(argument);
    case VersionOption: return 2;
    case SummaryOption: return CopyArgument(&Settings.summary_path, argument, "summary path");
    case SessionsOption: return SetSessions(argument);
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

// ---- the usage text ----------------------------------------------------------

// Writes one option's help after its head (already in line, used
// characters long), wrapped at UsageLineLimit with every further line
// indented by width.
void WriteWrappedHelp(char* line, size_t capacity, size_t used, const char* text, size_t width) {
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
    used = static_cast<size_t>(FormatBounded(line, capacity, "%*s", static_cast<int>(width), ""));
  }
}

}  // namespace

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
  bool version = false;
  int letter;
  while ((letter = getopt_long(argc, argv, short_options, long_options, nullptr)) != -1) {
    int result = HandleOption(letter, optarg);
    if (result == 2)
      version = true;
    else if (result == 1)
      state = 1;
    else if (result != 0)
      state = -1;
  }
  free(short_options);
  // Trusting a CA means nothing without TLS: the operator meant to encrypt.
  if (state == 0 && Settings.cacert && Settings.tls_mode == TlsOff) {
    LogMessageTo(stderr, "%s: --cacert needs --tls or --tls-implicit\n", ProgramName);
    state = -1;
  }
  // --version wins over every mode and --help, but not over a bad option.
  if (version && state != -1) state = 2;
  return state;
}

void BuildShortOptions(char* out, size_t capacity) {
  size_t used = 0;
  for (int i = 0; i < OptionCount && used + 4 <= capacity; i++) {
    if (Options[i].letter > LastShortOption) continue;
    out[used++] = static_cast<char>(Options[i].letter);
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
        row.letter > LastShortOption
            ? FormatBounded(line, sizeof line, "      --%s %*s:  ", row.name, pad, "")
            : FormatBounded(line, sizeof line, "  -%c, --%s %*s:  ", row.letter, row.name, pad, ""));
    if (!row.help || !*row.help) {
      LogMessageTo(stderr, "%s\n", line);
      continue;
    }
    WriteWrappedHelp(line, sizeof line, used, row.help, width);
  }
}
