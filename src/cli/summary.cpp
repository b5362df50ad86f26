// The run summary: what the run recorded (support/run_record) and the
// command line, as one JSON document, put in place by a rename so that a
// monitor never reads half of it.
#include "cli/summary.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cli/settings.h"
#include "cli/version.h"
#include "support/json.h"
#include "support/log.h"
#include "support/run_record.h"
#include "support/sysio.h"

namespace {

time_t RunStart = 0;

bool BackupMode() { return Settings.backup_path != nullptr; }

// The meaning of an exit status, in the words of the README's table.
const char* StatusMeaning(bool backup, int status) {
  struct Row {
    int status;
    const char* backup;
    const char* restore;
  };
  static const Row rows[] = {
      {0, "every object saved", "every selected entry restored"},
      {1,
       "some objects failed (up to 9 % with parse errors counted), a save was partial, or an "
       "include path matched nothing",
       "the archive was read to its end block and at least one entry failed, or entries lie "
       "hidden behind the end block"},
      {2, "more than 9 % of the objects failed", nullptr},
      {129, "stopped by SIGHUP; the archive holds only whole entries and is put in place",
       "stopped by SIGHUP after the entry in hand"},
      {130, "stopped by SIGINT; the archive holds only whole entries and is put in place",
       "stopped by SIGINT after the entry in hand"},
      {143, "stopped by SIGTERM; the archive holds only whole entries and is put in place",
       "stopped by SIGTERM after the entry in hand"},
      {255,
       "bad options or path files, login failed, the archive could not be written, flushed or "
       "renamed (no archive is made; an old one stays)",
       "bad options, login failed, the archive unreadable, not a CTAR archive, a bad header, "
       "cut short"},
  };
  for (const Row& row : rows) {
    if (row.status != status) continue;
    const char* meaning = backup ? row.backup : row.restore;
    return meaning ? meaning : "unknown";
  }
  return "unknown";
}

std::string IsoTime(time_t when) {
  struct tm utc{};
  char text[32] = "";
  if (gmtime_r(&when, &utc)) strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

void AppendNumber(std::string* out, uint64_t value) {
  char text[24];
  snprintf(text, sizeof text, "%" PRIu64, value);
  out->append(text);
}

// The archive's size: a backup's only once it was put in place; a
// restore's when it is a regular file (not standard input).
bool ArchiveSize(const RunRecord& record, uint64_t* size) {
  struct stat st{};
  if (BackupMode()) {
    if (!record.archive_kept || stat(record.archive_path.c_str(), &st) != 0) return false;
  } else {
    if (!Settings.restore_path || strcmp(Settings.restore_path, "-") == 0) return false;
    if (stat(Settings.restore_path, &st) != 0 || !S_ISREG(st.st_mode)) return false;
  }
  *size = static_cast<uint64_t>(st.st_size);
  return true;
}

void AppendObjects(std::string* out, const std::vector<RecordedObject>& objects) {
  out->append("[");
  for (size_t i = 0; i < objects.size(); i++) {
    out->append(i ? ",\n    {\"path\": " : "\n    {\"path\": ");
    AppendJsonString(out, objects[i].path);
    out->append(", \"reason\": ");
    if (objects[i].has_reason)
      AppendJsonString(out, objects[i].reason);
    else
      out->append("null");
    out->append("}");
  }
  out->append(objects.empty() ? "]" : "\n  ]");
}

// A count, or null when the run never counted, or the mode has no such
// count.
void AppendCount(std::string* out, const char* name, bool shown, uint64_t value, bool last = false) {
  out->append("\"");
  out->append(name);
  out->append("\": ");
  if (shown)
    AppendNumber(out, value);
  else
    out->append("null");
  if (!last) out->append(", ");
}

// Writes text to a new file beside path and renames it onto path. 0, or -1
// after a message naming what failed; no temporary file is left.
int WriteByRename(const char* path, const std::string& text) {
  std::string pattern = std::string(path) + ".tmp.XXXXXX";
  std::vector<char> temp(pattern.begin(), pattern.end());
  temp.push_back('\0');
  int descriptor = mkostemp(temp.data(), O_CLOEXEC);
  if (descriptor < 0) {
    LogMessageTo(stderr, "%s: --summary %s: can't create %s: %s\n", ProgramName, path, temp.data(),
                 strerror(errno));
    return -1;
  }
  const char* failed = nullptr;
  if (WriteFull(descriptor, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    failed = "write";
  else if (SyncData(descriptor) != 0)
    failed = "fdatasync";
  const int error = errno;
  if (CloseDescriptor(&descriptor) != 0 && !failed) failed = "close";
  if (!failed && rename(temp.data(), path) != 0) failed = "rename";
  if (failed) {
    LogMessageTo(stderr, "%s: --summary %s: %s(%s): %s\n", ProgramName, path, failed, temp.data(),
                 strerror(strcmp(failed, "write") == 0 || strcmp(failed, "fdatasync") == 0 ? error : errno));
    unlink(temp.data());
    return -1;
  }
  return 0;
}

int WriteSummary(int status) {
  const std::string text = RunSummaryJson(status, RunStart, time(nullptr));
  if (WriteByRename(Settings.summary_path, text) == 0) return status;
  // A run that failed keeps its own status; a successful one must not
  // look successful without its summary.
  return status == 0 ? SummaryMissingStatus : status;
}

}  // namespace

void StartRunSummary(time_t start) {
  RunStart = start;
  const bool mode = Settings.test_count == 0 && !Settings.list && (Settings.backup_path || Settings.restore_path);
  if (Settings.summary_path && mode) SetRunEndHook(WriteSummary);
}

std::string RunSummaryJson(int status, time_t start, time_t end) {
  const RunRecord record = CopyRunRecord();
  const bool backup = BackupMode();
  const RecordedTotals& totals = record.totals;
  std::string out = "{\n  \"program\": ";
  AppendJsonString(&out, ProgramName);
  out.append(",\n  \"version\": ");
  AppendJsonString(&out, ProgramVersion);
  out.append(",\n  \"mode\": ");
  out.append(backup ? "\"backup\"" : "\"restore\"");
  out.append(",\n  \"server\": ");
  AppendJsonString(&out, Settings.server ? Settings.server : "");
  out.append(",\n  \"start\": ");
  AppendJsonString(&out, IsoTime(start));
  out.append(",\n  \"end\": ");
  AppendJsonString(&out, IsoTime(end));
  out.append(",\n  \"status\": ");
  AppendNumber(&out, static_cast<uint64_t>(status));
  out.append(",\n  \"status_meaning\": ");
  AppendJsonString(&out, StatusMeaning(backup, status));
  out.append(",\n  \"archive\": {\"path\": ");
  AppendJsonString(&out, backup ? Settings.backup_path : (Settings.restore_path ? Settings.restore_path : "-"));
  out.append(", \"size\": ");
  uint64_t size = 0;
  if (ArchiveSize(record, &size))
    AppendNumber(&out, size);
  else
    out.append("null");
  out.append("},\n  \"bytes\": ");
  if (totals.counted)
    AppendNumber(&out, totals.bytes);
  else
    out.append("null");
  out.append(",\n  \"counts\": {");
  AppendCount(&out, "attempted", totals.counted, totals.attempted);
  AppendCount(&out, "failed", totals.counted, totals.failed);
  AppendCount(&out, "partial", totals.counted && backup, totals.partial);
  AppendCount(&out, "restored", totals.counted && !backup, totals.restored);
  AppendCount(&out, "skipped", totals.counted && !backup, totals.skipped, true);
  out.append("},\n  \"failed\": ");
  AppendObjects(&out, record.failed);
  out.append(",\n  \"partial\": ");
  AppendObjects(&out, record.partial);
  out.append("\n}\n");
  return out;
}
