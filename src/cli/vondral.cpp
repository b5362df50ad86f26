// Entry of the program: start-up, the checks of the command line as a
// whole, the work done before the login, and the choice of the run mode.
#include "cli/vondral.h"

#include <getopt.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "archive/archive_file.h"
#include "backup/driver.h"
#include "cli/credentials.h"
#include "cli/list_mode.h"
#include "cli/options.h"
#include "cli/settings.h"
#include "cli/signals.h"
#include "cli/summary.h"
#include "cli/version.h"
#include "ftp/session.h"
#include "restore/restore.h"
#include "support/log.h"
#include "support/run_record.h"
#include "support/termination.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "vondral.cpp";

namespace {

double Seconds(const struct timeval& t) {
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1000000;
}

// What comes before the options: the name every message starts with, the
// signal thread and the output settings. Ends the process with 143 when
// the signals cannot be taken over.
void StartProcess(const char* argv0) {
  RegisterThread(-1);
  const char* slash = strrchr(argv0, '/');
  ProgramName = slash ? slash + 1 : argv0;
  // Before the passphrase is read: from then on the memory holds it.
  if (KeepMemoryPrivate() != 0) VFAIL("prctl(PR_SET_DUMPABLE): %s\n", strerror(errno));

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
}

// Reads the options and checks that the command line as a whole can run:
// no stray arguments, a server and credentials. 0, 1 when --version was
// answered (nothing more to do), or -1 after saying what is wrong and
// showing the usage text.
int ReadCommandLine(int argc, char** argv) {
  int state = ParseOptions(argc, argv);
  if (optind < argc) {
    for (int i = optind; i < argc; i++)
      LogMessageTo(stderr, "%s: unknown argument: %s\n", ProgramName, argv[i]);
    Usage();
    return -1;
  }
  // Like --help, --version needs no server and no credentials.
  if (state == 2) {
    PrintVersion();
    return 1;
  }
  if (state != 0) {
    Usage();
    return -1;
  }
  if (!Settings.server) {
    LogMessageTo(stderr, "%s: you must provide a server name\n", ProgramName);
    Usage();
    return -1;
  }
  if (!Settings.user || !Settings.passphrase) {
    LogMessageTo(stderr, "%s: you must provide login credentials\n", ProgramName);
    Usage();
    return -1;
  }
  return 0;
}

// The status of a run that failed before its mode ran: 255, or the
// signal's when a termination request is why it failed.
int EarlyFailureStatus() { return TerminationRequested.load() ? TerminationStatus() : 255; }

// The archive work done before anything is sent. 0, or the exit status.
int PrepareArchiveBeforeLogin() {
  // A backup's archive file is made first, so that a path it cannot be
  // written to ends the run before the server is touched.
  const bool backup_mode = Settings.test_count == 0 && !Settings.list && Settings.backup_path;
  if (backup_mode && PrepareArchiveFile(Settings.backup_path) != 0) return 255;
  // Likewise a restore reads its archive's first block before the login:
  // a file that is no CTAR archive sends nothing to the server.
  const bool restore_mode = Settings.test_count == 0 && !Settings.list && !Settings.backup_path &&
                            Settings.restore_path;
  if (restore_mode && PrepareRestore() != 0) return EarlyFailureStatus();
  return 0;
}

// Connects and logs in; nullptr (the archive file given up) when either
// failed.
FtpSession* LogIn() {
  FtpSession* session = NewSession(Settings.server, ControlService());
  if (!session) {
    DiscardArchiveFile();
    return nullptr;
  }
  if (Login(session, Settings.user, Settings.passphrase) != 0) {
    VFAIL("login failed\n");
    Quit(session);
    DiscardArchiveFile();
    return nullptr;
  }
  return session;
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

// The run once its command line was accepted: the work before the login,
// the login and the mode. Its exit status.
int RunAcceptedCommandLine(const struct timeval& start) {
  int early_status = PrepareArchiveBeforeLogin();
  if (early_status != 0) return early_status;
  FtpSession* session = LogIn();
  if (!session) return EarlyFailureStatus();
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

int RunProgram(int argc, char** argv) {
  struct timeval start{};
  gettimeofday(&start, nullptr);
  StartProcess(argv[0]);
  const int command_line = ReadCommandLine(argc, argv);
  if (command_line == 1) return 0;
  if (command_line != 0) return 255;
  StartRunSummary(start.tv_sec);
  // Every way the run ends from here goes through EndRun, which writes the
  // summary; a terminated run's exit does so from inside its mode.
  return EndRun(RunAcceptedCommandLine(start));
}

}  // namespace

int VondralMain(int argc, char** argv) {
  const int status = RunProgram(argc, argv);
  // Whichever way the run ended, the passphrase does not outlive it.
  ForgetPassphrase();
  return status;
}
