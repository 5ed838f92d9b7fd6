#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ReplayTest::ProcessTargetRoot root;
    return RUN_ALL_TESTS();
}
