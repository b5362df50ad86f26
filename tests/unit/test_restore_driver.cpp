// The restore driver's decisions about an entry before anything is sent:
// which restore its name calls for (the rule ctar's listings show too), and
// which of its objects the include and exclude files leave to restore.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

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

}  // namespace
