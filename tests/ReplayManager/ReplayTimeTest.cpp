#include <atomic>
#include <thread>

#include "ReplayManager/ExecutionTimer.h"
#include "libreplay/ReplayCore.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayCore::MSTime;
using TimeValue = ReplayCore::MSTime::MSTimeStruct;

class ReplayTimeTest : public ReplayTest::TargetRootTest {
  protected:
    void Now(int64_t milliseconds) { m_clock.Set(milliseconds); }
    std::string LogText() const { return ReadTargetFile("/tmp/ReplayLog.txt"); }

    ReplayTest::ManualClock m_clock{1000};
};

unsigned int Slot(int64_t milliseconds) {
    return ReplayCore::GetTimeSlotFromTime(TimeValue(0, milliseconds));
}

TEST_F(ReplayTimeTest, SlotsRoundToTheNearestTenthAndTheClockWrapsEvery365Days) {
    const std::pair<int64_t, unsigned int> slots[] = {
        {1000, 0},  {1050, 0},  {1051, 1}, {1950, 9},
        {1951, 10}, {1999, 10}, {2000, 0}, {4294967296LL + 1051, 1}};
    for (const auto& slot : slots) {
        EXPECT_EQ(Slot(slot.first), slot.second) << slot.first;
    }
    Now(12345951);
    EXPECT_EQ(ReplayCore::GetTimeSlotFromCurrentTime(), 10u);
    Now(31536000LL * 1000 + 1234);
    EXPECT_EQ(MSTime::CurrentTimeMS().m_timeMilliseconds, 1234);
    Now(31536000LL * 1000 - 1);
    EXPECT_EQ(TimeValue::GetCurrentTimeMS().m_timeMilliseconds, 31536000LL * 1000 - 1);
    EXPECT_EQ(LogText(), "");

    EXPECT_EQ(Slot(2147483648LL + 150), static_cast<unsigned int>(-4));
    EXPECT_NE(LogText().find("milliseconds >= 0 at line 370 of ReplayManager/ReplayCore"),
              std::string::npos)
        << LogText();
    Now(31536000LL * 1000);
    EXPECT_EQ(TimeValue::GetCurrentTimeMS().m_timeMilliseconds, 0);
    EXPECT_NE(LogText().find("currentTime.m_timeMilliseconds > 0 at line 283 of "
                             "ReplayManager/ReplayCore"),
              std::string::npos)
        << LogText();
}

TEST(MSTimeTextTest, ParsingTakesDigitsAfterThePointAsMilliseconds) {
    struct Case {
        const char* text;
        int64_t seconds;
        int64_t milliseconds;
    };
    const Case cases[] = {
        {"7", 7, 7000},  {"7.250", 7, 7250},    {"7.25", 7, 7025}, {"12.5", 12, 12005},
        {"0.005", 0, 5}, {"-2.500", -2, -1500}, {"7.-5", 7, 7000}, {"abc", 0, 0},
        {".250", 0, 0},  {"3 .1", 3, 3000},
    };
    for (const Case& c : cases) {
        const TimeValue parsed{std::string(c.text)};
        EXPECT_EQ(parsed.m_timeSeconds, c.seconds) << '"' << c.text << '"';
        EXPECT_EQ(parsed.m_timeMilliseconds, c.milliseconds) << '"' << c.text << '"';
    }
}

// As the read thread resets the clock while senders stamp records (for TSan).
TEST_F(ReplayTimeTest, ClockCanBeSetWhileOthersReadIt) {
    MSTime clock;
    clock.SetStartTime(TimeValue(0, 1000000));
    std::atomic<bool> stop{false};
    std::atomic<int> reads{0};
    std::thread reader([&] {
        while (!stop.load()) {
            if (clock.ExecutionTimeMS().m_timeMilliseconds >= 1000000) {
                reads.fetch_add(1);
            }
        }
    });
    for (int i = 0; i < 200; ++i) {
        clock.SetStartTime(TimeValue(0, 1000000 + i));
    }
    EXPECT_TRUE(ReplayTest::WaitFor([&] { return reads.load() > 0; }, std::chrono::seconds(10)));
    stop.store(true);
    reader.join();
}

TEST_F(ReplayTimeTest, ExecutionTimerSumsIntervalsInMicrosecondsAcrossThe32BitWrap) {
    Now(1000);
    ReplayCore::ExecutionTimer timer("send");
    EXPECT_EQ(timer.CurrentTime(), 0u);
    Now(2000);
    EXPECT_EQ(timer.Start(), 1000000u);
    Now(3500);
    EXPECT_EQ(timer.Stop(), 2500000u);
    Now(4295000);
    EXPECT_EQ(timer.Start(), 4294000000u);
    Now(4296000);
    EXPECT_EQ(timer.Stop(), 32704u);  // 4295000000 mod 2^32
    EXPECT_EQ(timer.GetTotalTime(), 2500000u);
    EXPECT_EQ(timer.GetCalls(), 2u);

    // After the wrap the base second is taken modulo 2^32 us: 5000 s gives 705 s.
    Now(5000000);
    ReplayCore::ExecutionTimer late("late");
    EXPECT_EQ(late.CurrentTime(), 32704u);  // (5000 - 705) s, modulo 2^32 microseconds
}

}  // namespace
