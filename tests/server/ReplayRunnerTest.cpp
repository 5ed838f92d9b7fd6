#include "server/ReplayRunner.h"

#include <algorithm>
#include <atomic>
#include <thread>

#include "tests/server/LoopbackServer.h"

namespace {

namespace srv = ReplayServer;
using ReplayCore::ReplayStateManager;
using ServerTest::FakeClient;

constexpr auto kDeadline = std::chrono::seconds(10);

using Clock = std::chrono::steady_clock;

int64_t Ms(Clock::duration duration) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
}

ReplayServer::PlannedRecord Planned(const std::string& client, int64_t timeMs,
                                    unsigned int sequence) {
    const std::string record =
        ServerTest::DataRecord(client, timeMs, sequence, "item" + std::to_string(sequence));
    return {client, timeMs, sequence, record.substr(0, record.size() - 1), 0};
}

int64_t ClockArgument(const std::string& command) {
    ReplayStateManager::CommandArgsParser parser;
    std::string value;
    if (command.empty() || command[0] != '#' ||
        ReplayStateManager::GetStateFromCommand(command, parser) != ReplayCore::eStateReplay ||
        !parser.Get('l', value)) {
        return -1;
    }
    return ReplayCore::MSTime::MSTimeStruct(value).m_timeMilliseconds;
}

constexpr int64_t kStart = 10000;

class ReplayRunnerTest : public ServerTest::LoopbackServerTest {
  protected:
    void SetUp() override {
        LoopbackServerTest::SetUp();
        StartServer();
        m_settings.serverLeadTimeMs = 30;
        m_settings.networkingLatencyMs = 40;
        m_settings.endGraceMs = 20;
        m_settings.clientWaitMs = 5000;
        // Fake clients report only when a test makes them.
        m_settings.pacing.window = 1000000;
        m_settings.deliveryWaitMs = 0;
    }
    void TearDown() override {
        if (m_runner != nullptr) {
            m_runner->Cancel();
        }
        if (m_thread.joinable()) {
            m_thread.join();
        }
        m_runner.reset();
        LoopbackServerTest::TearDown();
    }
    std::unique_ptr<FakeClient> Connect(const std::string& name) {
        std::unique_ptr<FakeClient> client(new FakeClient(m_ip));
        EXPECT_TRUE(client->Register(name)) << name;
        return client;
    }
    void Plan(const std::vector<std::string>& clients, int count, int64_t stepMs) {
        m_plan.clients.insert(clients.begin(), clients.end());
        m_plan.startMs = kStart;
        for (int i = 0; i < count; ++i) {
            m_plan.records.push_back(Planned(clients[static_cast<size_t>(i) % clients.size()],
                                             kStart + stepMs * i, 1 + i));
        }
        m_plan.endMs = m_plan.records.back().timeMs;
    }
    void Launch() {
        m_runner.reset(new srv::ReplayRunner(*m_server, m_plan, m_settings));
        m_thread = std::thread([this] {
            m_result = m_runner->Run();
            m_finished = true;
        });
    }
    void Start() {
        Launch();
        ASSERT_TRUE(
            ReplayTest::WaitFor([this] { return m_runner->Position().started; }, kDeadline));
    }
    static std::vector<ReplayTest::Datagram> After(const FakeClient& client, size_t from) {
        const std::vector<ReplayTest::Datagram> all = client.Received();
        return {all.begin() + static_cast<std::ptrdiff_t>(from), all.end()};
    }

    srv::ReplaySettings m_settings;
    srv::ReplayPlan m_plan;
    std::unique_ptr<srv::ReplayRunner> m_runner;
    std::thread m_thread;
    srv::ReplayResult m_result;
    std::atomic<bool> m_finished{false};
};

