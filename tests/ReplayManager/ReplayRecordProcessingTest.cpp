#include <cstring>
#include <string>
#include <vector>

#include "libreplay/ReplayClient.h"
#include "libreplay/server/ReplayError.h"
#include "ReplayManager/ReplayOutputFiler.h"
#include "tests/ReplayManager/ClientTestFixture.h"
#include "tests/ReplayManager/RecordText.h"

namespace {

using namespace ClientTest;
using RecordText::Ascii7;
using RecordText::Item;
using ReplayTest::CapturedDebug;

struct Delivery {
    std::string data;
    unsigned int clientTime;
    bool initialisation;
};

struct RecordingHandler : ReplayClient::ReplayMessageHandlerBase {
    RecordingHandler() : ReplayMessageHandlerBase(true) {}

    int ReplayCallback(void* data, unsigned int nBytes, unsigned int clientTime) override {
        deliveries.push_back(
            {std::string(static_cast<const char*>(data), nBytes), clientTime, false});
        return 1;
    }
    int InitializationCallback(void* data, unsigned int nBytes) override {
        deliveries.push_back({std::string(static_cast<const char*>(data), nBytes), 0, true});
        return 1;
    }
    std::vector<std::string> Data() const {
        std::vector<std::string> data;
        for (const Delivery& delivery : deliveries) {
            data.push_back(delivery.data);
        }
        return data;
    }

    std::vector<Delivery> deliveries;
};

inline std::vector<unsigned int> g_sleeps;
inline void AdvanceClock(unsigned int milliseconds) {
    g_sleeps.push_back(milliseconds);
    g_nowMs += milliseconds;
}

// The server sends blocks back without the final newline.
std::string Sent(const std::string& body) {
    const std::string record = RecordText::WithChecksum(body);
    return record.substr(0, record.size() - 1);
}

std::string MakeRecord(char type, const std::string& blockTime, const std::string& name,
                       unsigned int sequence, const std::string& items) {
    return Sent(RecordText::BlockBody(type, blockTime, name, sequence, items));
}

class ReplayRecordProcessingTest : public ClientFixture {
  protected:
    std::string ExtraOptions() override { return "networkingLatency:0;\n"; }

    void SetUp() override {
        ClientFixture::SetUp();
        g_sleeps.clear();
        ReplayClient::SynchronousReadThread::SetSleepForTesting(&AdvanceClock);
        g_replayMessageHandler.store(&m_handler);
    }
    void TearDown() override {
        clientReadThread.RequestStop();
        ReplayClient::SynchronousReadThread::SetSleepForTesting(nullptr);
        g_replayMessageHandler.store(nullptr);
        ClientFixture::TearDown();
    }

    void StartReplay(const std::string& logTime = "500.000") {
        Connect(ReplayCore::eStateStopped);
        Handle("#replay l=" + logTime + ";");
        ASSERT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateReplay);
    }
    int Process(std::string record) {
        return clientReadThread.ProcessReplayRecord(&record[0], static_cast<int>(record.size()));
    }
    int ReportsContaining(const std::string& fragment) {
        int count = 0;
        for (const std::string& datagram : Received()) {
            count += datagram.find(fragment) != std::string::npos ? 1 : 0;
        }
        return count;
    }
    int64_t ReplayNow() const {
        return clientReadThread.GetReplayClock().ExecutionTimeMS().m_timeMilliseconds;
    }

    RecordingHandler m_handler;
};

TEST_F(ReplayRecordProcessingTest, ItemsAreDeliveredAtTheirMomentsOnTheClientClock) {
    StartReplay();
    CapturedDebug debug;
    const std::string record = MakeRecord(
        '"', "500.000", "Tester", 1,
        "alpha" + Item("500.010", "near") + Item("500.200", "later") + Item("500.250", "last"));
    EXPECT_EQ(Process(record), 4);

    EXPECT_EQ(g_sleeps, (std::vector<unsigned int>{199, 50}));
    const std::vector<Delivery>& deliveries = m_handler.deliveries;
    ASSERT_EQ(deliveries.size(), 4u);
    EXPECT_EQ(m_handler.Data(), (std::vector<std::string>{"alpha", "near", "later", "last"}));
    EXPECT_EQ(deliveries[0].clientTime, 100000u);
    EXPECT_EQ(deliveries[2].clientTime, 100200u);
    EXPECT_FALSE(deliveries[0].initialisation);
    EXPECT_EQ(ReplayNow(), 500249);
    EXPECT_EQ(debug.Count("Average Timing Error: 3; Initial Error:0; Final Error:1; MaxError:0; "
                          "Last TimeStamp:500.250"),
              1)
        << debug.Dump();
}

TEST_F(ReplayRecordProcessingTest, WithoutClockCommandTheFirstItemSetsTheClock) {
    Connect(ReplayCore::eStateReplay);
    ASSERT_FALSE(clientReadThread.ClockIsSet());
    const int buffered = ReplayOutputFiler::Get().BufferedLength();
    EXPECT_EQ(Process(MakeRecord('"', "700.000", "Tester", 1, "first")), 1);
    EXPECT_TRUE(clientReadThread.ClockIsSet());
    EXPECT_EQ(ReplayNow(), 700000);
    EXPECT_TRUE(g_sleeps.empty());
    ASSERT_EQ(m_handler.deliveries.size(), 1u);
    EXPECT_EQ(m_handler.deliveries[0].clientTime, 100000u);
    EXPECT_EQ(ReplayOutputFiler::Get().BufferedLength() - buffered,
              static_cast<int>(std::strlen("OFFSET: -600000\nCURRENT TIME: 700.000\n")));
}

