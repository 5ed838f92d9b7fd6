#include "logger/RecordQueue.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/ReplayManager/RecordText.h"

namespace {

using namespace std::chrono_literals;
using MulticoreLogService::RecordBatch;
using MulticoreLogService::RecordQueue;
using RecordText::Stored;

bool Add(RecordQueue& queue, const std::string& payload) {
    std::string framed;
    ReplayCore::LogFormat::FrameRecord(payload, framed);
    return queue.AddRecord(framed.data(), framed.size());
}

std::string Concatenated(const std::deque<RecordBatch>& batches, uint64_t* records = nullptr) {
    std::string all;
    uint64_t count = 0;
    for (const RecordBatch& batch : batches) {
        all += batch.stored;
        count += batch.records;
    }
    if (records != nullptr) {
        *records = count;
    }
    return all;
}

TEST(RecordQueueTest, RoomIsFreedOnlyWhenTheWriterReleasesAndRefusalsAreCounted) {
    const std::string record = Stored("a\n");
    RecordQueue queue(3 * record.size());
    EXPECT_TRUE(Add(queue, "a\n"));
    EXPECT_TRUE(Add(queue, "b\n"));
    queue.Commit();
    EXPECT_TRUE(Add(queue, "c\n"));
    EXPECT_FALSE(Add(queue, "d\n"));
    queue.Commit();
    EXPECT_EQ(queue.DroppedRecords(), 1u);

    std::deque<RecordBatch> taken;
    std::string console;
    ASSERT_TRUE(queue.Take(taken, console, 0ms));
    EXPECT_EQ(Concatenated(taken), Stored("a\n") + Stored("b\n") + Stored("c\n"));
    EXPECT_EQ(queue.HeldBytes(), 3 * record.size());

    EXPECT_FALSE(Add(queue, "e\n"));
    EXPECT_FALSE(queue.AddReconnect());
    EXPECT_EQ(queue.DroppedRecords(), 2u);
    for (RecordBatch& batch : taken) {
        queue.Release(std::move(batch));
    }
    taken.clear();
    EXPECT_EQ(queue.HeldBytes(), 0u);
    EXPECT_TRUE(Add(queue, "f\n"));
    queue.Commit();
    ASSERT_TRUE(queue.Take(taken, console, 0ms));
    EXPECT_EQ(Concatenated(taken), Stored("f\n"));
}

TEST(RecordQueueTest, CommitsWhileTheWriterIsBusyKeepArrivalOrderAndConsoleTextHasItsOwnRoom) {
    RecordQueue queue(64 * 1024, 8);
    std::string expected;
    for (int i = 0; i < 50; ++i) {
        const std::string payload = "!" + std::to_string(i) + "\n";
        ASSERT_TRUE(Add(queue, payload));
        expected += Stored(payload);
        if (i == 20) {
            ASSERT_TRUE(queue.AddReconnect());
            ReplayCore::LogFormat::AppendReconnectLine(expected);
        }
        queue.Commit();
    }
    EXPECT_TRUE(queue.AddConsoleText("q\tone\n", 6));
    EXPECT_FALSE(queue.AddConsoleText("q\ttwo\n", 6));
    queue.Commit();

    std::deque<RecordBatch> taken;
    std::string console;
    ASSERT_TRUE(queue.Take(taken, console, 0ms));
    EXPECT_EQ(console, "q\tone\n");
    ASSERT_TRUE(Add(queue, "late\n"));
    queue.Commit();
    ASSERT_TRUE(queue.Take(taken, console, 0ms));
    expected += Stored("late\n");
    uint64_t records = 0;
    EXPECT_EQ(Concatenated(taken, &records), expected);
    EXPECT_EQ(records, 51u);                           // the reconnect line is not a record
    EXPECT_TRUE(queue.AddConsoleText("q\ttwo\n", 6));  // taken text frees the lane
}

TEST(RecordQueueTest, WaitingWriterWakesOnCommitAndSeesTheRestAfterClose) {
    RecordQueue queue(1024 * 1024);
    std::deque<RecordBatch> taken;
    std::string console;
    const auto start = std::chrono::steady_clock::now();
    std::thread reader([&] {
        ASSERT_TRUE(Add(queue, "x\n"));
        queue.Commit();
        ASSERT_TRUE(Add(queue, "y\n"));
        queue.Commit();
        queue.Close();
    });
    while (queue.Take(taken, console, 30s)) {
    }
    reader.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
    EXPECT_EQ(Concatenated(taken), Stored("x\n") + Stored("y\n"));
    EXPECT_FALSE(queue.Take(taken, console, 0ms));
}

}  // namespace
