// The option table and the whole numbers options take.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <string>

#include "cli/argument_numbers.h"
#include "cli/options.h"

namespace {

TEST(Options, ShortOptionStringFollowsTheTable) {
  char out[57];
  BuildShortOptions(out, sizeof out);
  EXPECT_STREQ(out, "b:c:C:d:e:hi:l:m:n:p:r:s:tv::w:x:z:");
}

TEST(Options, ShortOptionStringStopsWhereItNoLongerFits) {
  // Each letter is written only while four more bytes fit ("v::" and the
  // terminating zero), so the string is always whole and terminated.
  struct Case {
    size_t capacity;
    const char* expected;
  };
  const Case cases[] = {{1, ""}, {4, "b:"}, {5, "b:"}, {6, "b:c:"}, {10, "b:c:C:d:"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.capacity);
    std::string out(c.capacity, '\x7f');
    BuildShortOptions(out.data(), c.capacity);
    EXPECT_STREQ(out.c_str(), c.expected);
  }
}

TEST(ArgumentNumbers, WholeLongTakesAnyBaseButOnlyTheWholeArgument) {
  struct Case {
    const char* text;
    bool whole;
    long value;
  };
  const Case cases[] = {
      {"4", true, 4},   {"0x1f", true, 31}, {"010", true, 8}, {"-3", true, -3}, {" 7", true, 7},
      {"+7", true, 7},  {"4x", false, 4},   {"", false, 0},   {"x", false, 0},  {"7 ", false, 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    long value = -99;
    EXPECT_EQ(WholeLong(c.text, &value), c.whole);
    EXPECT_EQ(value, c.value);
  }
  // Out of range: whole, but errno tells.
  long value = 0;
  EXPECT_TRUE(WholeLong("99999999999999999999999", &value));
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(value, LONG_MAX);
  EXPECT_TRUE(WholeLong("12", &value));
  EXPECT_EQ(errno, 0);
}

TEST(ArgumentNumbers, StrictIntegerTakesDecimalDigitsWithinTheBoundsOnly) {
  struct Case {
    const char* text;
    bool taken;
    long value;  // when taken
  };
  const Case cases[] = {
      {"0", true, 0},         {"-1", true, -1},     {"99999", true, 99999}, {"000120", true, 120},
      {"-2", false, 0},       {"100000", false, 0}, {"", false, 0},         {"-", false, 0},
      {" 5", false, 0},       {"+5", false, 0},     {"5 ", false, 0},       {"0x10", false, 0},
      {"1234567890", false, 0},  // more than nine digits
      {"000000001", true, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    long value = -99;
    EXPECT_EQ(StrictInteger(c.text, -1, 99999, &value), c.taken);
    if (c.taken) {
      EXPECT_EQ(value, c.value);
    }
  }
}

}  // namespace
