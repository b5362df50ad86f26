// The listing walk: lines put together across chunks, the last line
// without a line end, and what each parsed entry becomes in the tree: kept,
// excluded, left out by the date, retyped as one object, or placed under
// its full name below an include pattern.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <ctime>
#include <regex>
#include <string>
#include <map>
#include <vector>

#include "fake_server.h"
#include "ftp/session.h"
#include "listing_test_helpers.h"
#include "test_helpers.h"
#include "cli/settings.h"
#include "support/text.h"

namespace {

struct ListingWalkTest : ListingTest {};

TEST_F(ListingWalkTest, PlacedEntriesRollUpAndMarkTheListingFound) {
  EXPECT_EQ(Feed("drwxr-xr-x   2 QSYS     0              0 Jan  2  2009 .\r\n"), 0);
  EXPECT_EQ(context->found, 0);  // a dropped name finds nothing
  EXPECT_EQ(Feed("drwxr-xr-x   2 QSYS     0           8192 Mar  5  2009 DIR\r\n"
                 "-rw-r--r--   1 A        B             10 Jan  2  2009 x\r\n"),
            0);
  EXPECT_EQ(context->found, 1);
  // Sizes reach every ancestor; only files count as objects.
  EXPECT_EQ(dir->size, 8202u);
  EXPECT_EQ(root->size, 8202u);
  EXPECT_EQ(dir->count, 1u);
  EXPECT_EQ(root->count, 1u);
}

TEST_F(ListingWalkTest, OverLongLineIsAParseErrorAndTheNextLineStillCounts) {
  StderrCapture err;
  std::string line = "-rw-r--r--   1 A B 3 Jan  2  2009 " + std::string(5000, 'n') + "\r\n";
  EXPECT_EQ(Feed(line + "-rw-r--r--   1 A B 3 Jan  2  2009 ok\r\n"), 1);
  ASSERT_NE(dir->first_file, nullptr);
  EXPECT_STREQ(dir->first_file->name, "/ok");
  EXPECT_NE(err.Text().find("listing line too long"), std::string::npos);
}

TEST_F(ListingWalkTest, ALineInAnyNumberOfPiecesIsParsedOnceWhole) {
  const std::string line = "-rw-r--r--   1 A B 3 Jan  2  2009 split-name\r\n";
  const std::vector<std::vector<size_t>> cuts = {{20}, {10, 20}, {1, 2, 3, 40}, {line.size() - 1}};
  uint64_t expected = 0;
  for (const auto& at : cuts) {
    for (const std::string& chunk : Chunks(line, at)) EXPECT_EQ(Feed(chunk), 0);
    EXPECT_EQ(dir->count, ++expected);
    EXPECT_STREQ(dir->last_file->name, "/split-name");
  }
}

TEST_F(ListingWalkTest, ExclusionMarksPartialButTheDateCutOffDoesNot) {
  exclude = StreamWith("/home/secret\n");
  Settings.exclude = exclude;
  EXPECT_EQ(Feed("-rw-r--r--   1 A B 3 Jan  2  2009 secret\r\n"), 0);
  EXPECT_EQ(dir->first_file, nullptr);
  EXPECT_EQ(dir->partial, 1);
  EXPECT_STREQ(context->path, "/home");  // cut back after the question

  TearDown();
  exclude = nullptr;
  SetUp();
  Settings.cutoff_flag = 1;
  Settings.cutoff_time = 1262304000;  // 2010-01-01
  EXPECT_EQ(Feed("-rw-r--r--   1 A B 3 Jan  2  2009 old\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 olddir\r\n"
                 "-rw-r--r--   1 A B 3 Jan  2  2019 new\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 OLD.LIB\r\n"),
            0);
  EXPECT_EQ(FileNames(dir), "/new|/OLD.LIB|");  // libraries are never dropped by the date
  ASSERT_NE(dir->first_dir, nullptr);
  EXPECT_STREQ(dir->first_dir->name, "/olddir");
  EXPECT_EQ(dir->partial, 0);
}

TEST_F(ListingWalkTest, TopLevelExcludeLinesNameRootEntries) {
  CopyBounded(context->path, PathBufferSize, "/");
  dir = root;
  RenameNode(root, "/");
  context->directory = root;
  exclude = StreamWith("/tmp\n");
  Settings.exclude = exclude;
  EXPECT_EQ(Feed("drwxr-xr-x   1 A B 3 Jan  2  2009 tmp\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 QSYS.LIB\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 QDLS\r\n"),
            0);
  ASSERT_NE(root->last_dir, nullptr);
  EXPECT_STREQ(root->last_dir->name, "/QSYS.LIB");
  EXPECT_EQ(root->last_dir->partial, 1);  // the library directory is never one unit
  ASSERT_NE(root->first_file, nullptr);
  EXPECT_STREQ(root->first_file->name, "/QDLS");  // the document library is one object
}

TEST_F(ListingWalkTest, LibraryDirectoryKeepsOnlyLibraries) {
  ObjectNode* qsys = AppendDirectory(root, "/QSYS.LIB", S_IFDIR, 0, tm{});
  context->directory = qsys;
  CopyBounded(context->path, PathBufferSize, "/QSYS.LIB");
  EXPECT_EQ(Feed("drwxr-xr-x   1 A B 3 Jan  2  2009 PAY.LIB\r\n"
                 "-rw-r--r--   1 A B 3 Jan  2  2009 JOE.USRPRF\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 QSYS.LIB\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 X.LIBRARY\r\n"),
            0);
  ASSERT_NE(qsys->first_file, nullptr);
  EXPECT_STREQ(qsys->first_file->name, "/PAY.LIB");
  EXPECT_EQ(qsys->first_file, qsys->last_file);
  EXPECT_EQ(qsys->first_dir, nullptr);
  // With --date a library becomes a directory, so its contents are dated.
  Settings.cutoff_flag = 1;
  EXPECT_EQ(Feed("drwxr-xr-x   1 A B 3 Jan  2  2009 NEW.LIB\r\n"), 0);
  ASSERT_NE(qsys->first_dir, nullptr);
  EXPECT_STREQ(qsys->first_dir->name, "/NEW.LIB");
}

TEST_F(ListingWalkTest, IncludePatternTakesMatchingEntriesUnderFullNames) {
  RenameNode(root, "/QSYS.LIB/AB*.LIB");
  context->directory = root;
  CopyBounded(context->path, PathBufferSize, "/QSYS.LIB");
  EXPECT_EQ(Feed("drwxr-xr-x   1 A B 3 Jan  2  2009 ABC.LIB\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 XYZ.LIB\r\n"
                 "drwxr-xr-x   1 A B 3 Jan  2  2009 AB.LIB\r\n"),
            0);
  EXPECT_EQ(FileNames(root), "/QSYS.LIB/ABC.LIB|/QSYS.LIB/AB.LIB|");
}

TEST_F(ListingWalkTest, CallbackCountsFailuresWithoutAbortingTheTransfer) {
  std::string chunk = "garbage\r\n-rw-r--r--   1 A B 3 Jan  2  2009 f\r\n";
  int count = static_cast<int>(chunk.size());
  StderrCapture err;
  EXPECT_EQ(ListingCallback(context.get(), chunk.data(), &count), 0);
  EXPECT_EQ(context->errors, 1);
  EXPECT_EQ(ListingCallback(nullptr, chunk.data(), &count), -1);
  EXPECT_NE(err.Text().find("bad argument"), std::string::npos);
}

// --- the listing's last line

TEST_F(ListingWalkTest, ALastLineWithoutLineEndIsParsedLikeAnyOther) {
  const std::string first = "-rw-r--r--   1 A B 3 Jan  2  2009 first\r\n";
  const std::string last = "-rw-r--r--   1 A B 3 Jan  2  2009 last-name";
  struct Case {
    const char* what;
    std::string listing;
    std::vector<size_t> cuts;
    std::string files;
    const char* dir;  // the last directory placed, nullptr for none
    int errors;
    const char* message;  // on standard error
  };
  const Case cases[] = {
      {"in one chunk with the others", first + last, {}, "/first|/last-name|", nullptr, 0, nullptr},
      {"in a chunk of its own", first + last, {first.size()}, "/first|/last-name|", nullptr, 0, nullptr},
      {"behind a line split across chunks", first + last, {12}, "/first|/last-name|", nullptr, 0, nullptr},
      {"split across chunks itself", first + last, {first.size() + 20}, "/first|/last-name|", nullptr, 0,
       nullptr},
      {"ended by a CR alone", first + last + "\r", {}, "/first|/last-name|", nullptr, 0, nullptr},
      {"the only line", last, {}, "/last-name|", nullptr, 0, nullptr},
      {"a directory", first + "drwxr-xr-x   1 A B 3 Jan  2  2009 sub", {}, "/first|", "/sub", 0, nullptr},
      {"garbage", first + "garbage", {}, "/first|", nullptr, 1, "]: can't parse"},
      {"too long", first + last + std::string(5000, 'n'), {}, "/first|", nullptr, 1, "]: listing line too long"},
      {"absent: the listing ends with a line end", first, {}, "/first|", nullptr, 0, nullptr},
      {"absent: an empty listing", "", {}, "", nullptr, 0, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TearDown();
    SetUp();
    StderrCapture err;
    int errors = 0;
    for (const std::string& chunk : Chunks(c.listing, c.cuts)) errors += Feed(chunk);
    errors += FinishListing(context.get());
    EXPECT_EQ(errors, c.errors);
    EXPECT_EQ(FileNames(dir), c.files);
    if (c.dir) {
      ASSERT_NE(dir->last_dir, nullptr);
      EXPECT_STREQ(dir->last_dir->name, c.dir);
    } else {
      EXPECT_EQ(dir->last_dir, nullptr);
    }
    if (c.message) {
      EXPECT_NE(err.Text().find(c.message), std::string::npos) << err.Text();
    }
    EXPECT_EQ(dir->partial, c.errors > 0);
    // Taken once: nothing is left for a second call or the next listing.
    EXPECT_EQ(FinishListing(context.get()), 0);
    EXPECT_EQ(FileNames(dir), c.files);
    EXPECT_EQ(Feed(first), 0);
    EXPECT_EQ(FileNames(dir), c.files + "/first|");
  }
}

// --- the walk against a peer

// Serves LIST from a table of listings; a path missing from it is refused
// with `refusal`.
struct ListingPeer {
  std::map<std::string, std::string> listings;
  std::string refusal = "550 CPF3CAA List of directory not allowed.";
  PeerScript Script() {
    return LoginScript([this](PeerConnection& c, const std::string& command) {
      if (command == "PASV") {
        c.Reply(c.PassiveReply());
        return true;
      }
      if (command.rfind("LIST ", 0) != 0) {
        c.Reply("200 OK\r\n");
        return true;
      }
      int fd = c.AcceptData();
      auto found = listings.find(command.substr(5));
      if (found == listings.end()) {
        if (fd >= 0) close(fd);
        c.Reply(refusal + "\r\n");
        return true;
      }
      c.Reply("125 List started.\r\n");
      SendAll(fd, found->second);
      if (fd >= 0) close(fd);
      c.Reply("250 List completed.\r\n");
      return true;
    });
  }
};

TEST_F(ListingWalkTest, TheWalkListsEveryDirectoryDepthFirstAndSumsTheParseErrors) {
  const std::string dir_line = "drwxr-xr-x   2 QSYS 0 8192 Mar  5  2009 ";
  const std::string file_line = "-rw-r--r--   1 QSYS 0 3 Jan  2  2009 ";
  struct Case {
    const char* what;
    std::map<std::string, std::string> listings;
    std::string refusal;
    int result;
    uint64_t listings_made;
    uint64_t parse_errors;
    std::string files;        // of /home
    std::string deeper;       // the files of /home/a
    const char* message;      // on standard error
  };
  const Case cases[] = {
      {"a directory below, a refused one and a garbage line",
       {{"/home", dir_line + "a\r\n" + file_line + "f\r\n" + dir_line + "locked\r\ngarbage\r\n"},
        {"/home/a", file_line + "g\r\n" + file_line + "h"}},
       "550 CPF3CAA List of directory not allowed.", 1, 3, 1, "/f|/locked|", "/g|/h|",
       R"(\]: 1 parse errors in directory /home\n)"},
      {"a parse error below counts too",
       {{"/home", dir_line + "a\r\n"}, {"/home/a", "garbage\r\n" + file_line + "g\r\n"}},
       "550 CPF3CAA List of directory not allowed.", 1, 2, 1, "", "/g|",
       R"(\]: 1 parse errors in directory /home/a\n)"},
      {"the walked directory's own listing fails", {}, "550 CPF9999 Something else.", -1, 1, 0, "", "",
       R"(\]: list failed\n/home\n)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TearDown();
    SetUp();
    ListingPeer peer;
    peer.listings = c.listings;
    peer.refusal = c.refusal;
    FakeFtpServer server(peer.Script());
    FtpSession* session = NewSessionTo(server.address());
    ASSERT_NE(session, nullptr);
    ASSERT_EQ(Login(session, "u", "p"), 0);
    const uint64_t calls = ListCalls, errors = ParseErrors;
    // As the include list walks: the path being listed is the context's.
    char* path = context->path;
    path[0] = '\0';
    StderrCapture err;
    EXPECT_EQ(WalkDirectory(session, dir, path, context.get()), c.result);
    EXPECT_STREQ(path, "/home");  // what the walk below added is cut back
    EXPECT_EQ(ListCalls - calls, c.listings_made);
    EXPECT_EQ(ParseErrors - errors, c.parse_errors);
    EXPECT_TRUE(std::regex_search(err.Text(), std::regex(c.message))) << err.Text();
    EXPECT_EQ(FileNames(dir), c.files);
    if (!c.deeper.empty()) {
      ASSERT_NE(dir->first_dir, nullptr);
      EXPECT_STREQ(dir->first_dir->name, "/a");
      EXPECT_EQ(FileNames(dir->first_dir), c.deeper);
    }
    // A directory the server would not list is kept whole in its parent
    // and passed by.
    if (c.files.find("/locked|") != std::string::npos) {
      ASSERT_NE(dir->last_dir, nullptr);
      EXPECT_EQ(dir->last_dir->name, nullptr);
      EXPECT_EQ(dir->partial, 1);
    }
    Quit(session);
  }
}

}  // namespace
