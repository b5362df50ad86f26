// JSON strings of arbitrary bytes, and the failure line a thread last
// printed (what the run summary gives as an object's reason).
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <thread>

#include "support/json.h"
#include "support/log.h"

namespace {

std::string Quoted(std::string_view text) {
  std::string out;
  AppendJsonString(&out, text);
  return out;
}

struct EscapeCase {
  const char* what;
  std::string input;
  std::string json;
};

TEST(JsonString, EscapesWhatJsonForbidsAndKeepsEveryByte) {
  const EscapeCase cases[] = {
      {"plain", "/QSYS.LIB/PAY.LIB", "\"/QSYS.LIB/PAY.LIB\""},
      {"empty", "", "\"\""},
      {"quote and backslash", "a\"b\\c", "\"a\\\"b\\\\c\""},
      {"short escapes", "\b\f\n\r\t", "\"\\b\\f\\n\\r\\t\""},
      {"other controls", std::string("\x01\x1f\x7f", 3), "\"\\u0001\\u001f\\u007f\""},
      {"nul inside", std::string("a\0b", 3), "\"a\\u0000b\""},
      {"two-byte UTF-8", "caf\xc3\xa9", "\"caf\xc3\xa9\""},
      {"three-byte UTF-8", "\xe2\x82\xac", "\"\xe2\x82\xac\""},
      {"four-byte UTF-8", "\xf0\x9f\x98\x80", "\"\xf0\x9f\x98\x80\""},
      {"Latin-1 byte", "caf\xe9", "\"caf\\u00e9\""},
      {"stray continuation", "\x80x", "\"\\u0080x\""},
      {"cut sequence at the end", "a\xe2\x82", "\"a\\u00e2\\u0082\""},
      {"cut sequence before ASCII", "\xc3(", "\"\\u00c3(\""},
      {"overlong slash", "\xc0\xaf", "\"\\u00c0\\u00af\""},
      {"overlong three-byte", "\xe0\x80\xaf", "\"\\u00e0\\u0080\\u00af\""},
      {"surrogate", "\xed\xa0\x80", "\"\\u00ed\\u00a0\\u0080\""},
      {"beyond U+10FFFF", "\xf4\x90\x80\x80", "\"\\u00f4\\u0090\\u0080\\u0080\""},
      {"highest code point", "\xf4\x8f\xbf\xbf", "\"\xf4\x8f\xbf\xbf\""},
      {"invalid lead byte", "\xff", "\"\\u00ff\""},
  };
  for (const EscapeCase& c : cases) EXPECT_EQ(Quoted(c.input), c.json) << c.what;
}

TEST(JsonString, AppendsAfterWhatIsThere) {
  std::string out = "[";
  AppendJsonString(&out, "x");
  AppendJsonString(&out, "y");
  EXPECT_EQ(out, "[\"x\"\"y\"");
}

TEST(FailureLine, IsTheLastStandardErrorMessageOfTheThread) {
  ForgetFailureLine();
  std::string line;
  EXPECT_FALSE(LastFailureLine(&line));
  LogMessageTo(stderr, "first %d\n", 1);
  LogMessageTo(stderr, "RSTLIB command failed\n  550 %s\n", "CPF3743 nothing");
  LogMessage("progress lines are no failure\n");
  ASSERT_TRUE(LastFailureLine(&line));
  EXPECT_EQ(line, "RSTLIB command failed\n  550 CPF3743 nothing");
  // Another thread's failures are its own.
  std::thread other([] {
    std::string seen;
    EXPECT_FALSE(LastFailureLine(&seen));
    LogMessageTo(stderr, "elsewhere\n");
  });
  other.join();
  ASSERT_TRUE(LastFailureLine(&line));
  EXPECT_EQ(line, "RSTLIB command failed\n  550 CPF3743 nothing");
  ForgetFailureLine();
  EXPECT_FALSE(LastFailureLine(&line));
}

}  // namespace
