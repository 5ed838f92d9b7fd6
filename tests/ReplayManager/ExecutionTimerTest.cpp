#include "libreplay/ExecutionTimer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "libreplay/ReplayCore.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayCore::ExecutionTimer;
using ReplayCore::ExecutionTimerManager;
using ReplayTest::CapturedDebug;

// Timers read an injected clock set in milliseconds with Now().
class ExecutionTimerTest : public ReplayTest::TargetRootTest {
  protected:
    void Now(int64_t milliseconds) { m_clock.Set(milliseconds); }

    ReplayTest::ManualClock m_clock{10000};
};

TEST_F(ExecutionTimerTest, SumsIntervalsInMicroseconds) {
    CapturedDebug debug;
    ExecutionTimer timer("send");
    EXPECT_EQ(
        debug.Count(CapturedDebug::kMessage,
                    "test::libReplay::ExecutionTimer::ctor: Creating Execution Timer send \n"),
        1);
    // The base is the construction second: the clock reads from 0 there.
    EXPECT_EQ(timer.CurrentTime(), 0u);

    Now(11000);
    EXPECT_EQ(timer.Start(), 1000000u);
    Now(12500);
    EXPECT_EQ(timer.Stop(), 2500000u);
    Now(20000);
    timer.Start();
    Now(20500);
    timer.Stop();
    EXPECT_EQ(timer.GetTotalTime(), 2000000u);
    EXPECT_EQ(timer.GetCalls(), 2u);

    debug.Clear();
    timer.DisplayTime();
    EXPECT_EQ(debug.Count(CapturedDebug::kMessage,
                          "test::libReplay::ExecutionTimer::DisplayTime: Timer send: "
                          "TotalTime=2000000; Calls=2; Average Time: 1.000000 seconds\n"),
              1)
        << debug.Dump();
}

TEST_F(ExecutionTimerTest, UnstoppedTimerPrintsOnlyWhenRunningAtDestruction) {
    CapturedDebug debug;
    {
        ExecutionTimer idle("idle");
        idle.DisplayTime();
    }
    EXPECT_EQ(debug.Count("DisplayTime"), 0) << debug.Dump();

    {
        ExecutionTimer running("running");
        Now(10250);
        running.Start();
        Now(10750);
    }
    EXPECT_EQ(debug.Count(CapturedDebug::kMessage,
                          "Timer running: TotalTime=500000; Calls=1; Average Time: 0.500000"),
              1)
        << debug.Dump();
}

// 32-bit microseconds wrap after 4294.967296 s; an interval across the wrap
// still comes out right.
TEST_F(ExecutionTimerTest, ThirtyTwoBitClockWraps) {
    Now(1000);
    ExecutionTimer timer("wrap");
    Now(4295000);  // 4294 s after the base second
    EXPECT_EQ(timer.Start(), 4294000000u);
    Now(4296000);
    EXPECT_EQ(timer.Stop(), 32704u);  // 4295000000 mod 2^32
    EXPECT_EQ(timer.GetTotalTime(), 1000000u);

    // Constructed after the wrap, the base second itself is taken modulo 2^32
    // microseconds: 5000 s gives a base of 705 s.
    Now(5000000);
    ExecutionTimer late("late");
    EXPECT_EQ(late.CurrentTime(), 32704u);  // (5000 - 705) s, modulo 2^32 microseconds
}

// The manager is process-wide; tests use names of their own and work with
// whatever other tests in the same process have left.
TEST_F(ExecutionTimerTest, FiftyFirstNameSharesTheLastTimer) {
    CapturedDebug debug;
    ExecutionTimerManager& manager = ExecutionTimerManager::Get();
    ExecutionTimer& named = manager.GetTimer("manager-a");
    EXPECT_EQ(&manager.GetTimer("manager-a"), &named);
    for (int i = 0; manager.GetCount() < ExecutionTimerManager::kMaximumTimers; ++i) {
        manager.GetTimer("fill-" + std::to_string(i));
    }
    EXPECT_EQ(debug.Count("Maximum Number of Execution timers Exceeded"), 0);

    ExecutionTimer& extra = manager.GetTimer("one too many");
    EXPECT_EQ(manager.GetCount(), 50u);
    EXPECT_EQ(debug.Count(CapturedDebug::kError,
                          "test::libReplay::ExecutionTimer::GetTimer: Maximum Number of Execution "
                          "timers Exceeded\n"),
              1);
    ExecutionTimer& another = manager.GetTimer("yet another");
    EXPECT_EQ(&extra, &another);
    EXPECT_NE(extra.GetName(), "one too many");  // it keeps the 50th name

    debug.Clear();
    Now(10100);
    extra.Start();
    Now(10400);
    extra.Stop();
    manager.DisplayTimes();
    EXPECT_EQ(debug.Count(CapturedDebug::kMessage,
                          "libReplay::ExecutionTimerManager::DisplayTimes: 50 Timers Total\n"),
              1);
    const std::string expected = "Timer " + extra.GetName() +
                                 ": TotalTime=" + std::to_string(extra.GetTotalTime()) +
                                 "; Calls=" + std::to_string(extra.GetCalls()) + ";";
    EXPECT_EQ(debug.Count(CapturedDebug::kMessage, expected), 1) << debug.Dump();
}

}  // namespace
