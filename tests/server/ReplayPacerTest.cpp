#include "server/ReplayPacer.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

namespace srv = ReplayServer;

TEST(ReplayPacerTest, WindowHoldsExactlyItsSizeAndGivesUpOnSilentClients) {
    srv::ReplayDeliveryTracker deliveries;
    srv::PacingSettings settings;
    settings.window = 3;
    settings.stallMs = 0;
    srv::ReplayPacer pacer(deliveries, settings);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(pacer.WaitForRoom("gps")) << "record " << i;
        deliveries.NoteSent("gps");
    }
    EXPECT_FALSE(pacer.WaitForRoom("gps"));
    EXPECT_EQ(pacer.Stalls(), 1u);
    deliveries.NoteSent("gps");
    EXPECT_TRUE(pacer.WaitForRoom("gps"));
    EXPECT_EQ(pacer.Stalls(), 1u);
    deliveries.NoteReport("gps", "#replay");
    EXPECT_FALSE(pacer.WaitForRoom("gps"));
    EXPECT_EQ(pacer.Stalls(), 2u);
    deliveries.NoteReport("gps", "#replay");
    EXPECT_TRUE(pacer.WaitForRoom("gps"));

    deliveries.NoteSent("gps");
    settings.stallMs = 60000;
    srv::ReplayPacer patient(deliveries, settings);
    std::thread client([&deliveries] {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        deliveries.NoteReport("gps", "#replay");
    });
    EXPECT_TRUE(patient.WaitForRoom("gps"));
    client.join();
    EXPECT_EQ(deliveries.Outstanding("gps"), 2u);

    // A wake (a cancelled replay) ends the wait.
    deliveries.NoteSent("gps");
    std::thread waker([&deliveries] {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        deliveries.Wake();
    });
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(patient.WaitForRoom("gps"));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
    EXPECT_EQ(patient.Stalls(), 0u);
    waker.join();
}

}  // namespace
