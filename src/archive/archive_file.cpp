// The archive file's life: the path checked and resolved through a link,
// the temporary file made exclusively beside the final name, and at the end
// either synced and renamed into place or removed.
#include "archive/archive_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "archive/writer.h"
#include "support/log.h"
#include "support/run_record.h"
#include "support/sysio.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "backup.cpp";

int ArchiveDescriptor = -1;

namespace {

struct ArchiveFileState {
  std::string final_path;  // where the archive goes once whole
  std::string temp_path;   // where it is written meanwhile; empty when none
};
ArchiveFileState ArchiveFile;

// What a path is when it is not a regular file, for the refusal.
const char* FileKind(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a pipe";
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISBLK(mode)) return "a block device";
  if (S_ISSOCK(mode)) return "a socket";
  return "not a regular file";
}

// The directory a path lies in ("." for a bare name).
std::string DirectoryOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// A link to an archive: the file it names is made or replaced, the link
// stays. Sets *final_path to that file and st to what it is (a regular file
// when it is still to be made). false after a message for a link that
// leads nowhere.
bool FollowArchiveLink(const char* path, std::string* final_path, struct stat* st) {
  char* target = realpath(path, nullptr);
  const int error = errno;
  if (target) {
    *final_path = target;
    free(target);
    if (stat(final_path->c_str(), st) != 0) st->st_mode = S_IFREG;
    return true;
  }
  std::vector<char> link(PATH_MAX + 1);
  ssize_t length = readlink(path, link.data(), PATH_MAX);
  if (length <= 0 || error != ENOENT) {
    LogMessageTo(stderr, "%s: --backup %s: a symbolic link that leads nowhere\n", ProgramName, path);
    return false;
  }
  std::string named(link.data(), static_cast<size_t>(length));
  *final_path = named[0] == '/' ? named : DirectoryOf(path) + "/" + named;
  st->st_mode = S_IFREG;  // a new file, made through the link's own path
  return true;
}

// Where the archive goes: path itself, or the file a link there names.
// false after a message when that is something other than a regular file
// or a new name.
bool ResolveArchivePath(const char* path, std::string* final_path) {
  *final_path = path;
  struct stat st{};
  if (lstat(path, &st) != 0) {
    if (errno == ENOENT) return true;
    LogMessageTo(stderr, "%s: --backup %s: %s\n", ProgramName, path, strerror(errno));
    return false;
  }
  if (S_ISLNK(st.st_mode) && !FollowArchiveLink(path, final_path, &st)) return false;
  if (!S_ISREG(st.st_mode)) {
    LogMessageTo(stderr, "%s: --backup %s: is %s; an archive must be a regular file or a new path\n",
                 ProgramName, path, FileKind(st.st_mode));
    return false;
  }
  return true;
}

// Created exclusively, so that no other file is ever written through a
// name someone else made; a second run beside this one gets its own. The
// descriptor, or -1 after a message; *temp names the file.
int CreateTemporaryFile(const std::string& final_path, std::string* temp) {
  *temp = final_path + ".partial";
  int descriptor = OpenFile(temp->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (descriptor < 0 && errno == EEXIST) {
    std::string pattern = final_path + ".partial.XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    descriptor = mkostemp(name.data(), O_CLOEXEC);
    *temp = name.data();
  }
  if (descriptor < 0) VFAIL("open(%s): %s\n", temp->c_str(), strerror(errno));
  return descriptor;
}

// The new name must reach the disk too, or a crash could bring the old
// archive back. The archive is whole and in place by now, though: a
// directory that cannot be synced (some file systems refuse) is reported,
// but fails nothing.
void SyncDirectoryOf(const std::string& path) {
  std::string directory = DirectoryOf(path);
  UniqueFd dir(OpenFile(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.Get() < 0 || SyncAll(dir.Get()) != 0) VFAIL("fsync(%s): %s\n", directory.c_str(), strerror(errno));
}

}  // namespace

int PrepareArchiveFile(const char* path) {
  DiscardArchiveFile();
  std::string final_path;
  if (!ResolveArchivePath(path, &final_path)) return -1;
  std::string temp;
  int descriptor = CreateTemporaryFile(final_path, &temp);
  if (descriptor < 0) return -1;
  ArchiveFile.final_path = final_path;
  ArchiveFile.temp_path = temp;
  ArchiveDescriptor = descriptor;
  ArchiveBroken = false;
  ArchiveEntries = 0;
  return 0;
}

int CommitArchiveFile() {
  if (ArchiveFile.temp_path.empty()) return 0;
  const char* temp = ArchiveFile.temp_path.c_str();
  const char* target = ArchiveFile.final_path.c_str();
  if (SyncData(ArchiveDescriptor) != 0) {
    VFAIL("fdatasync(%s): %s\n", temp, strerror(errno));
    DiscardArchiveFile();
    return -1;
  }
  if (rename(temp, target) != 0) {
    VFAIL("rename(%s, %s): %s\n", temp, target, strerror(errno));
    DiscardArchiveFile();
    return -1;
  }
  ArchiveFile.temp_path.clear();
  CloseDescriptor(&ArchiveDescriptor);
  SyncDirectoryOf(ArchiveFile.final_path);
  RecordArchiveKept(ArchiveFile.final_path);
  return 0;
}

void DiscardArchiveFile() {
  if (ArchiveFile.temp_path.empty()) return;
  CloseDescriptor(&ArchiveDescriptor);
  unlink(ArchiveFile.temp_path.c_str());
  ArchiveFile.temp_path.clear();
}
