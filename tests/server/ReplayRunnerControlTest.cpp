// The runner under the operator's control, against fake clients: what each
// control call sends (clock settings, state records, records) and when.

#include <algorithm>
#include <atomic>
#include <thread>

#include "tests/server/ReplayRunnerSupport.h"

namespace {

namespace srv = ReplayServer;
using ReplayCore::ReplayStateManager;
using ReplayRunnerTestSupport::Clock;
using ReplayRunnerTestSupport::ClockArgument;
using ReplayRunnerTestSupport::Ms;
using ReplayRunnerTestSupport::Planned;
using ServerTest::DataRecord;
using ServerTest::FakeClient;

constexpr auto kDeadline = std::chrono::seconds(10);
constexpr int64_t kStart = 10000;

class ReplayRunnerControlTest : public ReplayRunnerTestSupport::ReplayRunnerFixture {
  protected:
    void TearDown() override {
        if (m_runner != nullptr) {
            m_runner->Cancel();
        }
        if (m_thread.joinable()) {
            m_thread.join();
        }
        m_runner.reset();
        ReplayRunnerFixture::TearDown();
    }
    // Records of `clients` in turn, `stepMs` apart from the start.
    void Plan(const std::vector<std::string>& clients, int count, int64_t stepMs) {
        m_plan.clients.insert(clients.begin(), clients.end());
        m_plan.startMs = kStart;
        for (int i = 0; i < count; ++i) {
            m_plan.records.push_back(Planned(clients[static_cast<size_t>(i) % clients.size()],
                                             kStart + stepMs * i, 1 + i));
        }
        m_plan.endMs = m_plan.records.back().timeMs;
    }
    void Start() {
        m_runner.reset(new srv::ReplayRunner(*m_server, m_plan, m_settings));
        m_thread = std::thread([this] {
            m_result = m_runner->Run();
            m_finished = true;
        });
        ASSERT_TRUE(
            ReplayTest::WaitFor([this] { return m_runner->Position().started; }, kDeadline));
    }
    // The datagrams `client` got after the first `from`.
    static std::vector<ReplayTest::Datagram> After(const FakeClient& client, size_t from) {
        std::vector<ReplayTest::Datagram> all = client.Received();
        all.erase(all.begin(),
                  all.begin() + static_cast<std::ptrdiff_t>(std::min(from, all.size())));
        return all;
    }

