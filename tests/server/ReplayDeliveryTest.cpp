#include "server/ReplayDelivery.h"

#include <gtest/gtest.h>

namespace {

namespace srv = ReplayServer;
using Clock = std::chrono::steady_clock;

// Reports with nothing outstanding bank no credit; a gap report carries the
// running total of missed records and is not a record's own report.
TEST(ReplayDeliveryTracker, CountsReportsOnlyAgainstOutstandingRecords) {
    srv::ReplayDeliveryTracker tracker;
    tracker.NoteReport("gps", "#replay");
    tracker.NoteSent("gps");
    tracker.NoteReport("gps", "#replay");
    tracker.NoteReport("gps", "#replay");
    tracker.NoteSent("gps");
    tracker.NoteSent("gps");
    tracker.NoteReport("gps", "#replay d=3;");
    tracker.NoteReport("gps", "#replay d=5;");
    tracker.NoteReport("gps", "#replay w=Checksum Error;");
    tracker.NoteReport("gps", "#stop");
    tracker.NoteReport("gps", "#record");

    srv::ClientDelivery gps = tracker.Get("gps");
    EXPECT_EQ(gps.recordsSent, 3u);
    EXPECT_EQ(gps.recordsReported, 2u);
    EXPECT_EQ(gps.missed, 5u);
    EXPECT_EQ(gps.checksumErrors, 1u);
    EXPECT_EQ(gps.lastReport, "w=Checksum Error");
    EXPECT_EQ(tracker.Outstanding("gps"), 1u);
}

TEST(ReplayDeliveryTracker, ReportsAreTimedAgainstTheirRecordsMomentsAndEarlyPingsSkipped) {
    srv::ReplayDeliveryTracker tracker;
    const int64_t nowUs =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
            .count();
    tracker.NoteSent("odo", nowUs - 3000, 1000);      // due 3 ms ago
    tracker.NoteSent("odo", nowUs + 60000000, 1100);  // due in a minute
    tracker.NoteReport("odo", "#replay");
    tracker.NoteReport("odo", "#replay");  // a ping: the second is not due
    const srv::ClientDelivery odo = tracker.Get("odo");
    EXPECT_EQ(odo.recordsReported, 1u);
    ASSERT_EQ(odo.timing.items, 1u);
    EXPECT_GE(odo.timing.MaxMs(), 3.0);
    EXPECT_LT(odo.timing.MaxMs(), 3000.0);
}

TEST(DeliveryTiming, PercentilesComeFromTheBucketsAndTheTailFromTheMaximum) {
    srv::DeliveryTiming timing;
    for (int i = 0; i < 98; ++i) {
        timing.Add(i, i % 2 == 0 ? 400 : -400);
    }
    timing.Add(98, 150000);
    timing.Add(99, 20000000);
    EXPECT_DOUBLE_EQ(timing.PercentileMs(0.98), 0.5);
    EXPECT_DOUBLE_EQ(timing.PercentileMs(0.99), 160.0);
    EXPECT_DOUBLE_EQ(timing.PercentileMs(1.0), 20000.0);
    EXPECT_NEAR(timing.MeanMs(), (98 * 0.4 + 150.0 + 20000.0) / 100, 1e-9);
}

TEST(DeliveryTiming, BucketEdgesAtTheSwitchToCoarseBuckets) {
    using Timing = srv::DeliveryTiming;
    EXPECT_EQ(Timing::BucketOf(99999), Timing::kFineBuckets - 1);
    EXPECT_EQ(Timing::BucketOf(100000), Timing::kFineBuckets);
    EXPECT_EQ(Timing::BucketEndUs(Timing::kFineBuckets - 1), 100000);
    EXPECT_EQ(Timing::BucketEndUs(Timing::kFineBuckets), 110000);
    EXPECT_EQ(Timing::BucketOf(9989999), Timing::kBuckets - 2);
    EXPECT_EQ(Timing::BucketOf(9990000), Timing::kBuckets - 1);
    EXPECT_EQ(Timing::BucketOf(INT64_MAX / 2), Timing::kBuckets - 1);
}

}  // namespace
