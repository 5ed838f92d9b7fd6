#include "reference/src/assert.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(AssertTest, ExpressionFormPrintsOneLineAndYieldsFalse) {
    testing::internal::CaptureStdout();
    const bool result = assertAndReturnFalse("0<mClients.size() && index < mClients.size()", 1433,
                                             "reference/src/operating_system");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "ASSERTION, \"0<mClients.size() && index < mClients.size()\", LINE: 1433 FILE: "
              "reference/src/operating_system\n");
    EXPECT_FALSE(result);
}

TEST(AssertTest, FormattedFormPrintsTheSameLineInOrder) {
    testing::internal::CaptureStdout();
    EXPECT_FALSE(assertAndReturnFalse(1, "a", "index %d of %s", 5, "list"));
    assertAndReturnFalse("second", 2, "b");
    assertAndReturnFalse(3, "c", "%s", "third");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "ASSERTION, \"index 5 of list\", LINE: 1 FILE: a\n"
              "ASSERTION, \"second\", LINE: 2 FILE: b\n"
              "ASSERTION, \"third\", LINE: 3 FILE: c\n");
}

}  // namespace
