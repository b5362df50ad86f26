// Building the include list: the two special objects, then each line of
// the include file resolved by listing the directory it lies in, then every
// directory found walked down to its last object.
#include "backup/include_list.h"

#include <sys/stat.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "backup/listing_walk.h"
#include "support/log.h"
#include "support/run_record.h"
#include "support/termination.h"
#include "support/text.h"
#include "cli/settings.h"
#include "cli/path_files.h"

// The module this file reports as in failure messages.
static constexpr const char* kModule = "backup.cpp";

uint64_t IncludesMissed = 0;

namespace {

bool IsSpecialObject(const char* path) {
  return strcmp(path, "/Security Data") == 0 || strcmp(path, "/System Configuration") == 0;
}

// The two special objects are always saved unless excluded by name.
void AddSpecialObjects(ObjectNode* root, const struct tm& now) {
  for (const char* special : {"/Security Data", "/System Configuration"})
    if (MatchPathFile(special, nullptr, Settings.exclude) != 0)
      AppendFile(root, special, S_IFREG | 0600, 0, now);
}

// An include path that brings nothing to save is listed as not backed up
// and counts as one failed object; reason is the line that said why.
void MissInclude(const char* include, const std::string& reason) {
  if (Settings.notbackedup) LogMessageTo(Settings.notbackedup, "%s\n", include);
  RecordFailedObject(include, &reason);
  IncludesMissed++;
}

// The failure line just printed, for MissInclude.
std::string LastLine() {
  std::string line;
  LastFailureLine(&line);
  return line;
}

// Lists the directory an include path lies in, with the root named for the
// include path so that only what it names is placed. 0, or -1 when the
// listing failed (the whole list fails with it).
int ListIncludeDirectory(FtpSession* session, ObjectNode* root, const char* directory,
                         const char* include, ListingContext* context) {
  context->found = 0;
  context->unchanged = 0;
  // A line that could not be read may be the very object the include path
  // names: it counts like any other parse error.
  if (ListInto(session, directory, root, context) < 0) {
    VFAIL("list failed\n");
    return -1;
  }
  if (!context->found && !context->unchanged) {
    LogMessage("Object not found: %s\n", include);
    MissInclude(include, std::string("Object not found: ") + include);
  }
  return 0;
}

// Resolves one include line (in line, which is the listing's path buffer):
// the root takes the include path as its name, the line is cut to the
// directory part, and that directory is listed. 0, or -1 when the listing
// failed.
int ResolveIncludeLine(FtpSession* session, ObjectNode* root, char* line, ListingContext* context) {
  line[PathBufferSize - 1] = '\0';
  size_t length = strlen(line);
  while (length > 1 && line[length - 1] == '\n') line[--length] = '\0';
  RenameNode(root, line);
  const char* include = root->name;
  if (IsSpecialObject(include)) return 0;  // already decided
  if (!strchr(include, '/')) {
    VFAIL("Invalid object: %s\n", include);
    MissInclude(include, LastLine());
    return 0;
  }
  char* last = strrchr(line, '/');
  if (last == line)
    line[1] = '\0';  // "/x": the directory part is the root itself
  else
    *last = '\0';
  if (strpbrk(line, "*?")) {
    VFAIL("wild card error: %s\n", include);
    MissInclude(include, LastLine());
    return 0;
  }
  return ListIncludeDirectory(session, root, line, include, context);
}

// Walks every directory the include paths brought, from an empty path.
void WalkIncludedDirectories(FtpSession* session, ObjectNode* root, char* path, ListingContext* context) {
  path[0] = '\0';
  for (ObjectNode* child = root->first_dir; child; child = child->next) {
    if (TerminationRequested.load()) break;
    WalkDirectory(session, child, path, context);
    path[0] = '\0';
  }
}

}  // namespace

ObjectNode* BuildIncludeList(FtpSession* session) {
  time_t now = time(nullptr);
  struct tm local{};
  localtime_r(&now, &local);
  ObjectNode* root = NewDirectoryNode(nullptr, "", 0, 0, local);
  if (!root) return nullptr;
  auto context = std::make_unique<ListingContext>();
  char* line = context->path_buffer;
  context->path = line;
  AddSpecialObjects(root, local);

  // Without an include file the whole server is saved from its root.
  if (!Settings.include) {
    CopyBounded(line, PathBufferSize, "/");
  } else if (!ReadPathLine(Settings.include, line, PathBufferSize)) {
    LogMessageTo(stderr, "%s[%s:%d] : Error reading from include stream\n", ProgramName, kModule,
                 __LINE__);
    FreeTree(root);
    return nullptr;
  }
  for (;;) {
    if (ResolveIncludeLine(session, root, line, context.get()) != 0) {
      FreeTree(root);
      return nullptr;
    }
    if (TerminationRequested.load()) break;
    if (!Settings.include || !ReadPathLine(Settings.include, line, PathBufferSize)) break;
  }
  RenameNode(root, "");
  WalkIncludedDirectories(session, root, line, context.get());
  return root;
}
