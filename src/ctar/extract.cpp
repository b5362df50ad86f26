// ctar extract: writes the save file of each named entry (all by default)
// into a directory, under its name made safe as a file name.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "ctar/archive_input.h"
#include "ctar/commands.h"
#include "ctar/entry_print.h"
#include "ctar/messages.h"
#include "ctar/status.h"
#include "ctar/walk.h"

namespace ctar {

namespace {

// The file an entry's save file is written to: the name without its leading
// slashes, each '/' and control character turned into '_', and a leading
// '.' or '-' too, so that no name leaves the directory, hides itself or
// reads as an option; then ".savf". Names that come out alike get "~2",
// "~3", ... before the suffix.
std::string SafeFileName(const char* name, std::set<std::string>* used) {
  std::string base;
  const char* p = name;
  while (*p == '/') p++;
  for (; *p; p++) {
    auto c = static_cast<unsigned char>(*p);
    base += (c == '/' || c < 0x20 || c == 0x7F) ? '_' : static_cast<char>(c);
  }
  if (base.empty()) base = "_";
  if (base[0] == '.' || base[0] == '-') base[0] = '_';
  // A file name holds at most 255 bytes; keep room for "~nnnnnn.savf" and
  // do not leave half a UTF-8 character at the cut.
  constexpr size_t Room = 255 - 12;
  if (base.size() > Room) {
    base.resize(Room);
    while (!base.empty() && (static_cast<unsigned char>(base.back()) & 0xC0) == 0x80)
      base.pop_back();
    if (!base.empty() && static_cast<unsigned char>(base.back()) >= 0xC0) base.pop_back();
  }
  std::string file = base + CtarDirectorySuffix;
  for (int n = 2; used->count(file); n++)
    file = base + "~" + std::to_string(n) + CtarDirectorySuffix;
  used->insert(file);
  return file;
}

// Writes the save file of one wanted entry into directory and names it on
// standard output; a file that did not come out whole is removed. A status.
int ExtractEntry(Archive& archive, const EntryView& view, int directory, std::set<std::string>* used) {
  const std::string file = SafeFileName(view.name, used);
  UniqueFd out(OpenFileAt(directory, file.c_str(),
                          O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (out.Get() < 0) {
    Complain("%s: cannot create: %s", file.c_str(), strerror(errno));
    return StatusWriteFailed;
  }
  int result = TakeData(archive, view, out.Get());
  if (result == StatusWhole && view.has_mtime) {
    // The save file keeps the object's time, as tar keeps a member's.
    struct timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(view.mtime), 0}};
    futimens(out.Get(), times);
  }
  if (!out.Close() && result == StatusWhole) {
    Complain("%s: write failed: %s", file.c_str(), strerror(errno));
    result = StatusWriteFailed;
  }
  if (result != StatusWhole) {
    // Half a save file must not be mistaken for one by whoever moves it.
    unlinkat(directory, file.c_str(), 0);
    return result;
  }
  PrintName(stdout, view.name);
  fputs(" -> ", stdout);
  PrintName(stdout, file.c_str());
  fputc('\n', stdout);
  return StatusWhole;
}

}  // namespace

int ExtractCommand(const Options& options) {
  Archive archive;
  int status = OpenArchive(options.operands[0], "extract", &archive);
  if (status != StatusWhole) return status;
  UniqueFd directory_fd;
  int directory = AT_FDCWD;
  if (options.directory) {
    directory_fd.Reset(OpenFile(options.directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory_fd.Get() < 0) {
      Complain("%s: cannot open the directory: %s", options.directory, strerror(errno));
      return StatusWriteFailed;
    }
    directory = directory_fd.Get();
  }
  std::vector<const char*> wanted(options.operands.begin() + 1, options.operands.end());
  std::vector<bool> seen(wanted.size(), false);
  std::set<std::string> used;

  status = WalkArchive(archive, "extract", [&](const EntryView& view) {
    bool take = wanted.empty();
    for (size_t i = 0; i < wanted.size(); i++)
      if (strcmp(wanted[i], view.name) == 0) take = seen[i] = true;
    if (!take) return TakeData(archive, view, -1);
    return ExtractEntry(archive, view, directory, &used);
  });
  for (size_t i = 0; i < wanted.size(); i++)
    if (!seen[i]) {
      Complain("%s: not in the archive %s", wanted[i], archive.shown);
      status = Worse(status, StatusNotFound);
    }
  return FlushStandardOutput(status);
}

}  // namespace ctar
