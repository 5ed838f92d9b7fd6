#include "server/ServerControl.h"

#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "tests/server/LoopbackServer.h"
#include "tests/support/StoredLog.h"

namespace {

namespace srv = ReplayServer;

constexpr auto kDeadline = std::chrono::seconds(10);

class ServerControlTest : public ServerTest::LoopbackServerTest {
  protected:
    void TearDown() override {
        m_control.reset();
        LoopbackServerTest::TearDown();
    }
    void Start() {
        StartServer();
        srv::ReplaySettings settings;
        settings.serverLeadTimeMs = 10;
        settings.networkingLatencyMs = 10;
        settings.endGraceMs = 10;
        m_control.reset(
            new srv::ServerControl(*m_server, settings, [this](const std::string& text) {
                std::lock_guard<std::mutex> lock(m_outputMutex);
                m_output += text;
            }));
    }
    std::string Output() {
        std::lock_guard<std::mutex> lock(m_outputMutex);
        return m_output;
    }
    std::string WriteLog(int seconds) {
        std::vector<ReplayTest::TimedItem> items;
        for (int i = 0; i <= seconds; ++i) {
            items.push_back({1000 + 1000 * i, "item"});
        }
        return WriteTargetFile("/drive.dat", ReplayTest::StoredClientLog(1000, "gps", items));
    }

    // A command that waited for the replay's next record (1 s apart) would
    // take longer; the bound leaves room for a stalling host.
    std::string Timed(const std::string& command) {
        const auto started = std::chrono::steady_clock::now();
        const std::string reply = m_control->Execute(command);
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(400))
            << command;
        return reply;
    }

    std::unique_ptr<srv::ServerControl> m_control;
    std::mutex m_outputMutex;
    std::string m_output;
};

TEST_F(ServerControlTest, StatusClientsAndRecordingCommands) {
    Start();
    EXPECT_EQ(m_control->Execute("record"), "recording\n");
    EXPECT_NE(m_control->Execute("status").find("state Record"), std::string::npos);
    EXPECT_EQ(m_control->Execute("stop"), "recording stopped\n");
    for (const char* bad : {"replay /no/such.dat", "record -3"}) {
        EXPECT_EQ(m_control->Execute(bad).compare(0, 6, "error:"), 0) << bad;
    }
    EXPECT_EQ(m_control->Execute("record 0.05"), "recording for 0.1 s\n");
    EXPECT_EQ(m_control->Execute("wait"), "done\n");
    EXPECT_EQ(m_server->GetState(), ReplayCore::eStateStopped);

    ServerTest::FakeClient gps(m_ip);
    ASSERT_TRUE(gps.Register("gps"));
    const std::string clients = m_control->Execute("clients --json");
    ASSERT_EQ(clients.find('\n'), clients.size() - 1) << clients;
    const nlohmann::json table = nlohmann::json::parse(clients);
    ASSERT_EQ(table["clients"].size(), 1u) << clients;
    EXPECT_EQ(table["clients"][0]["name"], "gps");
    EXPECT_GT(table["clients"][0]["port"].get<int>(), 0);
    EXPECT_GE(table["clients"][0]["received"].get<int>(), 1);
    EXPECT_EQ(table["clients"][0]["bytes"].get<size_t>(),
              ServerTest::StatusRecord("gps", 1000, "").size());

    const std::string status = m_control->Execute("status --json");
    ASSERT_EQ(status.find('\n'), status.size() - 1) << status;
    const nlohmann::json state = nlohmann::json::parse(status);
    EXPECT_EQ(state["state"], "Stopped");
    EXPECT_EQ(state["job_running"], false);
    EXPECT_FALSE(state.contains("replay")) << status;
    EXPECT_GE(state["counters"]["datagrams"].get<int>(), 1);
    EXPECT_EQ(state["clients"], table["clients"]);
    EXPECT_EQ(m_control->Execute("status --xml").compare(0, 6, "error:"), 0);
    m_control->Execute("quit");
    EXPECT_TRUE(m_control->QuitRequested());
}

