// The string list of path pairs.
#include "support/string_list.h"

#include <cstdlib>
#include <cstring>
#include <new>

StringList* NewStringList() {
  return new (std::nothrow) StringList{0, nullptr, nullptr};
}

void AppendStringPair(StringList* list, const char* text, const char* second) {
  auto* pair = new StringPair{strdup(text), second ? strdup(second) : nullptr, nullptr};
  if (list->last)
    list->last->next = pair;
  else
    list->first = pair;
  list->last = pair;
  list->count++;
}

void ClearStringList(StringList* list) {
  for (StringPair* p = list->first; p;) {
    StringPair* next = p->next;
    free(p->first);
    free(p->second);
    delete p;
    p = next;
  }
  list->first = list->last = nullptr;
  list->count = 0;
}

void FreeStringList(StringList* list) {
  if (!list) return;
  ClearStringList(list);
  delete list;
}
