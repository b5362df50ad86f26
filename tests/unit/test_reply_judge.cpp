// The reply judge: every phrase that decides an outcome, with the replies
// that must and must not match it.
#include <gtest/gtest.h>

#include <string>

#include "ftp/reply_judge.h"

namespace {

TEST(ReplyJudge, SystemReplyNamesTheReleaseBetweenTheFirstTwoQuotes) {
  const struct { const char* reply; int release; } cases[] = {
      {"215 OS/400 is the remote operating system. The TCP/IP version is \"V5R3M0\".", 1},
      {"215 OS/400 is the remote operating system. The TCP/IP version is \"V5R4M0\".", 2},
      {"215 \"V5R4M0\" and \"V5R3M0\"", 2},  // only the first quoted text counts
      {"215 OS/400 is the remote operating system. The TCP/IP version is \"V7R5M0\".", 0},
      {"215 \"v5r4m0\"", 0},                  // names are compared exactly
      {"215 \"V5R4M0 \"", 0}, {"215 \"V5R4M\"", 0}, {"215 \"\"", 0},
      {"215 UNIX Type: L8", -1},              // no quoted text: unknown
      {"215 \"V5R4M0", -1}, {"", -1},
  };
  for (const auto& c : cases) EXPECT_EQ(JudgeSystemReply(c.reply), c.release) << c.reply;
}

TEST(ReplyJudge, OnlyCPF3CAAMarksAListingRefusedButSavable) {
  const struct { const char* reply; bool savable; } cases[] = {
      {"550 CPF3CAA List of objects not allowed.", true},
      {"550 Specified directory does not exist. CPF3CAA", true},
      {"550 CPF3CA List of objects not allowed.", false},
      {"550 cpf3caa List of objects not allowed.", false},  // codes are upper case
      {"550 CPFA0A9 Object not found.", false},
      {"", false},
  };
  for (const auto& c : cases) EXPECT_EQ(ListingRefusedButSavable(c.reply), c.savable) << c.reply;
}

TEST(ReplyJudge, APartialSaveNeeds550AndBothPhrasesInOrder) {
  const struct { const char* reply; bool partial; std::string count; } cases[] = {
      {"550 CPF3777 3 objects saved. 2 objects not saved..", true, "2"},
      {"550 Library X: 10 objects saved. 123 objects not saved.. See job log.", true, "123"},
      {"550 0 objects saved.  objects not saved..", true, ""},  // the count is whatever stands between
      {"250 3 objects saved. 2 objects not saved..", false, ""},       // no 550 anywhere
      {"550 3 objects saved. 2 objects not saved.", false, ""},        // one period short
      {"550 2 objects not saved.. 3 objects saved. ", false, ""},      // wrong order
      {"550 3 objects saved.2 objects not saved..", false, ""},        // the blank after "saved." is needed
      {"550 CPF3771 Object not saved.", false, ""},
  };
  for (const auto& c : cases) {
    const char* count = nullptr;
    int length = -1;
    EXPECT_EQ(FindNotSavedCount(c.reply, &count, &length), c.partial) << c.reply;
    if (c.partial) EXPECT_EQ(std::string(count, static_cast<size_t>(length)), c.count) << c.reply;
  }
}

}  // namespace
