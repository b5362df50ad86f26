// The option table and the whole numbers options take.
#include <gtest/gtest.h>

#include "cli/options.h"

namespace {

TEST(Options, ShortOptionStringFollowsTheTable) {
  char out[57];
  BuildShortOptions(out, sizeof out);
  EXPECT_STREQ(out, "b:c:C:d:e:hi:l:m:n:p:r:s:tv::w:x:z:");
}

}  // namespace
