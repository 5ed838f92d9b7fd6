#include "server/RecordReorderBuffer.h"

#include <gtest/gtest.h>

namespace {

using ReplayServer::RecordReorderBuffer;
using Clock = RecordReorderBuffer::Clock;
using std::chrono::milliseconds;

struct Collected {
    RecordReorderBuffer::Sink Sink() {
        return [this](const std::string& record) {
            std::lock_guard<std::mutex> lock(mutex);
            records.push_back(record);
            return true;
        };
    }
    std::mutex mutex;
    std::vector<std::string> records;
};

const Clock::time_point kT0 = Clock::now();

void Add(RecordReorderBuffer& buffer, int64_t timeMs, const std::string& text,
         Clock::time_point arrival = kT0) {
    ASSERT_TRUE(buffer.Add(timeMs, text.data(), text.size(), arrival));
}

// Without Start(), only the test's calls pass records on.
TEST(RecordReorderBufferTest, HoldEndsExactlyAtItsDueTimeAndRecordsLeaveInRecordTimeOrder) {
    Collected sink;
    RecordReorderBuffer buffer(1000, 1 << 20, sink.Sink());
    Add(buffer, 9000, "recent");
    buffer.ReleaseDue(kT0 + milliseconds(999));
    EXPECT_TRUE(sink.records.empty());
    buffer.ReleaseDue(kT0 + milliseconds(1000));
    EXPECT_EQ(sink.records, std::vector<std::string>{"recent"});
    EXPECT_EQ(buffer.ReleasedEarly(), 0u) << "released at its due time is not early";

    Add(buffer, 7000, "b", kT0 + milliseconds(2000));
    Add(buffer, 6000, "a", kT0 + milliseconds(2000));
    Add(buffer, 7000, "c", kT0 + milliseconds(2000));
    Add(buffer, 5000, "slow client, sent late", kT0 + milliseconds(2500));
    // The oldest arrived last: its hold keeps the rest.
    buffer.ReleaseDue(kT0 + milliseconds(3499));
    EXPECT_EQ(buffer.HeldRecords(), 4u);
    buffer.ReleaseDue(kT0 + milliseconds(3500));
    EXPECT_EQ(sink.records,
              (std::vector<std::string>{"recent", "slow client, sent late", "a", "b", "c"}));
}

TEST(RecordReorderBufferTest, FrozenBufferKeepsDueRecordsForAnOlderLateBlock) {
    Collected sink;
    RecordReorderBuffer buffer(1000, 1 << 20, sink.Sink());
    Add(buffer, 9000, "held past its hold");
    buffer.Freeze(true);
    buffer.ReleaseDue(kT0 + milliseconds(5000));
    EXPECT_TRUE(sink.records.empty());
    Add(buffer, 7000, "late block");
    buffer.Freeze(false);
    buffer.ReleaseDue(kT0 + milliseconds(5000));
    EXPECT_EQ(sink.records, (std::vector<std::string>{"late block", "held past its hold"}));
}

TEST(RecordReorderBufferTest,
     AboveThreeQuartersFullTheOldestLeaveEarlyAndOnlyThePastTheLimitIsRefused) {
    Collected sink;
    RecordReorderBuffer buffer(60000, 40, sink.Sink());  // high water: 30 bytes
    Add(buffer, 300, "third-----");
    Add(buffer, 100, "first-----");
    Add(buffer, 200, "second----");
    buffer.ReleaseDue(kT0);
    EXPECT_TRUE(sink.records.empty());
    Add(buffer, 400, "fourth----");
    buffer.ReleaseDue(kT0);
    EXPECT_EQ(sink.records, std::vector<std::string>{"first-----"});
    EXPECT_EQ(buffer.ReleasedEarly(), 1u);

    Add(buffer, 500, "fifth-----");  // exactly the limit
    EXPECT_FALSE(buffer.Add(600, "x", 1, kT0));
    EXPECT_EQ(buffer.Refused(), 1u);
    buffer.Drain();
    EXPECT_TRUE(buffer.Add(600, "sixth-----", 10, kT0));
}

TEST(RecordReorderBufferTest, StopPassesOnEverythingHeldAndSinkFailuresAreCounted) {
    std::vector<std::string> passed;
    RecordReorderBuffer buffer(60000, 1 << 20, [&](const std::string& record) {
        passed.push_back(record);
        return record != "refused by the writer";
    });
    buffer.Start();
    Add(buffer, 2, "refused by the writer");
    Add(buffer, 1, "first");
    buffer.Stop();
    EXPECT_EQ(passed, (std::vector<std::string>{"first", "refused by the writer"}));
    EXPECT_EQ(buffer.SinkFailures(), 1u);
}

TEST(RecordReorderBufferTest, ConcurrentProducersAndDrainsLoseNothing) {
    Collected sink;
    RecordReorderBuffer buffer(1, 1 << 24, sink.Sink());
    buffer.Start();
    constexpr int kProducers = 3;
    constexpr int kRecords = 2000;
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&buffer, p] {
            for (int i = 0; i < kRecords; ++i) {
                const std::string text = std::to_string(p) + ":" + std::to_string(i);
                buffer.Add(i, text.data(), text.size());
                if (i % 500 == 0) {
                    buffer.Drain();
                }
            }
        });
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    buffer.Stop();
    const std::vector<std::string> records = sink.records;
    ASSERT_EQ(records.size(), static_cast<size_t>(kProducers * kRecords));
    std::vector<int> next(kProducers, 0);
    for (const std::string& record : records) {
        const int producer = record[0] - '0';
        EXPECT_EQ(record.substr(2), std::to_string(next[producer]++));
    }
}

}  // namespace