TEST_F(ReplayRecordProcessingTest, ItemMoreThanAMinuteAheadDropsTheRestOfItsRecord) {
    StartReplay();
    CapturedDebug debug;
    EXPECT_EQ(Process(MakeRecord('"', "500.000", "Tester", 1, "now" + Item("560.000", "minute"))),
              2);
    EXPECT_EQ(g_sleeps, (std::vector<unsigned int>{59999}));
    EXPECT_EQ(Process(MakeRecord('"', "560.000", "Tester", 2,
                                 "soon" + Item("620.000", "far") + Item("560.001", "after"))),
              1);
    EXPECT_EQ(m_handler.Data(), (std::vector<std::string>{"now", "minute", "soon"}));
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Sleep time = 60.001, Ignoring"), 1);
    EXPECT_EQ(ReportsContaining("#replay w=Sleep time = 60.001, Ignoring ;"), 1);
}

TEST_F(ReplayRecordProcessingTest, SequenceGapsAreCountedCumulativelyAndReported) {
    StartReplay();
    CapturedDebug debug;
    for (unsigned int sequence : {5u, 6u, 9u, 3u, 12u}) {
        EXPECT_EQ(Process(MakeRecord('"', "500.000", "Tester", sequence, "item")), 1);
    }
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Sequence Number of 9 Unexpected Following 6"), 1);
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Unexpected"), 2);
    EXPECT_EQ(clientReadThread.GetMissedRecords(), 4u);
    EXPECT_EQ(ReportsContaining("#replay d=2;"), 1);
    EXPECT_EQ(ReportsContaining("#replay d=4;"), 1);
}

TEST_F(ReplayRecordProcessingTest, DamagedForeignOrUntimelyRecordsDeliverNothing) {
    StartReplay();
    const std::string record = MakeRecord('"', "500.000", "Tester", 1, "data");
    std::string damaged = record;
    damaged[damaged.find("data")] = 'D';
    EXPECT_EQ(Process(damaged), 0);
    EXPECT_EQ(ReportsContaining("#replay w=Checksum Error;"), 1);

    EXPECT_EQ(Process(MakeRecord('"', "500.000", "Other", 1, "data")), 0);
    EXPECT_EQ(Process(MakeRecord('"', "500.000", "Tester2", 1, "data")), 0);
    EXPECT_EQ(Process(Sent("\"500.000 Tester !1 1 data")), 0);
    EXPECT_EQ(clientReadThread.GetLastSequenceNumber(), 0u);

    for (ReplayCore::ReplayState state : {ReplayCore::eStateRecord, ReplayCore::eStateStopped}) {
        g_clientStateManager.SetStateForTesting(state);
        Handle(record);
        EXPECT_EQ(Process(record), 0);
        EXPECT_EQ(ReplayClient::GetReplayState(), state);
    }
    EXPECT_TRUE(m_handler.deliveries.empty());

    g_clientStateManager.SetStateForTesting(ReplayCore::eStateReplay);
    char empty[] = "";
    EXPECT_EQ(clientReadThread.ProcessReplayRecord(empty, 0), -1);
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateStopped);
    EXPECT_NE(ReplayErrorManager::Get().GetLastError().GetLocation().find("468:"),
              std::string::npos);
}

TEST_F(ReplayRecordProcessingTest, BinaryInitialisationAndOddItemsArriveAsTheyShould) {
    StartReplay();
    EXPECT_EQ(Process(MakeRecord('$', "500.000", "Tester", 0, Ascii7("setup bytes"))), 1);
    ASSERT_EQ(m_handler.deliveries.size(), 1u);
    EXPECT_TRUE(m_handler.deliveries[0].initialisation);
    EXPECT_EQ(m_handler.deliveries[0].data, "setup bytes");

    const std::string bytes("\x00\xDE\n\r\xff", 5);
    EXPECT_EQ(Process(MakeRecord('$', "500.000", "Tester", 1,
                                 Ascii7(bytes) + Item("500.002", Ascii7("x")))),
              2);
    EXPECT_EQ(m_handler.Data(), (std::vector<std::string>{"setup bytes", bytes, "x"}));
    EXPECT_FALSE(m_handler.deliveries[1].initialisation);

    CapturedDebug debug;
    EXPECT_EQ(Process(MakeRecord('$', "500.010", "Tester", 2,
                                 "  not encoded" + Item("500.011", Ascii7("x")))),
              0);
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Error Decoding Ascii7 Data Buffer"), 1);

    SCOPED_TRACE("odd items are skipped while the rest is delivered");
    const std::string mangled = RecordText::WithChecksum(
        RecordText::BlockBody('"', "500.000", "Tester", 3,
                              "x" + Item("500.001", "kept") + '\xDE' + "no colon here" +
                                  Item("junk", "zero time") + Item("500.002", "tail")));
    EXPECT_EQ(Process(mangled), 3);
    const std::vector<std::string> data = m_handler.Data();
    ASSERT_EQ(data.size(), 6u);
    EXPECT_EQ(data[3], "kept");
    EXPECT_EQ(data[4], "zero time");
    // The record ended in its newline: the last item takes a checksum character.
    EXPECT_EQ(data[5], "tail" + mangled.substr(mangled.size() - 9, 1));
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Time not found in input string"), 1);
}

}  // namespace
