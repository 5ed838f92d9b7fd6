#include "libreplay/server/ReplayLogManager.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "libreplay/server/ReplayLogRecord.h"
#include "tests/ReplayManager/ServerTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayCore::MSTime;
using ReplayTest::CapturedDebug;
using ServerTest::DataRecord;
using ServerTest::SplitFramedRecords;
using ServerTest::StatusRecord;

const std::chrono::milliseconds kDeadline(10000);

class ReplayLogManagerTest : public ServerTest::LoggerChannelTest {
  protected:
    void TearDown() override {
        m_thread.reset();
        LoggerChannelTest::TearDown();
    }

    std::vector<std::string> Stored() const { return SplitFramedRecords(ReadTargetFile(kChannel)); }
    std::vector<int64_t> StoredTimes() const {
        std::vector<int64_t> times;
        const std::vector<std::string> stored = Stored();
        for (size_t i = 1; i < stored.size(); ++i) {
            ReplayCore::LogClientRecord fields;
            times.push_back(ReplayCore::ParseLogClientRecord(stored[i], fields) ? fields.blockTimeMs
                                                                                : -1);
        }
        return times;
    }

    void StartWriter() {
        m_thread.reset(new LogWriterThread(m_state, 0, 10));
        m_thread->SetClientDataList(&m_clients);
        ASSERT_TRUE(m_thread->start());
        ASSERT_TRUE(ReplayTest::WaitFor([] { return LogWriterThread::PipeOpen(); }, kDeadline));
    }
    void Send(const std::vector<std::string>& records) {
        const unsigned int target = m_thread->GetMessagesProcessed() + records.size();
        for (const std::string& record : records) {
            ASSERT_EQ(LogWriterThread::WriteRecord(record.data(), record.size()),
                      static_cast<int>(record.size()));
        }
        ASSERT_TRUE(ReplayTest::WaitFor([&] { return m_thread->GetMessagesProcessed() >= target; },
                                        kDeadline));
    }
    static ReplayError Write(ReplayLogManager& manager, const std::string& name, int64_t ms,
                             unsigned int sequence, bool flush = false,
                             ClientDataList* clients = nullptr) {
        return manager.WriteClientDataToLog(name, MSTime::MSTimeStruct(0, ms), 2, sequence,
                                            DataRecord(name, ms, sequence), clients, flush);
    }

    ReplayCore::ReplayState m_state = ReplayCore::eStateRecord;
    ClientDataList m_clients;
    std::unique_ptr<LogWriterThread> m_thread;
};

TEST_F(ReplayLogManagerTest, OneClientBuffersUntilElevenDrainsAtTheLimitAndAStatusRecordFlushes) {
    MakeMediumAndChannel();
    StartWriter();
    const int64_t start = 100000;
    std::vector<std::string> records;
    for (unsigned int k = 0; k < 20; ++k) {
        records.push_back(DataRecord("nav", start + 100 * k, k + 1));
    }

    Send(std::vector<std::string>(records.begin(), records.begin() + 18));
    ASSERT_EQ(Stored(), std::vector<std::string>{"!100.000:multicore:\n"});

    // At 19 buffered the queue drains to one more than the known clients (one).
    Send({records[18]});
    std::vector<int64_t> expected;
    for (int64_t k = 0; k < 17; ++k) {
        expected.push_back(start + 100 * k);
    }
    EXPECT_EQ(StoredTimes(), expected);
    ASSERT_GE(Stored().size(), 2u);
    EXPECT_EQ(Stored()[1], records[0]);

    Send({records[19]});
    EXPECT_EQ(StoredTimes().size(), 17u);

    Send({StatusRecord("nav", start + 2000, "#stop")});
    expected.insert(expected.end(), {start + 1700, start + 1800, start + 1900, start + 2000});
    EXPECT_EQ(StoredTimes(), expected);
    EXPECT_EQ(Stored().back(), StatusRecord("nav", start + 2000, "#stop"));

    Send({DataRecord("nav", 600000, 21), StatusRecord("nav", 600100, "#stop"),
          StatusRecord("nav", 600200, "")});
    expected.insert(expected.end(), {600000, 600100});
    EXPECT_EQ(StoredTimes(), expected);
    EXPECT_EQ(Stored()[0], "!100.000:multicore:\n");
    EXPECT_FALSE(LogWriterThread::GetErrorStatus().IsError());
}

