// Fuzzes ClassifyRestoreReply, which decides whether a restore command the
// server called failed restored enough to count as done.
//
// Input: the reply text (up to the first NUL byte). It is judged twice: as
// it is, and cut to the 127 characters the restore commands keep of a reply.
// Each judgement is compared with a second, plainly written statement of
// the same rule, so that a slip in either shows up as a disagreement.
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ftp/checkpoint.h"
#include "ftp/data_command.h"
#include "ftp/remote_listing.h"
#include "ftp/reply_judge.h"
#include "ftp/session.h"
#include "ftp/transfer_settings.h"
#include "restore/restore_commands.h"
#include "fuzz_common.h"

namespace {

std::string Lower(const std::string& text) {
  std::string out = text;
  for (char& c : out) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return out;
}

// The count standing before a phrase found at `at`; the reply code (the
// first three characters) never counts.
int CountBefore(const std::string& text, size_t at) {
  long i = static_cast<long>(at) - 1;
  if (i > 3) {
    while (i > 3 && isspace(static_cast<unsigned char>(text[static_cast<size_t>(i)]))) i--;
    while (i > 3 && isdigit(static_cast<unsigned char>(text[static_cast<size_t>(i)]))) i--;
  }
  const char* number = text.c_str() + (i + 1);
  char* end = nullptr;
  long count = strtol(number, &end, 0);
  if (count < 1 || *end != ' ') return 0;
  return count > INT_MAX ? INT_MAX : static_cast<int>(count);
}

// Only the first place where a phrase's initial letter appears is looked at.
int Expected(const std::string& text) {
  const std::string lower = Lower(text);
  size_t at = lower.find('o');
  if (at != std::string::npos && lower.compare(at, 16, "objects restored") == 0)
    return CountBefore(text, at);
  at = lower.find('l');
  if (at != std::string::npos && lower.compare(at, 18, "libraries restored") == 0)
    return CountBefore(text, at);
  at = lower.find('n');
  if (at != std::string::npos && lower.compare(at, 8, "not all ") == 0) return 1;
  at = lower.find('s');
  if (at != std::string::npos && lower.compare(at, 10, "save file ") == 0) {
    size_t c = lower.find('c', at + 10);
    if (c != std::string::npos && lower.compare(c, 16, "contains no data") == 0) return 1;
  }
  return -1;
}

void Judge(const std::string& text) {
  // An exactly sized copy, so that reading past the terminator is caught.
  auto* copy = static_cast<char*>(malloc(text.size() + 1));
  if (!copy) abort();
  memcpy(copy, text.c_str(), text.size() + 1);
  int result = ClassifyRestoreReply(copy);
  FUZZ_CHECK(result >= -1);
  FUZZ_CHECK(result == Expected(text));
  FUZZ_CHECK(strcmp(copy, text.c_str()) == 0);  // the text is only read
  free(copy);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceProgramLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text = fuzz::AsCString(std::string(reinterpret_cast<const char*>(data), size));
  Judge(text);
  if (text.size() >= static_cast<size_t>(QuotedReplySize))
    Judge(text.substr(0, QuotedReplySize - 1));
  FUZZ_CHECK(ClassifyRestoreReply(nullptr) == -1);
  return 0;
}
