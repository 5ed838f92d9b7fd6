#include "server/RecordTimeWindow.h"

#include <gtest/gtest.h>

namespace {

using ReplayServer::RecordTimeWindow;

TEST(RecordTimeWindowTest, EachClientIsMeasuredOnItsOwnClockToTheWindowsEdge) {
    RecordTimeWindow window(60000);
    EXPECT_TRUE(window.Accept("gps", 5000000, 1000));
    EXPECT_TRUE(window.Accept("can", 20000, 1000));
    EXPECT_TRUE(window.Accept("gps", 5010000 + 60000, 11000));
    EXPECT_TRUE(window.Accept("gps", 5010000 - 60000, 11000));
    EXPECT_FALSE(window.Accept("gps", 5010000 + 60001, 11000));
    EXPECT_FALSE(window.Accept("can", 30000 - 60001, 11000));
    EXPECT_FALSE(window.Accept("can", 30000 + 3600000, 11000));
    EXPECT_TRUE(window.Accept("can", 30000, 11000));
    EXPECT_EQ(window.Refused(), 3u);

    // Records each just inside the window do not walk the clock forward.
    int64_t time = 30000;
    for (int step = 1; step <= 5; ++step) {
        time += 59000;
        window.Accept("can", time, 11000);
    }
    EXPECT_FALSE(window.Accept("can", 30000 + 5 * 59000, 11000));
}

TEST(RecordTimeWindowTest, ZeroAcceptsAnyTimeAndMadeUpNamesStayBounded) {
    RecordTimeWindow open(0);
    EXPECT_TRUE(open.Accept("gps", 0, 0));
    EXPECT_TRUE(open.Accept("gps", 3600000000LL, 0));

    RecordTimeWindow window(1000);
    ASSERT_TRUE(window.Accept("real", 0, 0));
    for (size_t n = 0; n < RecordTimeWindow::kMaximumNames + 10; ++n) {
        EXPECT_TRUE(window.Accept("f" + std::to_string(n), 0, 1 + static_cast<int64_t>(n)));
    }
    EXPECT_TRUE(window.Accept("real", 3600000, 5000));
    EXPECT_EQ(window.Refused(), 0u);
}

}  // namespace