TEST_F(ReplayRunnerTest, SendsEveryRecordInOrderNoneEarlyFromTheStartTime) {
    auto gps = Connect("gps");
    auto can = Connect("can");

    constexpr int kRecords = 40;
    Plan({"gps", "can"}, kRecords, 4);
    m_plan.startMs = kStart - 20;
    m_plan.initialisation = {Planned("gps", 9000, 0), Planned("can", 9000, 0)};
    // The runner's own start lies after this moment; a datagram's arrival
    // would not do, as its stamp is late whenever the receiving thread is.
    const Clock::time_point anchor = Clock::now();
    Launch();
    m_thread.join();
    ASSERT_TRUE(m_result.completed) << m_result.error;
    EXPECT_EQ(m_result.initialisationSent, 2u);
    EXPECT_EQ(m_result.recordsSent, static_cast<size_t>(kRecords));
    EXPECT_EQ(m_result.sendFailures, 0u);

    const size_t perClient = 1 + 1 + 1 + kRecords / 2 + 1;
    ASSERT_TRUE(gps->WaitFor(perClient, kDeadline));
    ASSERT_TRUE(can->WaitFor(perClient, kDeadline));
    const std::vector<ReplayTest::Datagram> received[] = {gps->Received(), can->Received()};
    const char* const names[] = {"gps", "can"};
    for (size_t c = 0; c < 2; ++c) {
        const std::vector<ReplayTest::Datagram>& got = received[c];
        const std::string slot = "s=" + std::to_string(m_server->SlotOf(names[c]));
        ASSERT_EQ(got.size(), perClient);
        EXPECT_EQ(got[0].bytes, "#replay " + slot + ";");
        EXPECT_EQ(ClockArgument(got[1].bytes),
                  m_plan.startMs - m_settings.serverLeadTimeMs - m_settings.networkingLatencyMs);
        EXPECT_EQ(got[2].bytes, m_plan.initialisation[c].record);
        size_t next = c;  // this client's records in the plan: c, c + 2, ...
        for (size_t i = 3; i + 1 < got.size(); ++i, next += 2) {
            const srv::PlannedRecord& planned = m_plan.records[next];
            ASSERT_EQ(got[i].bytes, planned.record) << "datagram " << i;
            // 3 ms of slack for the runner's whole-millisecond clock.
            const int64_t due = planned.timeMs - m_plan.startMs + m_settings.serverLeadTimeMs;
            EXPECT_GE(Ms(got[i].arrival - anchor), due - 3) << "record at " << planned.timeMs;
        }
        EXPECT_EQ(got.back().bytes, "#stop " + slot + ";");
        EXPECT_GE(Ms(got.back().arrival - anchor),
                  m_plan.DurationMs() + m_settings.serverLeadTimeMs +
                      m_settings.networkingLatencyMs + m_settings.endGraceMs - 3);
    }
}

TEST_F(ReplayRunnerTest, MissingClientsEndTheReplayWithTheirNames) {
    auto gps = Connect("gps");
    Plan({"can", "gps", "nav"}, 1, 0);
    m_settings.clientWaitMs = 100;
    const auto started = Clock::now();
    Launch();
    m_thread.join();
    EXPECT_GE(Ms(Clock::now() - started), 100);
    EXPECT_FALSE(m_result.completed);
    EXPECT_FALSE(m_result.cancelled);
    EXPECT_EQ(m_result.missingClients, (std::vector<std::string>{"can", "nav"}));
    EXPECT_NE(m_result.error.find("can, nav"), std::string::npos) << m_result.error;
    EXPECT_NE(m_result.error.find("0.1 s"), std::string::npos) << m_result.error;
    EXPECT_EQ(m_result.error.find("gps"), std::string::npos) << m_result.error;
    EXPECT_TRUE(gps->Received().empty());
    EXPECT_EQ(m_server->GetState(), ReplayCore::eStateStopped);
}

