#include <future>
#include <thread>

#include "tests/server/LoopbackServer.h"

namespace {

namespace srv = ReplayServer;
using ReplayTest::WaitFor;
using ServerTest::DataRecord;
using ServerTest::FakeClient;
using ServerTest::StatusRecord;

constexpr auto kDeadline = std::chrono::seconds(10);

class RecordingStopTest : public ServerTest::LoopbackServerTest {
  protected:
    void SetUp() override {
        LoopbackServerTest::SetUp();
        MakeMediumAndChannel();
    }
    void Start(srv::ServerSettings settings = srv::ServerSettings()) {
        settings.stopSettleMs = 0;
        StartServer(settings);
    }
    std::vector<std::string> StoredData() const {
        std::vector<std::string> data;
        for (const std::string& record : ServerTest::SplitFramedRecords(ReadTargetFile(kChannel))) {
            if (!record.empty() && record[0] == '"') {
                data.push_back(record);
            }
        }
        return data;
    }
    static bool GotStop(const FakeClient& client) {
        for (const ReplayTest::Datagram& datagram : client.Received()) {
            if (datagram.bytes.compare(0, 5, "#stop") == 0) {
                return true;
            }
        }
        return false;
    }
};

TEST_F(RecordingStopTest, StopWaitsForEachClientsBlockHoldingTheMoment) {
    Start();
    FakeClient fast(m_ip), quiet(m_ip), silent(m_ip);
    ASSERT_TRUE(fast.Register("fast"));
    ASSERT_TRUE(quiet.Register("quiet"));
    ASSERT_TRUE(silent.Register("silent"));
    m_server->StartRecording();
    ASSERT_TRUE(fast.WaitFor(1, kDeadline));

    // Long enough for the steps below on a loaded machine.
    auto stopped = std::async(std::launch::async, [this] { return m_server->StopRecording(7000); });
    ASSERT_TRUE(WaitFor([&] { return m_server->Stopping().draining; }, kDeadline));
    const srv::StopProgress progress = m_server->Stopping();
    const int64_t moment = progress.momentMs;
    EXPECT_EQ(progress.waitingFor.size(), 3u);

    // A block from before the moment confirms nothing; its later items are cut.
    fast.Send(ServerTest::Block(
        "fast", 1,
        {{moment - 300, "i0"}, {moment - 1, "i1"}, {moment, "i2"}, {moment + 40, "i3"}}));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(GotStop(fast));
    // A block starting at the moment confirms, and is not stored.
    fast.Send(DataRecord("fast", moment, 2));
    ASSERT_TRUE(WaitFor([&] { return GotStop(fast); }, kDeadline));
    quiet.Send(StatusRecord("quiet", moment + 5, ""));
    ASSERT_TRUE(WaitFor([&] { return GotStop(quiet); }, kDeadline));
    EXPECT_TRUE(WaitFor(
        [&] { return m_server->Stopping().waitingFor == std::vector<std::string>{"silent"}; },
        kDeadline));
    EXPECT_EQ(m_server->GetState(), ReplayCore::eStateRecord);

    ASSERT_EQ(stopped.wait_for(kDeadline), std::future_status::ready);
    EXPECT_TRUE(stopped.get());
    EXPECT_TRUE(GotStop(silent));
    const srv::StopProgress last = m_server->Stopping();
    EXPECT_FALSE(last.draining);
    EXPECT_EQ(last.lastUnconfirmed, std::vector<std::string>{"silent"});
    EXPECT_GE(last.lastDurationMs, 6900);
    EXPECT_EQ(m_server->Counters().blocksAfterStop, 1u);
    EXPECT_EQ(m_server->Counters().itemsAfterStop, 3u);
    EXPECT_EQ(StoredData(), std::vector<std::string>{ServerTest::Block(
                                "fast", 1, {{moment - 300, "i0"}, {moment - 1, "i1"}})});
}

TEST_F(RecordingStopTest, StartRecoversTheJournalInTimeOrderOnceAndAStopEndsWhenAllConfirm) {
    const std::string path = Root() + "/var/lib/replay/journal";
    const std::string early = DataRecord("a", 9000, 1), later = DataRecord("b", 9500, 1),
                      written = DataRecord("a", 8000, 1);
    {
        srv::IngestJournal journal(path);
        std::vector<std::string> unwritten;
        ASSERT_TRUE(journal.Open(unwritten).IsOk());
        journal.Received(written.data(), written.size());
        journal.Received(later.data(), later.size());
        journal.Received(early.data(), early.size());
        journal.Written(written.data(), written.size());
        journal.Close();
    }
    srv::ServerSettings settings;
    settings.journalPath = path;
    Start(settings);
    EXPECT_EQ(StoredData(), (std::vector<std::string>{early, later}));
    EXPECT_EQ(m_server->Counters().recordsRecovered, 2u);
    EXPECT_TRUE(m_server->Counters().journalOn);

    m_server.reset();
    ReplayLogger::Get().ResetForTesting();
    Start(settings);
    EXPECT_EQ(m_server->Counters().recordsRecovered, 0u);
    EXPECT_EQ(StoredData().size(), 2u);

    SCOPED_TRACE("a stop ends as soon as every client confirms");
    FakeClient client(m_ip);
    ASSERT_TRUE(client.Register("only"));
    m_server->StartRecording();
    const auto started = std::chrono::steady_clock::now();
    auto stopped = std::async(std::launch::async, [this] { return m_server->StopRecording(8000); });
    ASSERT_TRUE(WaitFor([&] { return m_server->Stopping().draining; }, kDeadline));
    client.Send(DataRecord("only", m_server->Stopping().momentMs + 1, 7));
    ASSERT_EQ(stopped.wait_for(kDeadline), std::future_status::ready);
    EXPECT_TRUE(stopped.get());
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(6));
    EXPECT_TRUE(m_server->Stopping().lastUnconfirmed.empty());
}

}  // namespace
