#include "server/ReplayPacer.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

namespace srv = ReplayServer;

srv::PlannedRecord WithGap(int64_t gapMs) {
    srv::PlannedRecord record;
    record.gapMs = gapMs;
    return record;
}

// Close behind its client's previous item a record goes out at its moment
// (the client would hand it over at once on taking it up); otherwise ahead.
TEST(ReplayPacerTest, SendsCloseItemsAtTheirMomentAndOthersAhead) {
    srv::ReplayDeliveryTracker deliveries;
    srv::PacingSettings settings;
    settings.serverLeadTimeMs = 100;
    settings.atMomentWithinMs = 15;
    settings.atMomentLeadUs = 700;
    srv::ReplayPacer pacer(deliveries, settings);
    EXPECT_EQ(pacer.LeadUs(WithGap(-1)), 100000);  // a client's first item
    EXPECT_EQ(pacer.LeadUs(WithGap(0)), 700);      // a burst
    EXPECT_EQ(pacer.LeadUs(WithGap(5)), 700);      // 200 Hz
    EXPECT_EQ(pacer.LeadUs(WithGap(10)), 700);     // 100 Hz
    EXPECT_EQ(pacer.LeadUs(WithGap(15)), 700);
    EXPECT_EQ(pacer.LeadUs(WithGap(16)), 100000);
    EXPECT_EQ(pacer.LeadUs(WithGap(20)), 100000);  // 50 Hz
}

// A full window waits for the client's report; a client that stays silent
// is given up once and then not waited for until it reports again.
TEST(ReplayPacerTest, WindowWaitsForReportsAndGivesUpOnSilentClients) {
    srv::ReplayDeliveryTracker deliveries;
    srv::PacingSettings settings;
    settings.window = 3;
    settings.stallMs = 50;
    srv::ReplayPacer pacer(deliveries, settings);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(pacer.WaitForRoom("gps"));
        deliveries.NoteSent("gps");
    }
    std::thread client([&deliveries] {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        deliveries.NoteReport("gps", "#replay");
    });
    settings.stallMs = 10000;
    srv::ReplayPacer patient(deliveries, settings);
    EXPECT_TRUE(patient.WaitForRoom("gps"));
    client.join();
    EXPECT_EQ(deliveries.Outstanding("gps"), 2u);
    deliveries.NoteSent("gps");

    // Silent: one stall, after which sends go on unpaced.
    EXPECT_FALSE(pacer.WaitForRoom("gps"));
    EXPECT_EQ(pacer.Stalls(), 1u);
    deliveries.NoteSent("gps");
    EXPECT_TRUE(pacer.WaitForRoom("gps"));
    EXPECT_EQ(pacer.Stalls(), 1u);
    // Reporting again: paced again (4 outstanding, window 3).
    deliveries.NoteReport("gps", "#replay");
    EXPECT_FALSE(pacer.WaitForRoom("gps"));
    EXPECT_EQ(pacer.Stalls(), 2u);

    // A wake (a cancelled replay) ends the wait at once.
    settings.stallMs = 60000;
    srv::ReplayPacer cancelled(deliveries, settings);
    std::thread waker([&deliveries] {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        deliveries.Wake();
    });
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(cancelled.WaitForRoom("gps"));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
    EXPECT_EQ(cancelled.Stalls(), 0u);
    waker.join();
}

}  // namespace