TEST_F(ReplayRunnerTest, StepAndSeekWhilePausedSendTheClockThenTheRecords) {
    auto gps = Connect("gps");
    auto can = Connect("can");
    Plan({"gps", "can"}, 40, 100);  // gps at 0, 200, ...; can at 100, 300, ...
    Start();
    EXPECT_EQ(m_runner->Resume().Message(), "not paused");
    ASSERT_EQ(m_runner->Pause().Message(), "");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const size_t gpsBefore = gps->Received().size();
    const size_t canBefore = can->Received().size();
    const size_t next = m_runner->Position().nextRecord;
    ASSERT_LT(next + 3, m_plan.records.size());

    // The clock moves to the last stepped record first, so none waits.
    ASSERT_EQ(m_runner->StepRecords(3).Message(), "");
    const int64_t last = m_plan.records[next + 2].timeMs;
    EXPECT_EQ(m_runner->Position().logMs, last);
    EXPECT_EQ(m_runner->Position().nextRecord, next + 3);
    ASSERT_TRUE(gps->WaitFor(gpsBefore + 2, kDeadline));
    ASSERT_TRUE(can->WaitFor(canBefore + 2, kDeadline));
    std::vector<ReplayTest::Datagram> got = After(*gps, gpsBefore);
    EXPECT_EQ(ClockArgument(got[0].bytes), last - m_settings.networkingLatencyMs);
    const auto stepped = [&] {
        std::vector<ReplayTest::Datagram> all = After(*gps, gpsBefore);
        for (const ReplayTest::Datagram& datagram : After(*can, canBefore)) {
            all.push_back(datagram);
        }
        return std::count_if(all.begin(), all.end(), [](const ReplayTest::Datagram& datagram) {
            return datagram.bytes[0] != '#';
        });
    };
    EXPECT_TRUE(ReplayTest::WaitFor([&] { return stepped() >= 3; }, kDeadline));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(stepped(), 3);

    const size_t gpsBeforeTime = gps->Received().size();
    ASSERT_EQ(m_runner->StepTime(200).Message(), "");
    EXPECT_EQ(m_runner->Position().logMs, last + 200);
    EXPECT_EQ(m_runner->Position().nextRecord, next + 5);

    EXPECT_NE(m_runner->Seek(m_plan.DurationMs() + 1).Message().find("lasts 3.900 s"),
              std::string::npos);
    EXPECT_EQ(m_runner->Seek(m_plan.DurationMs()).Message(), "");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const size_t gpsBeforeSeek = gps->Received().size();
    EXPECT_GT(gpsBeforeSeek, gpsBeforeTime);
    ASSERT_EQ(m_runner->Seek(3050).Message(), "");
    EXPECT_EQ(m_runner->Position().logMs, kStart + 3050);
    EXPECT_TRUE(m_runner->Position().paused);
    ASSERT_TRUE(gps->WaitFor(gpsBeforeSeek + 2, kDeadline));
    got = After(*gps, gpsBeforeSeek);
    EXPECT_EQ(ClockArgument(got[0].bytes), kStart + 3050 - m_settings.networkingLatencyMs);
    EXPECT_EQ(got[1].bytes, m_plan.records[30].record) << "gps's record at 3.0 s";
    EXPECT_TRUE(ReplayTest::WaitFor(
        [&] { return After(*can, 0).back().bytes == m_plan.records[29].record; }, kDeadline))
        << "can's at 2.9 s";

    ASSERT_EQ(m_runner->Resume().Message(), "");
    m_thread.join();
    got = After(*gps, gpsBeforeSeek + 2);
    ASSERT_GE(got.size(), 2u);
    EXPECT_GE(ClockArgument(got[0].bytes), kStart + 3050 - m_settings.networkingLatencyMs);
    EXPECT_LE(ClockArgument(got[0].bytes), kStart + 3100 - m_settings.networkingLatencyMs);
    EXPECT_EQ(got[1].bytes, m_plan.records[32].record);
    EXPECT_EQ(m_runner->StepRecords(1).Message(), "the replay is ending");
}

TEST_F(ReplayRunnerTest, MaxRateSendsEachRecordOnceTheClientReportsThePrevious) {
    auto gps = Connect("gps");
    Plan({"gps"}, 4, 5000);  // 15 s at the recorded pace
    Start();
    ASSERT_EQ(m_runner->SetMaxRate().Message(), "");
    ASSERT_TRUE(gps->WaitFor(3, kDeadline));  // replay command, clock, first record
    for (int record = 1; record < 4; ++record) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const size_t got = gps->Received().size();
        EXPECT_EQ(m_runner->Position().nextRecord, static_cast<size_t>(record));
        ASSERT_TRUE(gps->Send(ServerTest::StatusRecord("gps", kStart, "#replay")));
        ASSERT_TRUE(gps->WaitFor(got + 2, kDeadline)) << "record " << record;
        const std::vector<ReplayTest::Datagram> after = After(*gps, got);
        EXPECT_EQ(ClockArgument(after[0].bytes),
                  m_plan.records[record].timeMs - m_settings.networkingLatencyMs);
        EXPECT_EQ(after[1].bytes, m_plan.records[record].record);
    }
    ASSERT_TRUE(gps->Send(ServerTest::StatusRecord("gps", kStart, "#replay")));
    EXPECT_TRUE(ReplayTest::WaitFor([this] { return m_finished.load(); }, kDeadline));
}

}  // namespace
