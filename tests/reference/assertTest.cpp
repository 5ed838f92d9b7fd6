#include "reference/src/assert.h"

#include <gtest/gtest.h>

namespace {

TEST(AssertTest, BothFormsPrintOneLineEachAndYieldFalse) {
    testing::internal::CaptureStdout();
    EXPECT_FALSE(assertAndReturnFalse("0<mClients.size()", 1433, "reference/src/operating_system"));
    EXPECT_FALSE(assertAndReturnFalse(1, "a", "index %d of %s", 5, "list"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "ASSERTION, \"0<mClients.size()\", LINE: 1433 FILE: reference/src/operating_system\n"
              "ASSERTION, \"index 5 of list\", LINE: 1 FILE: a\n");
}

}  // namespace
