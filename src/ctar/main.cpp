// ctar: the operator's tool for CTAR archives. It lists what a backup holds,
// verifies that an archive is whole before a restore needs it, writes single
// save files out so they can be moved by hand, and salvages the entries that
// a broken retrieval hid behind a premature sentinel.
//
// Every header is judged by the format code that backup and restore share
// (archive/ctar_format.h) and every entry's kind comes from the restore
// dispatch (restore/restore.h): the tool cannot disagree with what a
// restore would do. This file holds the entry: the usage text, the table of
// commands and the options; each command lives in a file of its own.
#include <getopt.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "ctar/commands.h"
#include "ctar/messages.h"
#include "ctar/progress.h"
#include "ctar/status.h"
#include "support/log.h"

namespace ctar {

namespace {

const char UsageText[] =
    "Usage: ctar COMMAND [OPTION...] ARCHIVE [ARGUMENT...]\n"
    "Lists, verifies, extracts and salvages CTAR archives written by vondral.\n"
    "\n"
    "Commands:\n"
    "  list ARCHIVE                one line per entry: kind, size, modification time,\n"
    "                              the name a restore uses (-v: the header offset first)\n"
    "  verify ARCHIVE              reads everything and checks every header, size,\n"
    "                              the data and the single sentinel at the end; names\n"
    "                              the entries a broken retrieval hid from a restore\n"
    "  extract ARCHIVE [NAME...]   writes the save file of each named entry (all by\n"
    "                              default) as NAME made safe as a file name + .savf\n"
    "  salvage ARCHIVE OUT         writes a whole archive of every entry that can be\n"
    "                              recovered, hidden ones included, and reports the rest\n"
    "\n"
    "ARCHIVE may be \"-\" for standard input; salvage needs a file it can seek in,\n"
    "and verify names hidden entries only in a file. OUT may be \"-\" for standard\n"
    "output (not a terminal). A compressed ARCHIVE (gzip, bzip2, xz, zstd) is\n"
    "recognised; decompress it first.\n"
    "\n"
    "Options:\n"
    "  -v, --verbose          list: show header offsets; verify, salvage: every entry\n"
    "      --json             list: one JSON document for scripts\n"
    "  -C, --directory DIR    extract: write the files into DIR (default: here)\n"
    "      --progress         always show progress on standard error\n"
    "      --no-progress      never show it (default: when standard error is a\n"
    "                         terminal and the archive is over 4 GiB)\n"
    "  -h, --help             this text\n"
    "\n"
    "Exit status:\n"
    "  0   success; verify: the archive is whole\n"
    "  1   damaged: truncated, a bad header, data behind the sentinel, no sentinel;\n"
    "      salvage: the new archive is written but damaged entries were lost\n"
    "  2   not a CTAR archive: empty, a directory, compressed, or no CTAR header at\n"
    "      its start\n"
    "  3   unreadable: the archive cannot be opened or read\n"
    "  4   an output file or standard output cannot be written\n"
    "  5   extract: a named entry is not in the archive\n"
    "  64  the command line is wrong\n";

int Usage(FILE* stream, int status) {
  fputs(UsageText, stream);
  return status;
}

// What a command takes: how many operands, and which of the options.
struct CommandRow {
  const char* name;
  int (*run)(const Options&);
  size_t least;
  size_t most;  // SIZE_MAX: any number
  bool json;
  bool directory;
};

const CommandRow Commands[] = {
    {"list", ListCommand, 1, 1, true, false},
    {"verify", VerifyCommand, 1, 1, false, false},
    {"extract", ExtractCommand, 1, SIZE_MAX, false, true},
    {"salvage", SalvageCommand, 2, 2, false, false},
};

enum LongOnly { OptionJson = 256, OptionProgress, OptionNoProgress };

const CommandRow* FindCommand(const char* name) {
  const CommandRow* command = nullptr;
  for (const CommandRow& row : Commands)
    if (strcmp(name, row.name) == 0) command = &row;
  return command;
}

// Complains of an option getopt did not know, or of -C without its
// directory.
void ComplainOfOption(char** arguments) {
  if (optopt == 'C')
    Complain("-C needs a directory");
  else if (optopt)
    Complain("unknown option -%c", optopt);
  else
    Complain("unknown option %s", arguments[optind - 1]);
}

enum class Parsed { Ready, Bad, Help };

// Reads the options (and the operands among them) of the command into
// *options, complaining of every one that is wrong. -h stops the reading
// at once: the usage text is all that follows.
Parsed ParseOptions(const CommandRow& command, int count, char** arguments, Options* options) {
  static const struct option longs[] = {
      {"verbose", no_argument, nullptr, 'v'},
      {"json", no_argument, nullptr, OptionJson},
      {"directory", required_argument, nullptr, 'C'},
      {"progress", no_argument, nullptr, OptionProgress},
      {"no-progress", no_argument, nullptr, OptionNoProgress},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  bool bad = false;
  opterr = 0;
  optind = 1;
  // GNU getopt moves the operands behind the options, so they may be mixed
  // ("ctar extract a.ctar /QDLS -C out"); "--" ends the options.
  for (int c; (c = getopt_long(count, arguments, "vC:h", longs, nullptr)) != -1;) {
    switch (c) {
      case 'v': options->verbose = true; break;
      case OptionJson:
        if (!command.json) Complain("--json applies to list only"), bad = true;
        options->json = true;
        break;
      case 'C':
        if (!command.directory) Complain("-C applies to extract only"), bad = true;
        options->directory = optarg;
        break;
      case OptionProgress: ProgressSetting = ProgressMode::Always; break;
      case OptionNoProgress: ProgressSetting = ProgressMode::Never; break;
      case 'h': return Parsed::Help;
      default:
        ComplainOfOption(arguments);
        bad = true;
        break;
    }
  }
  for (int i = optind; i < count; i++) options->operands.push_back(arguments[i]);
  return bad ? Parsed::Bad : Parsed::Ready;
}

// Whether the command was given as many operands as it takes; a complaint
// when not.
bool OperandsFit(const CommandRow& command, const Options& options) {
  if (options.operands.size() >= command.least && options.operands.size() <= command.most) return true;
  Complain("%s takes %s", command.name,
           command.least == command.most
               ? (command.least == 1 ? "one archive" : "an archive and an output file")
               : "an archive and optionally entry names");
  return false;
}

int CtarMain(int argc, char** argv) {
  if (argc < 2) {
    Complain("no command given");
    return Usage(stderr, StatusUsage);
  }
  if (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0 ||
      strcmp(argv[1], "help") == 0)
    return Usage(stdout, StatusWhole);
  const CommandRow* command = FindCommand(argv[1]);
  if (!command) {
    Complain("unknown command '%s'", argv[1]);
    return Usage(stderr, StatusUsage);
  }
  Options options;
  // The command takes getopt's argv[0] place; options may come anywhere.
  const Parsed parsed = ParseOptions(*command, argc - 1, argv + 1, &options);
  if (parsed == Parsed::Help) return Usage(stdout, StatusWhole);
  const bool fits = OperandsFit(*command, options);
  if (parsed == Parsed::Bad || !fits) return Usage(stderr, StatusUsage);
  return command->run(options);
}

}  // namespace

}  // namespace ctar

int main(int argc, char** argv) {
  ProgramName = "ctar";
  return ctar::CtarMain(argc, argv);
}
