// Small helpers for the tests of the object tree and of what is made from
// it (the catalog, the backup list): roots, names of a directory's lists,
// and the catalog text of a tree.
#pragma once

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "backup/catalog.h"
#include "backup/object_tree.h"
#include "test_helpers.h"

const struct tm NoTime{};

inline ObjectNode* NewRoot(const char* name = "") { return NewDirectoryNode(nullptr, name, 0, 0, NoTime); }

inline std::vector<std::string> FileNames(const ObjectNode* dir) {
  std::vector<std::string> names;
  for (const ObjectFile* f = dir->first_file; f; f = f->next) names.push_back(f->name);
  return names;
}

inline std::vector<std::string> DirectoryNames(const ObjectNode* dir) {
  std::vector<std::string> names;
  for (const ObjectNode* d = dir->first_dir; d; d = d->next) names.push_back(d->name);
  return names;
}

// The catalog lines DumpTree writes for dir.
inline std::string Dump(const ObjectNode* dir, bool full) {
  CapturedStream out;
  EXPECT_EQ(DumpTree(out.stream, dir, full), 0);
  return out.Text();
}
