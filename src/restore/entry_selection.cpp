// Choosing the objects of an archive entry that the include and exclude
// files want restored.
#include "restore/entry_selection.h"

#include <cstdlib>

#include "cli/path_files.h"
#include "cli/settings.h"
#include "support/log.h"
#include "support/string_list.h"

namespace {

// Unlinks and frees the pair behind `previous` (the first pair when
// previous is nullptr); gives the pair that now follows `previous`.
StringPair* DropPair(StringList* list, StringPair* previous) {
  StringPair* pair = previous ? previous->next : list->first;
  StringPair* next = pair->next;
  if (previous)
    previous->next = next;
  else
    list->first = next;
  if (list->last == pair) list->last = previous;
  list->count--;
  free(pair->first);
  free(pair->second);
  delete pair;
  return next;
}

bool Excluded(const StringPair* pair) {
  if (MatchPathFile(pair->first, nullptr, Settings.exclude) != 0) return false;
  if (Settings.verbosity >= 1)
    LogMessageTo(stderr, "%s: %s: excluded\n", ProgramName, pair->first);
  return true;
}

// Removes the excluded pairs: those behind the first in list order, then
// the first.
void ApplyExcludeFile(StringList* objects) {
  if (!Settings.exclude || !objects->first) return;
  StringPair* previous = objects->first;
  for (StringPair* pair = previous->next; pair;) {
    if (Excluded(pair)) {
      pair = DropPair(objects, previous);
    } else {
      previous = pair;
      pair = pair->next;
    }
  }
  if (Excluded(objects->first)) DropPair(objects, nullptr);
}

}  // namespace

StringList* SelectEntryObjects(const char* name) {
  StringList* objects = NewStringList();
  // With an include file only what it names is restored: user profiles and
  // the system configuration too, which a restore of one library must not
  // put back with ALWOBJDIF(*ALL) unasked.
  if (!Settings.include) {
    AppendStringPair(objects, name, nullptr);
  } else if (MatchPathFile(name, objects, Settings.include) >= 1) {
    if (Settings.verbosity >= 1) LogMessageTo(stderr, "%s: %s: not included\n", ProgramName, name);
    FreeStringList(objects);
    return nullptr;
  }
  ApplyExcludeFile(objects);
  if (!objects->first) {
    FreeStringList(objects);
    return nullptr;
  }
  return objects;
}
