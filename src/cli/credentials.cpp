// The --credentials argument: the user name before the first colon, then
// where the passphrase is found ("here", "env", "fd" or "file", in any
// case) and the key that finds it there.
#include "cli/credentials.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/prctl.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cli/argument_numbers.h"
#include "cli/settings.h"
#include "support/log.h"
#include "support/sysio.h"
#include "support/text.h"

// The module this file reports as in failure messages.
[[maybe_unused]] static constexpr const char* kModule = "vondral.cpp";

namespace {

// A passphrase read from a descriptor or a file comes from one read into a
// buffer of this size, less the terminating zero.
constexpr size_t PassphraseBufferSize = 4096;

// Stores the text before the colon as Settings.user. 0 or -1.
int KeepUserName(const char* argument, const char* colon) {
  size_t user_size = static_cast<size_t>(colon - argument) + 1;
  char* user = static_cast<char*>(malloc(user_size));
  if (!user) {
    LogMessageTo(stderr, "%s: malloc(%d) failed\n", ProgramName, static_cast<int>(user_size));
    return -1;
  }
  memcpy(user, argument, user_size - 1);
  user[user_size - 1] = '\0';
  Settings.user = user;
  return 0;
}

// Without a user name the run later asks for credentials as a whole.
int ForgetUserName() {
  free(Settings.user);
  Settings.user = nullptr;
  return -1;
}

// Only the first line of what one read gave counts; a read is never
// continued. Text without a line end is taken whole, with a warning that it
// may have been cut.
const char* FirstLineRead(char* buffer, ssize_t got) {
  buffer[got] = '\0';
  char* newline = static_cast<char*>(memchr(buffer, '\n', static_cast<size_t>(got)));
  if (newline)
    *newline = '\0';
  else
    LogMessageTo(stderr, "%s: Passphrase truncated to %d bytes\n", ProgramName, static_cast<int>(got));
  return buffer;
}

// Each way to the passphrase gives it, or nullptr after saying why not.
// buffer holds PassphraseBufferSize bytes for the ways that read.

const char* PassphraseGivenHere(const char* key, char*) { return key; }

const char* PassphraseFromEnvironment(const char* key, char*) {
  const char* passphrase = getenv(key);
  if (!passphrase)
    LogMessageTo(stderr, "%s: There is no environment variable named '%s'\n", ProgramName, key);
  return passphrase;
}

const char* PassphraseFromDescriptor(const char* key, char* buffer) {
  long descriptor = 0;
  if (!WholeLong(key, &descriptor)) {
    LogMessageTo(stderr, "%s: Bad file descriptor '%s'\n", ProgramName, key);
    return nullptr;
  }
  // The descriptor belongs to whoever started us; it stays open.
  ssize_t got = ReadSome(static_cast<int>(descriptor), buffer, PassphraseBufferSize - 1);
  if (got < 0) {
    LogMessageTo(stderr, "%s: read(%d): %s\n", ProgramName, static_cast<int>(descriptor),
                 strerror(errno));
    return nullptr;
  }
  return FirstLineRead(buffer, got);
}

const char* PassphraseFromFile(const char* key, char* buffer) {
  UniqueFd file(OpenFile(key, O_RDONLY));
  if (file.Get() <= 0) {
    // Descriptor 0 would mean that standard input was closed: refused too
    // (and closed again).
    int error = errno;
    LogMessageTo(stderr, "%s: open(%s): %s\n", ProgramName, key, strerror(error));
    return nullptr;
  }
  ssize_t got = ReadSome(file.Get(), buffer, PassphraseBufferSize - 1);
  int error = errno;
  file.Reset();
  if (got < 0) {
    LogMessageTo(stderr, "%s: read(%s): %s\n", ProgramName, key, strerror(error));
    return nullptr;
  }
  return FirstLineRead(buffer, got);
}

struct PassphraseSource {
  const char* where;  // with its colon, compared in any case
  const char* (*find)(const char* key, char* buffer);
};

constexpr const char* HereKeyword = "here:";

const PassphraseSource PassphraseSources[] = {
    {HereKeyword, PassphraseGivenHere},
    {"env:", PassphraseFromEnvironment},
    {"fd:", PassphraseFromDescriptor},
    {"file:", PassphraseFromFile},
};

// The passphrase that "where:key" leads to, or nullptr after saying why not.
const char* FindPassphrase(const char* where, char* buffer) {
  for (const PassphraseSource& source : PassphraseSources) {
    size_t length = strlen(source.where);
    if (strncasecmp(where, source.where, length) == 0) return source.find(where + length, buffer);
  }
  LogMessageTo(stderr, "%s: bad where following user name\n", ProgramName);
  return nullptr;
}

// Stores a copy of the passphrase as Settings.passphrase. 0 or -1.
int KeepPassphrase(const char* passphrase) {
  char* copy = strdup(passphrase);
  if (!copy) {
    LogMessageTo(stderr, "%s: malloc(%d) failed\n", ProgramName, static_cast<int>(strlen(passphrase)));
    return -1;
  }
  // A second --credentials replaces the first.
  WipeAndFree(&Settings.passphrase);
  Settings.passphrase = copy;
  return 0;
}

}  // namespace

int ReadCredentials(const char* argument) {
  const char* colon = strchr(argument, ':');
  if (!colon) {
    LogMessageTo(stderr, "%s: Missing password in credentials\n", ProgramName);
    return -1;
  }
  if (KeepUserName(argument, colon) != 0) return -1;
  char buffer[PassphraseBufferSize];
  const char* passphrase = FindPassphrase(colon + 1, buffer);
  const bool kept = passphrase && KeepPassphrase(passphrase) == 0;
  // What a descriptor or file gave stays only in the copy kept.
  WipeBytes(buffer, sizeof buffer);
  return kept ? 0 : ForgetUserName();
}

void HidePassphraseArgument(char* argument) {
  char* colon = strchr(argument, ':');
  if (!colon || strncasecmp(colon + 1, HereKeyword, strlen(HereKeyword)) != 0) return;
  WipeText(colon + 1 + strlen(HereKeyword));
}

void ForgetPassphrase() { WipeAndFree(&Settings.passphrase); }

int KeepMemoryPrivate() { return prctl(PR_SET_DUMPABLE, 0, 0, 0, 0); }
