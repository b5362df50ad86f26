// The fixture of the listing tests: a tree with the directory /home being
// listed, and listing text fed to it as the transfer hands it over; and
// the cutting of a listing into chunks at chosen offsets.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "backup/listing_walk.h"
#include "test_helpers.h"
#include "support/text.h"
#include "cli/settings.h"

struct ListingTest : ::testing::Test {
  ObjectNode* root = nullptr;
  ObjectNode* dir = nullptr;
  std::unique_ptr<ListingContext> context = std::make_unique<ListingContext>();
  FILE* exclude = nullptr;

  void SetUp() override {
    root = NewDirectoryNode(nullptr, "", 0, 0, tm{});
    dir = AppendDirectory(root, "/home", S_IFDIR | 0755, 0, tm{});
    context->path = context->path_buffer;
    CopyBounded(context->path, PathBufferSize, "/home");
    context->directory = dir;
  }
  void TearDown() override {
    FreeTree(root);
    Settings.exclude = nullptr;
    Settings.cutoff_flag = 0;
    Settings.cutoff_time = 0;
    if (exclude) fclose(exclude);
  }
  int Feed(const std::string& text) {
    return ParseListingChunk(context.get(), text.data(), static_cast<int>(text.size()));
  }
  std::string FileNames(const ObjectNode* node) const {
    std::string names;
    for (const ObjectFile* f = node->first_file; f; f = f->next) names += std::string(f->name) + "|";
    return names;
  }
};

// A listing cut into chunks at the given offsets.
inline std::vector<std::string> Chunks(const std::string& text, const std::vector<size_t>& cuts) {
  std::vector<std::string> chunks;
  size_t from = 0;
  for (size_t cut : cuts) {
    chunks.push_back(text.substr(from, cut - from));
    from = cut;
  }
  chunks.push_back(text.substr(from));
  return chunks;
}