    srv::ReplayPlan m_plan;
    std::unique_ptr<srv::ReplayRunner> m_runner;
    std::thread m_thread;
    srv::ReplayResult m_result;
    std::atomic<bool> m_finished{false};
};

TEST_F(ReplayRunnerControlTest, PauseHoldsTheRecordsAndResumeRestartsTheClockAtThePausedPoint) {
    auto gps = Connect("gps");
    Plan({"gps"}, 100, 20);  // 2 s
    Start();
    // Replay command, clock, then records.
    ASSERT_TRUE(gps->WaitFor(2 + 20, kDeadline));
    EXPECT_EQ(m_runner->StepRecords(1), "step works while paused; pause first");
    EXPECT_EQ(m_runner->Resume(), "not paused");
    ASSERT_EQ(m_runner->Pause(), "");
    EXPECT_EQ(m_runner->Pause(), "already paused");
    const srv::ReplayPosition paused = m_runner->Position();
    EXPECT_TRUE(paused.paused);

    // Nothing more goes out while paused.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const size_t before = gps->Received().size();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(gps->Received().size(), before);
    EXPECT_EQ(m_runner->Position().logMs, paused.logMs);

    const auto resumed = Clock::now();
    ASSERT_EQ(m_runner->Resume(), "");
    ASSERT_TRUE(gps->WaitFor(before + 3, kDeadline));
    const std::vector<ReplayTest::Datagram> after = After(*gps, before);
    // The clock first: the client's replay time reads the paused point.
    // (Read as the setting goes out: a runner woken late sets it as much
    // further on.)
    const int64_t expected = paused.logMs - m_settings.networkingLatencyMs;
    EXPECT_GE(ClockArgument(after[0].bytes), expected) << after[0].bytes;
    EXPECT_LE(ClockArgument(after[0].bytes), expected + 150) << after[0].bytes;
    // Bounds that hold on a loaded machine; the benchmark measures the
    // real timing after a resume.
    EXPECT_LT(Ms(after[0].arrival - resumed), 150);
    // Then the next record, at its moment from the resume less the lead.
    const auto next =
        std::find_if(m_plan.records.begin(), m_plan.records.end(),
                     [&](const srv::PlannedRecord& r) { return r.record == after[1].bytes; });
    ASSERT_NE(next, m_plan.records.end()) << after[1].bytes;
    EXPECT_GT(next->timeMs, paused.logMs);
    const int64_t due =
        std::max<int64_t>(0, next->timeMs - paused.logMs - m_settings.serverLeadTimeMs);
    const int64_t late = Ms(after[1].arrival - resumed) - due;
    EXPECT_GE(late, -2);
    EXPECT_LE(late, 150);

    m_thread.join();
    EXPECT_TRUE(m_result.completed);
    EXPECT_EQ(m_result.recordsSent, 100u);
}

TEST_F(ReplayRunnerControlTest, StepAndSeekWhilePausedSendTheClockThenTheRecords) {
    auto gps = Connect("gps");
    auto can = Connect("can");
    Plan({"gps", "can"}, 40, 100);  // gps at 0, 200, ...; can at 100, 300, ...
    Start();
    ASSERT_EQ(m_runner->Pause(), "");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const size_t gpsBefore = gps->Received().size();
    const size_t canBefore = can->Received().size();
    const size_t next = m_runner->Position().nextRecord;
    ASSERT_LT(next + 3, m_plan.records.size());

    // Three records at once: each client's clock moves to the last of them
    // first, so that it hands them over without waiting.
    ASSERT_EQ(m_runner->StepRecords(3), "");
    const int64_t last = m_plan.records[next + 2].timeMs;
    EXPECT_EQ(m_runner->Position().logMs, last);
    EXPECT_EQ(m_runner->Position().nextRecord, next + 3);
    ASSERT_TRUE(gps->WaitFor(gpsBefore + 2, kDeadline));
    ASSERT_TRUE(can->WaitFor(canBefore + 2, kDeadline));
    std::vector<ReplayTest::Datagram> got = After(*gps, gpsBefore);
    EXPECT_EQ(ClockArgument(got[0].bytes), last - m_settings.networkingLatencyMs);
    const auto stepped = [&] {
        size_t records = 0;
        for (const FakeClient* client : {gps.get(), can.get()}) {
            for (const ReplayTest::Datagram& datagram :
                 After(*client, client == gps.get() ? gpsBefore : canBefore)) {
                records += datagram.bytes[0] == '#' ? 0 : 1;
            }
        }
        return records;
    };
    EXPECT_TRUE(ReplayTest::WaitFor([&] { return stepped() >= 3; }, kDeadline));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(stepped(), 3u);

    // A step of time takes the records up to and including its end.
    const size_t gpsBeforeTime = gps->Received().size();
    ASSERT_EQ(m_runner->StepTime(250), "");
    EXPECT_EQ(m_runner->Position().logMs, last + 250);
    EXPECT_EQ(m_runner->Position().nextRecord, next + 5);

    // A seek past the end is refused; one inside sends each client its last
    // record before the point, after a clock setting at the point.
    EXPECT_NE(m_runner->Seek(m_plan.DurationMs() + 1).find("lasts 3.900 s"), std::string::npos);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const size_t gpsBeforeSeek = gps->Received().size();
    EXPECT_GT(gpsBeforeSeek, gpsBeforeTime);
    ASSERT_EQ(m_runner->Seek(3050), "");
    EXPECT_EQ(m_runner->Position().logMs, kStart + 3050);
    EXPECT_TRUE(m_runner->Position().paused);
    ASSERT_TRUE(gps->WaitFor(gpsBeforeSeek + 2, kDeadline));
    got = After(*gps, gpsBeforeSeek);
    EXPECT_EQ(ClockArgument(got[0].bytes), kStart + 3050 - m_settings.networkingLatencyMs);
    EXPECT_EQ(got[1].bytes, m_plan.records[30].record) << "gps's record at 3.0 s";
    EXPECT_TRUE(ReplayTest::WaitFor(
        [&] { return After(*can, 0).back().bytes == m_plan.records[29].record; }, kDeadline))
        << "can's at 2.9 s";

    // From there on: the clock once more at the resume, then records from
    // the point on, and nothing before it again.
    ASSERT_EQ(m_runner->Resume(), "");
    m_thread.join();
    got = After(*gps, gpsBeforeSeek + 2);
    ASSERT_GE(got.size(), 2u);
    EXPECT_GE(ClockArgument(got[0].bytes), kStart + 3050 - m_settings.networkingLatencyMs);
    EXPECT_LE(ClockArgument(got[0].bytes), kStart + 3100 - m_settings.networkingLatencyMs);
    EXPECT_EQ(got[1].bytes, m_plan.records[32].record);
    EXPECT_EQ(m_runner->StepRecords(1), "the replay is ending");
}

TEST_F(ReplayRunnerControlTest, MaxRateSendsEachRecordOnceTheClientReportsThePrevious) {
    auto gps = Connect("gps");
    Plan({"gps"}, 4, 5000);  // 15 s at the recorded pace
    Start();
    ASSERT_EQ(m_runner->SetMaxRate(), "");
    ASSERT_TRUE(gps->WaitFor(3, kDeadline));  // replay command, clock, first record
    for (int record = 1; record < 4; ++record) {
        // Unreported, the next record waits.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const size_t got = gps->Received().size();
        EXPECT_EQ(m_runner->Position().nextRecord, static_cast<size_t>(record));
        ASSERT_TRUE(gps->Send(ServerTest::StatusRecord("gps", kStart, "#replay")));
        // Then the clock at the record's time, and the record.
        ASSERT_TRUE(gps->WaitFor(got + 2, kDeadline)) << "record " << record;
        const std::vector<ReplayTest::Datagram> after = After(*gps, got);
        EXPECT_EQ(ClockArgument(after[0].bytes),
                  m_plan.records[record].timeMs - m_settings.networkingLatencyMs);
        EXPECT_EQ(after[1].bytes, m_plan.records[record].record);
    }
    ASSERT_TRUE(gps->Send(ServerTest::StatusRecord("gps", kStart, "#replay")));
    EXPECT_TRUE(ReplayTest::WaitFor([this] { return m_finished.load(); }, kDeadline));
}

TEST_F(ReplayRunnerControlTest, LoopStartsAgainUntilTurnedOffAndRateRefusesOutOfRange) {
    auto gps = Connect("gps");
    Plan({"gps"}, 3, 30);
    m_runner.reset(new srv::ReplayRunner(*m_server, m_plan, m_settings));
    EXPECT_EQ(m_runner->Pause(), "the replay is still waiting for its clients");
    m_runner->SetLoop(true);
    m_thread = std::thread([this] {
        m_result = m_runner->Run();
        m_finished = true;
    });
    EXPECT_TRUE(ReplayTest::WaitFor([this] { return m_runner->Position().loops >= 2; }, kDeadline));
    EXPECT_NE(m_runner->SetRate(0.05).find("from 0.1 to 10"), std::string::npos);
    EXPECT_NE(m_runner->SetRate(11).find("from 0.1 to 10"), std::string::npos);
    EXPECT_EQ(m_runner->SetRate(2), "");
    EXPECT_DOUBLE_EQ(m_runner->Position().rate, 2.0);
    EXPECT_FALSE(m_finished.load());
    m_runner->SetLoop(false);
    EXPECT_TRUE(ReplayTest::WaitFor([this] { return m_finished.load(); }, kDeadline));
    m_thread.join();
    EXPECT_TRUE(m_result.completed);
    EXPECT_GE(m_result.loops, 2u);
    // Every pass sent all three records.
    EXPECT_GE(m_result.recordsSent, 3 * (m_result.loops + 1) - 3);
    size_t firstRecords = 0;
    for (const ReplayTest::Datagram& datagram : gps->Received()) {
        firstRecords += datagram.bytes == m_plan.records[0].record ? 1 : 0;
    }
    EXPECT_GE(firstRecords, m_result.loops + 1);
}

}  // namespace
