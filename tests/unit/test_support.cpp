// Log line prefix, thread registry, bounded text helpers, scaling rules and
// the string list.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstring>
#include <regex>
#include <string>
#include <thread>

#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"
#include "test_helpers.h"

namespace {

TEST(LogLine, PrefixCarriesTimeAndThreadNumber) {
  FreeThreadRegistry();
  EXPECT_EQ(RegisterThread(-1), 0u);
  CapturedStream out;
  LogMessageTo(out.stream, "hello %s %d\n", "world", 7);
  EXPECT_TRUE(std::regex_match(out.Text(),
                               std::regex(R"(\[\d\d:\d\d:\d\d\] \[T00\] hello world 7\n)")))
      << out.Text();
}

TEST(LogLine, PartialLinesGetThePrefixAgain) {
  FreeThreadRegistry();
  RegisterThread(-1);
  CapturedStream out;
  LogMessageTo(out.stream, "a: getopt(): ");
  LogMessageTo(out.stream, "%c\n", 'q');
  EXPECT_TRUE(std::regex_match(
      out.Text(), std::regex(R"(\[\d\d:\d\d:\d\d\] \[T00\] a: getopt\(\): \[\d\d:\d\d:\d\d\] \[T00\] q\n)")))
      << out.Text();
}

TEST(ThreadRegistry, NumbersAreHandedOutInOrderAndNeverReused) {
  FreeThreadRegistry();
  EXPECT_EQ(RegisterThread(-1), 0u);
  uint32_t worker = 99, again = 99;
  std::string line;
  std::thread t([&] {
    worker = RegisterThread(-1);
    again = RegisterThread(-1);  // registering twice gives a new number
    CapturedStream out;
    LogMessageTo(out.stream, "x\n");
    line = out.Text();
  });
  t.join();
  EXPECT_EQ(worker, 1u);
  EXPECT_EQ(again, 2u);
  EXPECT_NE(line.find("[T02] x"), std::string::npos) << line;
  {
    // An identity seen for the first time (a thread that never registered,
    // such as the signal thread) is numbered on its first lookup, once.
    std::lock_guard<std::mutex> g(LogLock);
    EXPECT_EQ(ThreadNumber(0xDEADBEEFu), 3u);
    EXPECT_EQ(ThreadNumber(0xDEADBEEFu), 3u);
  }
  // Re-registering the main thread replaces its old entry.
  EXPECT_EQ(RegisterThread(-1), 4u);
  CapturedStream out;
  LogMessageTo(out.stream, "z\n");
  EXPECT_NE(out.Text().find("[T04] z"), std::string::npos);
}

TEST(ThreadRegistry, NumbersAbove99TakeThreeDigits) {
  FreeThreadRegistry();
  EXPECT_EQ(RegisterThread(123), 123u);
  CapturedStream out;
  LogMessageTo(out.stream, "n\n");
  EXPECT_NE(out.Text().find("[T123] n"), std::string::npos);
  FreeThreadRegistry();
  RegisterThread(-1);
}

TEST(BoundedText, CopyAndAppendNeverOverrunAndReportTheFullLength) {
  char small[8];
  EXPECT_EQ(CopyBounded(small, sizeof small, "abcdefghij"), 10u);
  EXPECT_STREQ(small, "abcdefg");
  EXPECT_EQ(CopyBounded(small, sizeof small, "abc"), 3u);
  EXPECT_STREQ(small, "abc");
  EXPECT_EQ(AppendBounded(small, sizeof small, "defgh"), 8u);
  EXPECT_STREQ(small, "abcdefg");
  char exact[4] = "ab";
  EXPECT_EQ(AppendBounded(exact, sizeof exact, "c"), 3u);
  EXPECT_STREQ(exact, "abc");
  char formatted[6];
  EXPECT_EQ(FormatBounded(formatted, sizeof formatted, "%s-%d", "xyz", 123), 7);
  EXPECT_STREQ(formatted, "xyz-1");
}

// A secret is overwritten with zero bytes up to its terminator; what lies
// beyond it is not touched, and a missing text is no error.
TEST(Wiping, TextIsZeroedUpToItsTerminatorAndHeapCopiesAreFreed) {
  const char* cases[] = {"Sup3rS3cret", "x", "", "with blanks and: colons"};
  for (const char* text : cases) {
    SCOPED_TRACE(text);
    const size_t length = strlen(text);
    std::string buffer = std::string(text) + '\0' + "after";
    WipeText(buffer.data());
    EXPECT_EQ(buffer, std::string(length, '\0') + '\0' + "after");
    char* copy = strdup(text);
    WipeAndFree(&copy);
    EXPECT_EQ(copy, nullptr);
  }
  char* none = nullptr;
  WipeText(none);
  WipeAndFree(&none);
  EXPECT_EQ(none, nullptr);
  char bytes[6] = {'a', 'b', 'c', 'd', 'e', 'f'};
  WipeBytes(bytes + 1, 4);
  EXPECT_EQ(std::string(bytes, 6), std::string("a\0\0\0\0f", 6));
}

TEST(Scaling, DecimalStepsAbove2000AndBinaryAbove2048) {
  char unit = '?';
  EXPECT_DOUBLE_EQ(ScaleDecimal(2000, &unit), 2000);
  EXPECT_EQ(unit, ' ');
  EXPECT_DOUBLE_EQ(ScaleDecimal(2001, &unit), 2.001);
  EXPECT_EQ(unit, 'K');
  EXPECT_DOUBLE_EQ(ScaleDecimal(2e6, &unit), 2000);
  EXPECT_EQ(unit, 'K');
  EXPECT_DOUBLE_EQ(ScaleDecimal(3e6, &unit), 3);
  EXPECT_EQ(unit, 'M');
  EXPECT_DOUBLE_EQ(ScaleDecimal(5e15, &unit), 5e6);  // stops at G
  EXPECT_EQ(unit, 'G');
  EXPECT_DOUBLE_EQ(ScaleBinary(2048, &unit), 2048);
  EXPECT_EQ(unit, ' ');
  EXPECT_DOUBLE_EQ(ScaleBinary(4096, &unit), 4);
  EXPECT_EQ(unit, 'k');
  EXPECT_DOUBLE_EQ(ScaleBinary(2.0 * 1024 * 1024, &unit), 2048);
  EXPECT_EQ(unit, 'k');
  EXPECT_DOUBLE_EQ(ScaleBinary(3.0 * 1024 * 1024, &unit), 3);
  EXPECT_EQ(unit, 'M');
  EXPECT_DOUBLE_EQ(ScaleBinary(1024.0 * 1024 * 1024 * 4096, &unit), 4096);
  EXPECT_EQ(unit, 'G');
}

TEST(StringList, KeepsOrderAbsentSecondsAndSurvivesClearing) {
  StringList* list = NewStringList();
  ASSERT_NE(list, nullptr);
  ClearStringList(list);  // clearing an empty list leaves it empty
  EXPECT_EQ(list->count, 0);
  AppendStringPair(list, "/a", nullptr);
  AppendStringPair(list, "/b", "/c");
  ASSERT_EQ(list->count, 2);
  EXPECT_STREQ(list->first->first, "/a");
  EXPECT_EQ(list->first->second, nullptr);
  EXPECT_STREQ(list->first->next->second, "/c");
  EXPECT_EQ(list->last, list->first->next);
  ClearStringList(list);
  EXPECT_EQ(list->count, 0);
  EXPECT_EQ(list->first, nullptr);
  EXPECT_EQ(list->last, nullptr);
  AppendStringPair(list, "/d", "");
  EXPECT_EQ(list->first, list->last);
  EXPECT_STREQ(list->first->second, "");  // empty, not absent
  FreeStringList(list);
}

}  // namespace
