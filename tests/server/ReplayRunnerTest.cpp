#include "server/ReplayRunner.h"

#include <algorithm>
#include <atomic>
#include <thread>

#include "libreplay/FileLogger.h"
#include "tests/server/LoopbackServer.h"
#include "tests/support/TestSupport.h"

namespace {

namespace srv = ReplayServer;
using Clock = std::chrono::steady_clock;
using ReplayCore::ReplayStateManager;
using ServerTest::DataRecord;
using ServerTest::FakeClient;

constexpr auto kDeadline = std::chrono::seconds(10);

int64_t Ms(Clock::duration duration) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
}

// A record as the plan holds it: without its line end.
srv::PlannedRecord Planned(const std::string& client, int64_t timeMs, unsigned int sequence) {
    srv::PlannedRecord record;
    record.client = client;
    record.timeMs = timeMs;
    record.sequence = sequence;
    record.record = DataRecord(client, timeMs, sequence, "item" + std::to_string(sequence));
    record.record.pop_back();
    return record;
}

// The log time a replay command sets the client's clock to; -1 without one.
int64_t ClockArgument(const std::string& command) {
    ReplayStateManager::CommandArgsParser parser;
    std::string value;
    if (ReplayStateManager::GetStateFromCommand(command, parser) != ReplayCore::eStateReplay ||
        !parser.Get('l', value)) {
        return -1;
    }
    return ReplayCore::MSTime::MSTimeStruct(value).m_timeMilliseconds;
}

class ReplayRunnerTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        m_server = ServerTest::StartLoopbackServer(srv::ServerSettings(), m_ip);
        ASSERT_NE(m_server, nullptr) << "no free loopback address";
        m_settings.serverLeadTimeMs = 30;
        m_settings.networkingLatencyMs = 40;
        m_settings.endGraceMs = 20;
        m_settings.clientWaitMs = 5000;
        // The fake clients never report what they received: no pacing, and
        // no wait for their reports at the end.
        m_settings.pacing.window = 1000000;
        m_settings.deliveryWaitMs = 0;
    }
    void TearDown() override {
        m_server.reset();
        ReplayCore::FileLogger::ResetForTesting();
        TargetRootTest::TearDown();
    }
    std::unique_ptr<FakeClient> Connect(const std::string& name) {
        std::unique_ptr<FakeClient> client(new FakeClient(m_ip));
        EXPECT_TRUE(client->Register(name)) << name;
        return client;
    }

    std::string m_ip;
    std::unique_ptr<srv::ReplayServer> m_server;
    srv::ReplaySettings m_settings;
};

// One client's view of a completed replay: the state command, its
// initialisation records, the clock, the data records and the stop.
struct ClientView {
    std::vector<ReplayTest::Datagram> received;
    size_t clockIndex = 0;

    explicit ClientView(const FakeClient& client) : received(client.Received()) {
        for (size_t i = 0; i < received.size(); ++i) {
            if (ClockArgument(received[i].bytes) >= 0) {
                clockIndex = i;
                break;
            }
        }
    }
};

TEST_F(ReplayRunnerTest, SendsEveryRecordOnScheduleFromTheStartTime) {
    auto gps = Connect("gps");
    auto can = Connect("can");

    srv::ReplayPlan plan;
    plan.clients = {"gps", "can"};
    plan.initialisation = {Planned("gps", 9000, 0), Planned("can", 9000, 0)};
    // 80 records 4 ms apart from 20 ms after the start (as in a replay from
    // an offset): even the first goes out a lead time ahead of its moment,
    // and the rest keep to the schedule without drifting.
    constexpr int kRecords = 80;
    plan.startMs = 10000;
    for (int i = 0; i < kRecords; ++i) {
        const std::string client = i % 2 == 0 ? "gps" : "can";
        plan.records.push_back(Planned(client, plan.startMs + 20 + 4 * i, 1 + i / 2));
    }
    plan.endMs = plan.records.back().timeMs;

    srv::ReplayRunner runner(*m_server, plan, m_settings);
    const srv::ReplayResult result = runner.Run();
    ASSERT_TRUE(result.completed) << result.error;
    EXPECT_FALSE(result.cancelled);
    EXPECT_EQ(result.initialisationSent, 2u);
    EXPECT_EQ(result.recordsSent, static_cast<size_t>(kRecords));
    EXPECT_EQ(result.sendFailures, 0u);
    EXPECT_EQ(m_server->GetState(), ReplayCore::eStateStopped);

    const size_t perClient = 1 + 1 + 1 + kRecords / 2 + 1;
    ASSERT_TRUE(gps->WaitFor(perClient, kDeadline));
    ASSERT_TRUE(can->WaitFor(perClient, kDeadline));
    const ClientView views[] = {ClientView(*gps), ClientView(*can)};
    const unsigned int slots[] = {m_server->SlotOf("gps"), m_server->SlotOf("can")};

    // The anchor lies just before the first clock command went out.
    Clock::time_point anchor = Clock::time_point::max();
    for (const ClientView& view : views) {
        anchor = std::min(anchor, view.received[view.clockIndex].arrival);
    }

    std::vector<int64_t> lateness;
    for (size_t c = 0; c < 2; ++c) {
        const ClientView& view = views[c];
        const std::string slot = "s=" + std::to_string(slots[c]);
        ASSERT_EQ(view.received.size(), perClient);
        // Into the replay state, then the clock (the client's clock plus its
        // latency reads the start time), then the initialisation record,
        // which the client then hands over at once.
        EXPECT_EQ(view.received[0].bytes, "#replay " + slot + ";");
        ASSERT_EQ(view.clockIndex, 1u);
        EXPECT_EQ(ClockArgument(view.received[1].bytes),
                  plan.startMs - m_settings.serverLeadTimeMs - m_settings.networkingLatencyMs);
        EXPECT_EQ(view.received[2].bytes, plan.initialisation[c].record);

        size_t next = c;  // this client's records in the plan: c, c + 2, ...
        for (size_t i = 3; i + 1 < view.received.size(); ++i, next += 2) {
            const srv::PlannedRecord& planned = plan.records[next];
            ASSERT_EQ(view.received[i].bytes, planned.record) << "datagram " << i;
            // The clock's origin is a lead time before the start, and each
            // record goes out a lead time before its moment.
            const int64_t due = planned.timeMs - plan.startMs;
            const int64_t late = Ms(view.received[i].arrival - anchor) - due;
            // Never early (the clock command itself takes a moment to arrive).
            EXPECT_GE(late, -3) << "record at " << planned.timeMs;
            lateness.push_back(late);
        }
        // Stop only once the clients have had time to play the last record.
        const ReplayTest::Datagram& stop = view.received.back();
        EXPECT_EQ(stop.bytes, "#stop " + slot + ";");
        EXPECT_GE(Ms(stop.arrival - anchor), plan.DurationMs() + m_settings.serverLeadTimeMs +
                                                 m_settings.networkingLatencyMs +
                                                 m_settings.endGraceMs - 3);
    }
    std::sort(lateness.begin(), lateness.end());
    EXPECT_LE(lateness[lateness.size() / 2], 10) << "median lateness";
    // Each record is scheduled from the anchor, not from the previous send:
    // the tail is no later than the rest.
    EXPECT_LE(lateness[lateness.size() * 9 / 10], 25) << "90th percentile lateness";
}

