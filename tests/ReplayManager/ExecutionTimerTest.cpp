#include "ReplayManager/ExecutionTimer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "libreplay/ReplayCore.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayCore::ExecutionTimer;

// Timers read an injected clock set in milliseconds with Now().
class ExecutionTimerTest : public ReplayTest::TargetRootTest {
  protected:
    void Now(int64_t milliseconds) { m_clock.Set(milliseconds); }

    ReplayTest::ManualClock m_clock{10000};
};

TEST_F(ExecutionTimerTest, SumsIntervalsInMicrosecondsAcrossThe32BitWrap) {
    Now(1000);
    ExecutionTimer timer("send");
    // The base is the construction second: the clock reads from 0 there.
    EXPECT_EQ(timer.CurrentTime(), 0u);
    Now(2000);
    EXPECT_EQ(timer.Start(), 1000000u);
    Now(3500);
    EXPECT_EQ(timer.Stop(), 2500000u);
    // 32-bit microseconds wrap after 4294.967296 s; an interval across the
    // wrap still comes out right.
    Now(4295000);
    EXPECT_EQ(timer.Start(), 4294000000u);
    Now(4296000);
    EXPECT_EQ(timer.Stop(), 32704u);  // 4295000000 mod 2^32
    EXPECT_EQ(timer.GetTotalTime(), 2500000u);
    EXPECT_EQ(timer.GetCalls(), 2u);

    // Constructed after the wrap, the base second itself is taken modulo 2^32
    // microseconds: 5000 s gives a base of 705 s.
    Now(5000000);
    ExecutionTimer late("late");
    EXPECT_EQ(late.CurrentTime(), 32704u);  // (5000 - 705) s, modulo 2^32 microseconds
}

}  // namespace
