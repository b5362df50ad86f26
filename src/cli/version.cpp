// The program's version and the --version line.
#include "cli/version.h"

#include <openssl/crypto.h>

#include "support/log.h"

const char* const ProgramVersion = VONDRAL_VERSION;

void PrintVersion() {
  LogMessage("%s %s (%s)\n", ProgramName, ProgramVersion, OpenSSL_version(OPENSSL_VERSION));
}
