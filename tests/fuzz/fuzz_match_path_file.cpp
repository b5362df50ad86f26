// Fuzzes MatchPathFile, which answers whether a path is named by an include
// or exclude file and collects the lines naming things below it.
//
// Input: one byte of settings (bit 0: a restore is running, which ignores
// wild-card lines), then the path up to the first newline, then the file.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_common.h"
#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"
#include "cli/path_files.h"
#include "cli/settings.h"

namespace {

char RestoreName[] = "archive.ctar";

// A memory stream over the file's bytes (an empty file is a stream of size
// 0 over a buffer that still has to exist).
FILE* OpenFile(std::string& text) {
  size_t size = text.size();
  text.push_back('\0');
  FILE* stream = fmemopen(text.data(), size, "r");
  if (!stream) abort();
  return stream;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceProgramLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input{data, size};
  uint8_t settings = input.Byte();
  std::string rest = input.Rest();
  size_t newline = rest.find('\n');
  std::string path = fuzz::AsCString(rest.substr(0, newline));
  // Paths come from listings and archive names, both under 4096 bytes.
  if (path.size() > 4095) path.resize(4095);
  std::string file = newline == std::string::npos ? std::string() : rest.substr(newline + 1);

  Settings.restore_path = (settings & 1) ? RestoreName : nullptr;
  auto* exact_path = static_cast<char*>(malloc(path.size() + 1));
  if (!exact_path) abort();
  memcpy(exact_path, path.c_str(), path.size() + 1);

  FILE* stream = OpenFile(file);
  // The question without a list: 0 when a line names the path (or a
  // directory above it), 1 otherwise.
  int named = MatchPathFile(exact_path, nullptr, stream);
  FUZZ_CHECK(named == 0 || named == 1);
  // Every call reads the file from its start again.
  FUZZ_CHECK(MatchPathFile(exact_path, nullptr, stream) == named);

  StringList* list = NewStringList();
  if (!list) abort();
  int collected = MatchPathFile(exact_path, list, stream);
  FUZZ_CHECK(collected == 0 || collected == 1);
  // 1 exactly when nothing was collected.
  FUZZ_CHECK((collected == 1) == (list->count == 0));
  // A path named by a line is named with or without a list, and then the
  // path itself is the last pair collected.
  if (named == 0) {
    FUZZ_CHECK(collected == 0);
    FUZZ_CHECK(list->last && strcmp(list->last->first, exact_path) == 0);
  }
  int count = 0;
  for (const StringPair* pair = list->first; pair; pair = pair->next) {
    count++;
    // Either the path itself or a path below it.
    FUZZ_CHECK(pair->first != nullptr);
    bool itself = strcmp(pair->first, exact_path) == 0;
    bool below = strncmp(pair->first, exact_path, path.size()) == 0 && pair->first[path.size()] == '/';
    FUZZ_CHECK(itself || below);
    // The path itself is collected only when a line names it.
    if (named == 1) FUZZ_CHECK(!itself);
    // Restore takes collected lines as real paths: never one with wild cards.
    if (below && Settings.restore_path) FUZZ_CHECK(strpbrk(pair->first, "*?") == nullptr);
    FUZZ_CHECK(strchr(pair->first, '\n') == nullptr);
    if (pair->second) FUZZ_CHECK(strchr(pair->second, '\n') == nullptr);
  }
  FUZZ_CHECK(count == list->count);

  FreeStringList(list);
  fclose(stream);
  free(exact_path);
  Settings.restore_path = nullptr;
  return 0;
}
