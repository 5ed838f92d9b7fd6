#include "reference/src/process_signals.h"

#include <gtest/gtest.h>
#include <pthread.h>

namespace {

TEST(StopSignalTest, ABlockedStopSignalIsTakenByTheWaitAndNothingElseIs) {
    ReplayPlatform::BlockStopSignals();
    EXPECT_FALSE(ReplayPlatform::WaitForStopSignal(0));
    EXPECT_FALSE(ReplayPlatform::WaitForStopSignal(20));
    ASSERT_EQ(pthread_kill(pthread_self(), SIGTERM), 0);  // stays pending: blocked
    EXPECT_TRUE(ReplayPlatform::WaitForStopSignal(0));
    EXPECT_FALSE(ReplayPlatform::WaitForStopSignal(0));  // taken once
    // A write to a pipe without reader now fails instead of ending the test.
    EXPECT_EQ(signal(SIGPIPE, SIG_IGN), SIG_IGN);
}

}  // namespace