TEST_F(ReplayLogManagerTest, TwoClientsArrivingSwappedAreWrittenInTimeOrder) {
    MakeMediumAndChannel();
    m_clients.Append(ClientData(ServerTest::Address("127.0.0.1", 5001))).SetClientName("a");
    m_clients.Append(ClientData(ServerTest::Address("127.0.0.1", 5002))).SetClientName("b");
    StartWriter();
    std::vector<std::string> records;
    for (unsigned int k = 0; k < 20; ++k) {
        records.push_back(DataRecord("a", 301300 + 1000 * k, k + 1));
        records.push_back(DataRecord("b", 301000 + 1000 * k, k + 1));
    }
    Send(records);
    Send({StatusRecord("a", 321000, "#stop")});

    const std::vector<int64_t> times = StoredTimes();
    ASSERT_EQ(times.size(), 41u);
    for (size_t i = 1; i < times.size(); ++i) {
        EXPECT_LT(times[i - 1], times[i]) << "at " << i;
    }
    for (const ClientData& client : m_clients.Snapshot(true)) {
        EXPECT_EQ(client.GetPacketsKept(), client == "a" ? 21u : 20u);
    }
}

TEST_F(ReplayLogManagerTest, QueueWritesOldestWhileItSpansSixSecondsAndDropsLateRecords) {
    MakeMediumAndChannel();
    ReplayLogManager manager;
    const int64_t start = 200000;
    for (unsigned int k = 0; k <= 10; ++k) {
        EXPECT_FALSE(Write(manager, "nav", start + 1000 * k, k + 1, false, &m_clients).IsError());
    }
    EXPECT_EQ(StoredTimes(), (std::vector<int64_t>{start, start + 1000, start + 2000, start + 3000,
                                                   start + 4000}));
    const unsigned int buffered = manager.GetBufferCount();
    EXPECT_EQ(buffered, 6u);

    const int64_t last = manager.GetLastBlockTimestamp().m_timeMilliseconds;
    ASSERT_GE(last, start + 4000);
    CapturedDebug debug;
    const uint64_t droppedBefore = ReplayLogManager::LateRecordsDropped();
    const int64_t tooLate = last - 1001;
    EXPECT_FALSE(Write(manager, "gps", tooLate, 1).IsError());
    EXPECT_EQ(manager.GetBufferCount(), buffered);
    EXPECT_EQ(ReplayLogManager::LateRecordsDropped(), droppedBefore + 1);
    EXPECT_EQ(debug.Count(
                  "Client gps: Record Timestamp of " + MSTime::MSTimeStruct(0, tooLate).ToString() +
                  " Proceeds Last Block TimeStamp of " + MSTime::MSTimeStruct(0, last).ToString()),
              2);  // the warning record and the manager's own message

    const int64_t slightlyLate = last - 1000;  // exactly at the limit: kept
    Write(manager, "gps", slightlyLate, 2);
    EXPECT_EQ(manager.GetBufferCount(), buffered + 1);
    Write(manager, "nav", start + 20000, 30, true);
    const std::vector<std::string> stored = Stored();
    EXPECT_EQ(std::count(stored.begin(), stored.end(), DataRecord("gps", slightlyLate, 2)), 1);
    EXPECT_EQ(std::count(stored.begin(), stored.end(), DataRecord("gps", tooLate, 1)), 0);
    EXPECT_EQ(manager.GetBufferCount(), 0u);
}

TEST_F(ReplayLogManagerTest, CalibrationRecordsWaitForTheMedium) {
    ReplayLogManager manager;
    EXPECT_FALSE(Write(manager, "nav", 1100, 0).IsError());
    EXPECT_EQ(manager.GetBufferCount(), 1u);
    EXPECT_FALSE(ReplayLogger::Get().IsConnected());

    EXPECT_TRUE(Write(manager, "nav", 1200, 0, true).IsError());
    EXPECT_EQ(manager.GetBufferCount(), 2u);

    MakeMediumAndChannel();
    EXPECT_FALSE(Write(manager, "nav", 1300, 0, true).IsError());
    EXPECT_EQ(Stored().size(), 3u);
    EXPECT_EQ(manager.GetBufferCount(), 0u);
}

TEST_F(ReplayLogManagerTest, EqualTimesAreWrittenInArrivalOrder) {
    MakeMediumAndChannel();
    ReplayLogManager manager;
    for (unsigned int k = 0; k < 5; ++k) {
        const std::string name = "c" + std::to_string(k);
        Write(manager, name, 9000, 1, k == 4);
    }
    const std::vector<std::string> stored = Stored();
    ASSERT_EQ(stored.size(), 6u);
    // Write-out goes from the last slot: each arrival is placed in front of its equals.
    for (unsigned int k = 0; k < 5; ++k) {
        EXPECT_EQ(stored[k + 1], DataRecord("c" + std::to_string(k), 9000, 1));
    }
}

}  // namespace