TEST_F(ServerControlTest, CommandsSayWhyTheyDoNotApply) {
    Start();
    for (const char* command : {"pause", "resume", "seek 1", "step", "step 3", "step 20 ms",
                                "rate 2", "rate max", "loop on"}) {
        EXPECT_EQ(Timed(command), "error: no replay is running\n") << command;
    }
    for (const char* command : {"seek", "seek -1", "seek x", "seek 1 2"}) {
        EXPECT_EQ(Timed(command), "error: usage: seek SECONDS (from the replay's start)\n")
            << command;
    }
    for (const char* command : {"step 0", "step 1.5", "step 5 s", "step 5 ms x", "step ms"}) {
        EXPECT_EQ(Timed(command).compare(0, 13, "error: usage:"), 0) << command;
    }
    for (const char* command : {"rate 0", "rate fast", "rate -2"}) {
        EXPECT_EQ(Timed(command), "error: usage: rate R (0.1 to 10) or rate max\n") << command;
    }
    EXPECT_EQ(Timed("loop maybe").compare(0, 22, "error: unknown command"), 0);
    EXPECT_EQ(Timed("replay").compare(0, 20, "error: usage: replay"), 0);
    const std::string path = WriteLog(3);
    EXPECT_EQ(Timed("replay " + path + " --clients ,"),
              "error: --clients takes names separated by commas\n");
    EXPECT_EQ(Timed("replay " + path + " --clients gps,nav"),
              "error: the log has no records of nav (it has gps)\n");
    // A FIFO would block the command were it opened: a hang fails here.
    const std::string fifo = Root() + "/pipe.dat";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(m_control->Execute("replay " + fifo), "error: " + fifo + " is not a regular file\n");
    EXPECT_EQ(m_control->Execute("replay " + Root()).compare(0, 6, "error:"), 0);
    EXPECT_FALSE(m_control->JobRunning());
    EXPECT_EQ(m_control->Execute("status").compare(0, 13, "state Stopped"), 0);
}

TEST_F(ServerControlTest, RunningReplayAnswersAtOnceReportsItsStateAndStopsCleanly) {
    Start();
    ServerTest::FakeClient gps(m_ip);
    ASSERT_TRUE(gps.Register("gps"));
    const std::string report = Root() + "/report.json";
    const std::string path = WriteLog(60);
    EXPECT_EQ(Timed("replay " + path + " --report " + report),
              "replaying 61 records (0 initialisation, 0 state) of 1 clients, 60 s\n");
    ASSERT_TRUE(ReplayTest::WaitFor([&] { return m_control->Position().started; }, kDeadline));
    EXPECT_EQ(Timed("record").compare(0, 11, "error: busy"), 0);
    EXPECT_EQ(Timed("replay " + path), "error: busy; stop first\n");

    EXPECT_EQ(Timed("step"), "error: step works while paused; pause first\n");
    EXPECT_EQ(Timed("rate 11"), "error: the rate goes from 0.1 to 10, or max\n");
    // Positions are exact only while paused.
    EXPECT_EQ(Timed("seek 20").compare(0, 9, "moved at "), 0);
    EXPECT_EQ(Timed("pause").compare(0, 10, "paused at "), 0);
    EXPECT_EQ(Timed("pause"), "error: already paused\n");
    EXPECT_EQ(Timed("seek 30").compare(0, 18, "moved at 30.000 s "), 0);
    EXPECT_EQ(Timed("step 2"), "stepped at 31.000 s (record 32 of 61)\n");
    EXPECT_EQ(Timed("step 1500 ms"), "stepped at 32.500 s (record 33 of 61)\n");
    EXPECT_EQ(Timed("rate 2.5").compare(0, 12, "rate 2.5 at "), 0);
    EXPECT_EQ(Timed("loop on").compare(0, 10, "loop on at"), 0);

    const std::string status = Timed("status");
    EXPECT_NE(status.find("replay paused at 32.500 s of 60.000 s, record 33 of 61"),
              std::string::npos)
        << status;
    EXPECT_NE(status.find("rate 2.5, loop on"), std::string::npos) << status;
    EXPECT_NE(status.find("gps: 0 of "), std::string::npos) << status;
    const nlohmann::json json = nlohmann::json::parse(Timed("status --json"));
    EXPECT_EQ(json["replay"]["position_ms"], 32500);
    EXPECT_EQ(json["replay"]["clients"][0]["delivered"], 0);
    const long sent = json["replay"]["records_sent"].get<long>();

    EXPECT_EQ(Timed("stop"), "stopping\n");
    EXPECT_EQ(m_control->Execute("wait").compare(0, 16, "done with errors"), 0);
    EXPECT_TRUE(ReplayTest::WaitFor(
        [&] { return gps.Received().back().bytes.compare(0, 6, "#stop ") == 0; }, kDeadline))
        << "the client was not stopped";
    EXPECT_NE(Output().find("replay stopped: " + std::to_string(sent) + " records sent"),
              std::string::npos)
        << Output();
    const nlohmann::json written = nlohmann::json::parse(ReplayTest::ReadFile(report));
    EXPECT_EQ(written["cancelled"], true);
    EXPECT_EQ(written["position_ms"], 32500);
    EXPECT_GE(written["clients"][0]["sent"].get<int>(), 4);
    EXPECT_NE(Timed("status").find("replay ended at 32.500 s"), std::string::npos);

    EXPECT_EQ(m_control->Execute("record"), "recording\n");
    EXPECT_EQ(m_control->Execute("stop"), "recording stopped\n");
}

}  // namespace
