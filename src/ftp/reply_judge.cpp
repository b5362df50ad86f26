// The reply judge: the tables of codes, phrases and names that decide
// outcomes, and the rules that read them.
#include "ftp/reply_judge.h"

#include <strings.h>

#include <cctype>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

// ---- SYST ----------------------------------------------------------------

struct ReleaseRow {
  const char* name;  // as SYST quotes it
  int release;
};
constexpr ReleaseRow Releases[] = {
    {"V5R3M0", 1},
    {"V5R4M0", 2},
};

// ---- LIST ----------------------------------------------------------------

// The server will not list the directory, but it can save it.
constexpr const char* ListingRefusedCode = "CPF3CAA";

// ---- saves ---------------------------------------------------------------

// 550 <n> objects saved. <m> objects not saved..
constexpr const char* PartialSaveCode = "550";
constexpr const char* SavedPhrase = "objects saved. ";
constexpr const char* NotSavedPhrase = " objects not saved..";

// ---- restores --------------------------------------------------------------

enum class RestoreRule {
  Count,      // the number standing before the phrase
  Tolerated,  // 1: nothing restored, and nothing to worry about
};

// Rows are tried in order; each looks only at the first place where its
// phrase's initial letter appears. A row with a second phrase needs that
// one too, looked for the same way behind the first.
struct RestoreRow {
  const char* phrase;
  RestoreRule rule;
  const char* then = nullptr;
};
constexpr RestoreRow RestoreRows[] = {
    {"objects restored", RestoreRule::Count},
    {"libraries restored", RestoreRule::Count},
    {"Not all ", RestoreRule::Tolerated},
    {"Save file ", RestoreRule::Tolerated, "contains no data"},
};

// The first place in text where phrase's initial letter stands (either
// case), if the phrase starts there; else nullptr.
const char* PhraseAtInitial(const char* text, const char* phrase) {
  const char letters[] = {static_cast<char>(tolower(static_cast<unsigned char>(phrase[0]))),
                          static_cast<char>(toupper(static_cast<unsigned char>(phrase[0]))), '\0'};
  const char* at = strpbrk(text, letters);
  return at && strncasecmp(at, phrase, strlen(phrase)) == 0 ? at : nullptr;
}

// The number standing before the phrase at `phrase_at`. The walk never goes
// below the fourth character, so the reply code is never taken for a count.
int RestoredCount(const char* text, const char* phrase_at) {
  constexpr ptrdiff_t Floor = 3;
  ptrdiff_t at = (phrase_at - text) - 1;
  if (at > Floor) {
    while (at > Floor && isspace(static_cast<unsigned char>(text[at]))) at--;
    while (at > Floor && isdigit(static_cast<unsigned char>(text[at]))) at--;
  }
  const char* number = text + at + 1;
  char* end = nullptr;
  long count = strtol(number, &end, 0);  // base 0: a leading 0 reads as octal
  if (count < 1 || *end != ' ') return 0;
  return count > INT_MAX ? INT_MAX : static_cast<int>(count);
}

}  // namespace

int JudgeSystemReply(const char* reply) {
  const char* open = strchr(reply, '"');
  const char* close = open ? strchr(open + 1, '"') : nullptr;
  if (!close) return -1;
  const size_t length = static_cast<size_t>(close - open - 1);
  for (const ReleaseRow& row : Releases)
    if (length == strlen(row.name) && memcmp(open + 1, row.name, length) == 0) return row.release;
  return 0;
}

bool ListingRefusedButSavable(const char* reply) { return strstr(reply, ListingRefusedCode) != nullptr; }

bool FindNotSavedCount(const char* reply, const char** count, int* length) {
  if (!strstr(reply, PartialSaveCode)) return false;
  const char* saved = strstr(reply, SavedPhrase);
  if (!saved) return false;
  const char* from = saved + strlen(SavedPhrase);
  const char* not_saved = strstr(from, NotSavedPhrase);
  if (!not_saved) return false;
  *count = from;
  *length = static_cast<int>(not_saved - from);
  return true;
}

int ClassifyRestoreReply(const char* text) {
  if (!text) return -1;
  for (const RestoreRow& row : RestoreRows) {
    const char* at = PhraseAtInitial(text, row.phrase);
    if (!at) continue;
    if (row.rule == RestoreRule::Count) return RestoredCount(text, at);
    if (!row.then || PhraseAtInitial(at + strlen(row.phrase), row.then)) return 1;
  }
  return -1;
}
