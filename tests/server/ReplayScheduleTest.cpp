#include "server/ReplaySchedule.h"

#include <gtest/gtest.h>

namespace {

using ReplayServer::ReplaySchedule;

constexpr int64_t kLogStart = 10000;
constexpr int64_t kClockStart = 500;

TEST(ReplaySchedule, PauseFreezesThePositionAndResumeGoesOnFromIt) {
    ReplaySchedule schedule(kLogStart, kClockStart);

    ASSERT_TRUE(schedule.Pause(kClockStart + 250));
    EXPECT_FALSE(schedule.Pause(kClockStart + 260)) << "already paused";
    EXPECT_TRUE(schedule.Paused());
    EXPECT_EQ(schedule.LogTimeAt(kClockStart + 60000), kLogStart + 250);
    EXPECT_EQ(schedule.DueAt(kLogStart + 251), ReplaySchedule::kNever);

    const int64_t resumed = kClockStart + 5250;
    ASSERT_TRUE(schedule.Resume(resumed));
    EXPECT_FALSE(schedule.Resume(resumed + 1)) << "not paused";
    EXPECT_EQ(schedule.DueAt(kLogStart + 300), resumed + 50);
    EXPECT_EQ(schedule.LogTimeAt(resumed + 10), kLogStart + 260);
    EXPECT_LT(schedule.DueAt(kLogStart + 100), resumed);
}

TEST(ReplaySchedule, RateScalesFromTheMomentItChangesWithoutMovingThePosition) {
    ReplaySchedule schedule(kLogStart, kClockStart);
    ASSERT_TRUE(schedule.SetRate(2.0, kClockStart + 100));
    EXPECT_EQ(schedule.LogTimeAt(kClockStart + 100), kLogStart + 100);
    EXPECT_EQ(schedule.LogTimeAt(kClockStart + 600), kLogStart + 1100);
    ASSERT_TRUE(schedule.SetRate(0.5, kClockStart + 600));

    EXPECT_FALSE(schedule.SetRate(0.09, kClockStart + 700));
    EXPECT_FALSE(schedule.SetRate(10.5, kClockStart + 700));
    EXPECT_FALSE(schedule.SetRate(0.0, kClockStart + 700));
    EXPECT_DOUBLE_EQ(schedule.Rate(), 0.5);
    EXPECT_TRUE(schedule.SetRate(ReplaySchedule::kMinimumRate, kClockStart + 700));
    EXPECT_TRUE(schedule.SetRate(ReplaySchedule::kMaximumRate, kClockStart + 700));

    ASSERT_TRUE(schedule.Pause(kClockStart + 800));
    const int64_t paused = schedule.LogTimeAt(kClockStart + 800);
    ASSERT_TRUE(schedule.SetRate(3.0, kClockStart + 900));
    EXPECT_TRUE(schedule.Paused());
    EXPECT_EQ(schedule.LogTimeAt(kClockStart + 5000), paused);
    ASSERT_TRUE(schedule.Resume(kClockStart + 1000));
    EXPECT_EQ(schedule.DueAt(paused + 300), kClockStart + 1100);
}

TEST(ReplaySchedule, AtAnyRateNoLogTimeIsDueBeforeItIsReached) {
    for (const double rate : {0.1, 0.3, 0.7, 1.0, 1.5, 3.0, 7.0, 10.0}) {
        ReplaySchedule schedule(kLogStart, kClockStart);
        ASSERT_TRUE(schedule.SetRate(rate, kClockStart + 7));
        for (int64_t log = kLogStart + 8; log < kLogStart + 3000; log += 13) {
            const int64_t due = schedule.DueAt(log);
            EXPECT_GE(schedule.LogTimeAt(due), log) << "rate " << rate << " log " << log;
            EXPECT_LT(schedule.LogTimeAt(due - 1), log) << "rate " << rate << " log " << log;
        }
    }
}

TEST(ReplaySchedule, SeekMovesThePositionBothWaysAndKeepsAPause) {
    ReplaySchedule schedule(kLogStart, kClockStart);
    schedule.Seek(kLogStart + 20000, kClockStart + 100);
    EXPECT_EQ(schedule.DueAt(kLogStart + 20040), kClockStart + 140);
    ASSERT_TRUE(schedule.SetRate(2.0, kClockStart + 200));
    ASSERT_TRUE(schedule.Pause(kClockStart + 300));
    schedule.Seek(kLogStart + 9000, kClockStart + 400);
    EXPECT_TRUE(schedule.Paused());
    EXPECT_EQ(schedule.LogTimeAt(kClockStart + 9999), kLogStart + 9000);
    ASSERT_TRUE(schedule.Resume(kClockStart + 1000));
    EXPECT_EQ(schedule.DueAt(kLogStart + 9100), kClockStart + 1050) << "the rate stays";
}

}  // namespace