TEST_F(ReplayRunnerTest, CancelEndsTheReplayAndStopsTheClients) {
    auto gps = Connect("gps");
    srv::ReplayPlan plan;
    plan.clients = {"gps"};
    plan.startMs = 5000;
    plan.records = {Planned("gps", 5000, 1), Planned("gps", 65000, 2)};
    plan.endMs = 65000;

    srv::ReplayRunner runner(*m_server, plan, m_settings);
    srv::ReplayResult result;
    std::atomic<bool> finished{false};
    std::thread replay([&] {
        result = runner.Run();
        finished = true;
    });
    // State command, clock, first record: then the runner waits a minute.
    ASSERT_TRUE(gps->WaitFor(3, kDeadline));
    runner.Cancel();
    EXPECT_TRUE(ReplayTest::WaitFor([&] { return finished.load(); }, kDeadline));
    replay.join();
    EXPECT_TRUE(result.cancelled);
    EXPECT_FALSE(result.completed);
    EXPECT_EQ(result.recordsSent, 1u);
    ASSERT_TRUE(gps->WaitFor(4, kDeadline));
    EXPECT_EQ(gps->Received().back().bytes.compare(0, 6, "#stop "), 0);
    EXPECT_EQ(m_server->GetState(), ReplayCore::eStateStopped);

    // A replay still waiting for its clients ends on cancel too, without an
    // error and without commanding anyone.
    plan.clients = {"gps", "nav"};
    m_settings.clientWaitMs = 60000;
    srv::ReplayRunner waiting(*m_server, plan, m_settings);
    finished = false;
    std::thread wait([&] {
        result = waiting.Run();
        finished = true;
    });
    EXPECT_TRUE(ReplayTest::WaitFor(
        [&] { return m_server->GetState() == ReplayCore::eStateReplay; }, kDeadline));
    waiting.Cancel();
    EXPECT_TRUE(ReplayTest::WaitFor([&] { return finished.load(); }, kDeadline));
    wait.join();
    EXPECT_TRUE(result.cancelled);
    EXPECT_TRUE(result.error.empty()) << result.error;
    EXPECT_EQ(gps->Received().size(), 4u);
}

TEST_F(ReplayRunnerTest, MissingClientsEndTheReplayWithTheirNames) {
    auto gps = Connect("gps");
    srv::ReplayPlan plan;
    plan.clients = {"can", "gps", "nav"};
    plan.startMs = 5000;
    plan.records = {Planned("gps", 5000, 1)};
    plan.endMs = 5000;
    m_settings.clientWaitMs = 100;

    const auto started = Clock::now();
    srv::ReplayRunner runner(*m_server, plan, m_settings);
    const srv::ReplayResult result = runner.Run();
    EXPECT_GE(Ms(Clock::now() - started), 100);
    EXPECT_FALSE(result.completed);
    EXPECT_FALSE(result.cancelled);
    EXPECT_EQ(result.missingClients, (std::vector<std::string>{"can", "nav"}));
    EXPECT_NE(result.error.find("can, nav"), std::string::npos) << result.error;
    EXPECT_NE(result.error.find("0.1 s"), std::string::npos) << result.error;
    EXPECT_EQ(result.error.find("gps"), std::string::npos) << result.error;
    // Nobody was told to replay, and the server takes records again.
    EXPECT_TRUE(gps->Received().empty());
    EXPECT_EQ(m_server->GetState(), ReplayCore::eStateStopped);
}

}  // namespace
