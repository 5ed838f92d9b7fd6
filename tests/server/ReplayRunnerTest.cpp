#include "server/ReplayRunner.h"

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

using ReplayRunnerTest = ReplayRunnerTestSupport::ReplayRunnerFixture;

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

    std::vector<std::pair<int64_t, int64_t>> lateness;  // (record time, late ms)
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
            lateness.emplace_back(planned.timeMs, late);
        }
        // Stop only once the clients have had time to play the last record.
        const ReplayTest::Datagram& stop = view.received.back();
        EXPECT_EQ(stop.bytes, "#stop " + slot + ";");
        EXPECT_GE(Ms(stop.arrival - anchor), plan.DurationMs() + m_settings.serverLeadTimeMs +
                                                 m_settings.networkingLatencyMs +
                                                 m_settings.endGraceMs - 3);
    }
    // Each record is scheduled from the anchor, not from the previous send:
    // the last records are no later than the first (errors do not add up).
    // Medians, so that a loaded machine's stall under one record does not
    // decide.
    std::sort(lateness.begin(), lateness.end());
    const size_t quarter = lateness.size() / 4;
    auto medianLateness = [&](size_t from) {
        std::vector<int64_t> late;
        for (size_t i = from; i < from + quarter; ++i) {
            late.push_back(lateness[i].second);
        }
        std::sort(late.begin(), late.end());
        return late[late.size() / 2];
    };
    const int64_t first = medianLateness(0);
    const int64_t last = medianLateness(lateness.size() - quarter);
    EXPECT_LE(first, 40) << "median lateness of the first quarter";
    EXPECT_LE(last - first, 20) << "the last quarter against the first";
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
