// The restore driver's decisions about an entry before anything is sent:
// which restore its name calls for (the rule ctar's listings show too), and
// which of its objects the include and exclude files leave to restore.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "archive/ctar_format.h"
#include "cli/settings.h"
#include "restore/entry_selection.h"
#include "restore/restore.h"
#include "support/string_list.h"
#include "test_helpers.h"

namespace {

TEST(EntryKindOf, TheNameAloneDecidesAndOnlyLibrariesGoByPrefix) {
  const struct {
    const char* name;
    EntryKind kind;
  } cases[] = {
      {"/QDLS", EntryKind::Documents},
      {"/System Configuration", EntryKind::Configuration},
      {"/Security Data", EntryKind::SecurityData},
      {"/QSYS.LIB/PAYROLL.LIB", EntryKind::Library},
      {"/QSYS.LIB/", EntryKind::Library},
      // Exact names only: anything longer or in another case is IFS.
      {"/QDLS/FOLDER", EntryKind::Ifs},
      {"/Security Data2", EntryKind::Ifs},
      {"/QSYS.LIB", EntryKind::Ifs},
      {"/qsys.lib/payroll.lib", EntryKind::Ifs},
      {"/home/x", EntryKind::Ifs},
      {"", EntryKind::Ifs},
  };
  for (const auto& c : cases) EXPECT_EQ(EntryKindOf(c.name), c.kind) << '"' << c.name << '"';
}

using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs PairsOf(const StringList* list) {
  Pairs out;
  for (const StringPair* pair = list->first; pair; pair = pair->next)
    out.emplace_back(pair->first, pair->second ? pair->second : "(none)");
  return out;
}

struct SelectionTest : ::testing::Test {
  void TearDown() override {
    for (FILE** stream : {&Settings.include, &Settings.exclude}) {
      if (*stream) fclose(*stream);
      *stream = nullptr;
    }
    Settings.verbosity = 0;
    Settings.restore_path = nullptr;
  }
};

TEST_F(SelectionTest, TheIncludeFileChoosesAndTheExcludeFileTakesAway) {
  static char archive[] = "night.ctar";
  const struct {
    const char* what;
    const char* include;  // nullptr: no include file
    const char* exclude;
    const char* name;
    Pairs selected;  // empty: the entry is skipped
    std::vector<std::string> said;  // with -v, in this order
  } cases[] = {
      {"no path files", nullptr, nullptr, "/home/a", {{"/home/a", "(none)"}}, {}},
      {"named whole", "/home/a\n", nullptr, "/home/a", {{"/home/a", "(none)"}}, {}},
      {"parts of it, one to a new place", "/home/a/b :: /new/b\n/home/a/c\n", nullptr, "/home/a",
       {{"/home/a/b", "/new/b"}, {"/home/a/c", "(none)"}}, {}},
      {"not named", "/QSYS.LIB/X.LIB\n", nullptr, "/Security Data", {},
       {"/Security Data: not included"}},
      {"excluded whole", nullptr, "/home/a\n", "/home/a", {}, {"/home/a: excluded"}},
      {"its first part excluded", "/home/a/b\n/home/a/c\n", "/home/a/b\n", "/home/a",
       {{"/home/a/c", "(none)"}}, {"/home/a/b: excluded"}},
      {"a middle part excluded", "/home/a/b\n/home/a/c\n/home/a/d\n", "/home/a/c\n", "/home/a",
       {{"/home/a/b", "(none)"}, {"/home/a/d", "(none)"}}, {"/home/a/c: excluded"}},
      {"the last part excluded", "/home/a/b\n/home/a/c\n/home/a/d\n", "/home/a/d\n", "/home/a",
       {{"/home/a/b", "(none)"}, {"/home/a/c", "(none)"}}, {"/home/a/d: excluded"}},
      // The parts behind the first are judged before the first.
      {"every part excluded", "/home/a/b\n/home/a/c\n", "/home/a/c\n/home/a/b\n", "/home/a", {},
       {"/home/a/c: excluded", "/home/a/b: excluded"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TearDown();
    Settings.restore_path = archive;
    Settings.verbosity = 1;
    if (c.include) Settings.include = StreamWith(c.include);
    if (c.exclude) Settings.exclude = StreamWith(c.exclude);
    StderrCapture err;
    StringList* objects = SelectEntryObjects(c.name);
    if (c.selected.empty()) {
      EXPECT_EQ(objects, nullptr);
    } else {
      ASSERT_NE(objects, nullptr);
      EXPECT_EQ(PairsOf(objects), c.selected);
      EXPECT_EQ(objects->count, static_cast<int>(c.selected.size()));
      // The list stays whole for appending: its last pair is the last one.
      const StringPair* last = objects->first;
      while (last->next) last = last->next;
      EXPECT_EQ(objects->last, last);
      FreeStringList(objects);
    }
    const std::string text = err.Text();
    size_t at = 0;
    for (const std::string& line : c.said) {
      const size_t found = text.find(": " + line + "\n", at);
      EXPECT_NE(found, std::string::npos) << line << " in:\n" << text;
      at = found == std::string::npos ? at : found + 1;
    }
    if (c.said.empty()) {
      EXPECT_EQ(text, "");
    }
  }
}

TEST_F(SelectionTest, NothingIsSaidWithoutVerbose) {
  Settings.exclude = StreamWith("/home/a\n");
  StderrCapture err;
  EXPECT_EQ(SelectEntryObjects("/home/a"), nullptr);
  EXPECT_EQ(err.Text(), "");
}

// A crafted size field near 2^63 at the first or at a later header: an
// entry must end, its data rounded up to blocks, where a signed 64-bit
// offset still reaches, or the restore ends at it with "bad file size" (it
// once overflowed in the rounding). Nothing is selected (the exclude file
// names the entry), so no server is needed: the driver only judges and
// skips.
TEST_F(SelectionTest, SizesWhoseRoundingWouldOverflowAreBadSizes) {
  const uint64_t limit = CtarLargestSize;
  const struct {
    bool after_a_first_entry;  // the crafted header at 0x400 instead of 0
    uint64_t size;
    bool bad;
  } cases[] = {
      {false, 5, false},
      {false, limit - 512, false},
      {false, limit - 511, true},
      {false, limit, true},
      {false, limit + 1, true},
      {false, 0x7FFFFFFFFFFFFFFFull, true},
      {false, 1ull << 63, true},
      {false, UINT64_MAX, true},
      {true, limit - 1536, false},
      {true, limit - 1535, true},
      {true, limit - 512, true},
      {true, 0x7FFFFFFFFFFFFFFFull, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.after_a_first_entry) + " " + std::to_string(c.size));
    TearDown();
    std::string image;
    unsigned char block[CtarBlockSize];
    struct tm when{};
    when.tm_year = 109;
    when.tm_mday = 2;
    if (c.after_a_first_entry)
      image += std::string(reinterpret_cast<char*>(BuildCtarHeader(block, "/x", 5, 0100644, when)), CtarBlockSize) +
               std::string(CtarBlockSize, 'd');
    const size_t offset = image.size();
    image += std::string(reinterpret_cast<char*>(BuildCtarHeader(block, "/x", c.size, 0100644, when)), CtarBlockSize);
    if (c.size == 5) image += std::string(CtarBlockSize, 'd');
    image += std::string(reinterpret_cast<char*>(BuildCtarSentinel(block)), CtarBlockSize);
    char path[] = "/tmp/vondral-sizes-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, image.data(), image.size()), static_cast<ssize_t>(image.size()));
    close(fd);
    Settings.restore_path = path;
    Settings.exclude = StreamWith("/x\n");
    StdoutCapture out;
    StderrCapture err;
    const int result = RestoreArchive(nullptr);
    unlink(path);
    const std::string text = err.Text();
    char offset_text[32];
    snprintf(offset_text, sizeof offset_text, "0x%zX", offset);
    const bool said = std::regex_search(
        text, std::regex(std::string(R"(vondral\[restore\.cpp,\d+\]: bad file size at offset )") + offset_text + "\n"));
    EXPECT_EQ(said, c.bad) << text;
    // A size that fits is skipped (a seek, or a read to the end of the
    // file), after which the archive is found to end inside the entry.
    EXPECT_EQ(result, c.size == 5 ? 0 : -1) << text;
  }
}

}  // namespace
