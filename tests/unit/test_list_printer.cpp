// List mode's printer: every line of a listing printed once as a full
// path, however the transfer cuts the listing into chunks.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "listing_test_helpers.h"
#include "test_helpers.h"
#include "cli/settings.h"
#include "cli/list_mode.h"

namespace {

struct ListPrinterTest : ::testing::Test {
  void SetUp() override {
    saved = Settings;
    Settings.verbosity = 0;
  }
  void TearDown() override { Settings = saved; }
  // Hands the chunks to a new printer for `path` as LIST would, then ends
  // the listing; gives what was printed to the list stream.
  std::string Print(const char* path, const std::vector<std::string>& chunks, int* result) {
    CapturedStream list;
    Settings.list = list.stream;
    auto context = std::make_unique<ListPrinterContext>();
    context->include_path = path;
    *result = 0;
    for (const std::string& chunk : chunks) {
      std::string data = chunk;
      int count = static_cast<int>(data.size());
      if (ListPrinter(context.get(), data.data(), &count) != 0) *result = -1;
    }
    if (FinishListPrinter(context.get()) != 0) *result = -1;
    Settings.list = nullptr;
    return list.Text();
  }
  RunSettings saved;
};

TEST_F(ListPrinterTest, EveryLineIsPrintedOnceHoweverTheChunksFall) {
  // Each listing is printed whole, cut at every single offset, and one byte
  // at a time: a line end split between chunks (its CR in one, its LF in the
  // next) is one line end, and the last line needs none.
  const std::string file = "-rw-r--r--   1 QSYS 0 3 Jan  2  2009 ";
  const std::string directory = "drwxr-xr-x   2 QSYS 0 8192 Mar  5 14:07 ";
  struct Case {
    const char* what;
    const char* path;
    std::string listing;
    std::string printed;
  };
  const Case cases[] = {
      {"ended lines", "/home", file + "a\r\n" + directory + "sub\r\n" + file + "b\r\n", "/home/a\n/home/sub/\n/home/b\n"},
      {"a last line without line end", "/home", file + "a\r\n" + directory + "sub\r\n" + file + "last",
       "/home/a\n/home/sub/\n/home/last\n"},
      {"a last line ended by a CR alone", "/home/", directory + "d\r\n" + file + "z\r", "/home/d/\n/home/z\n"},
      {"a single line without line end", "/", directory + "QSYS.LIB", "/QSYS.LIB/\n"},
      {"libraries", "/QSYS.LIB",
       directory + "PAY.LIB\r\n" + file + "JOE.USRPRF\r\n" + directory + "GL.LIB",
       "/QSYS.LIB/PAY.LIB\n/QSYS.LIB/GL.LIB\n"},
      {"an empty listing", "/home", "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<std::vector<std::string>> chunkings = {{c.listing}};
    for (size_t cut = 1; cut < c.listing.size(); cut++) chunkings.push_back(Chunks(c.listing, {cut}));
    std::vector<size_t> every;
    for (size_t cut = 1; cut < c.listing.size(); cut++) every.push_back(cut);
    chunkings.push_back(Chunks(c.listing, every));
    for (const auto& chunks : chunkings) {
      SCOPED_TRACE(::testing::PrintToString(chunks));
      StdoutCapture out;
      int result = 0;
      EXPECT_EQ(Print(c.path, chunks, &result), c.printed);
      EXPECT_EQ(result, 0);
      EXPECT_EQ(out.Text(), "");  // only the list stream gets the names
      if (HasFailure()) return;
    }
  }
}

}  // namespace
