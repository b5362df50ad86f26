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
    if (c.partial) {
      EXPECT_EQ(std::string(count, static_cast<size_t>(length)), c.count) << c.reply;
    }
  }
}

TEST(ReplyJudge, RestoreRepliesCountWhatWasRestoredAndOnlyTheFirstInitialLetterCounts) {
  const struct { const char* text; int expected; } cases[] = {
      // The count before "objects restored" or "libraries restored", in any case.
      {"550 CPF3773 5 objects restored. 2 not restored.", 5}, {"550 12 OBJECTS RESTORED", 12},
      {"550 7 libraries restored. 1 not", 7}, {"550 CPF3773   3 objects restored", 3},
      {"550 010 objects restored", 8},          // base 0: a leading 0 is octal
      {"550 -3 objects restored", 3},           // the walk back stops at the sign, which stays out
      // Not a positive number followed by a blank: 0.
      {"550 0x1A objects restored", 0},  // the walk back stops at 'x'
      {"550 CPF9999 000 objects restored", 0}, {"550 0 objects restored", 0},
      {"550 5objects restored", 0}, {"550 objects restored", 0}, {"objects restored", 0},
      {"2505 objects restored", 0},  // the reply code is never part of the count
      // Failures a restore tolerates.
      {"250 Not all objects were restored", 1}, {"550 NOT ALL objects were restored", 1},
      {"550 CPF3743 Save file SAVTEMP in QTEMP contains no data.", 1},
      // A phrase behind an earlier occurrence of its initial letter is not seen.
      {"550 CPF3773 See job log. 5 objects restored.", -1},  // the 'o' of "job"
      {"550 Objects: 5 objects restored", -1}, {"550 all 3 libraries restored", -1},
      {"550 CPF3779 Unknown. Not all objects were restored", -1},
      {"550 Its Save file SAVTEMP contains no data", -1},
      {"550 Save file SAVTEMP in QTEMP, check: contains no data", -1},  // 'c' after "Save file "
      {"550 CPF3743 Save file SAVTEMP in QTEMP contains data that cannot be restored.", -1},
      {"451 Simulator error", -1}, {"", -1},
  };
  for (const auto& c : cases) EXPECT_EQ(ClassifyRestoreReply(c.text), c.expected) << '"' << c.text << '"';
  EXPECT_EQ(ClassifyRestoreReply(nullptr), -1);
}

}  // namespace
