// The string list: (path, optional second path) pairs in insertion order,
// as include and exclude files are read into.
#pragma once

// A list of (path, optional second path) pairs, in insertion order.
struct StringPair {
  char* first;
  char* second;  // absent (nullptr) when the line had no " :: " part
  StringPair* next;
};

struct StringList {
  int count;
  StringPair* first;
  StringPair* last;
};

StringList* NewStringList();
void AppendStringPair(StringList* list, const char* text, const char* second);
void ClearStringList(StringList* list);
void FreeStringList(StringList* list);
