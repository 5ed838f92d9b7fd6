#include "server/ServerControl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <mutex>

#include "libreplay/FileLogger.h"
#include "libreplay/ReplayLogReader.h"
#include "tests/server/LoopbackServer.h"
#include "tests/support/TestSupport.h"

namespace {

namespace srv = ReplayServer;
using ServerTest::DataRecord;

constexpr auto kDeadline = std::chrono::seconds(10);

class ServerControlTest : public ReplayTest::TargetRootTest {
  protected:
    void TearDown() override {
        m_control.reset();
        m_server.reset();
        ReplayCore::FileLogger::ResetForTesting();
        TargetRootTest::TearDown();
    }
    void Start() {
        m_server = ServerTest::StartLoopbackServer(srv::ServerSettings(), m_ip);
        ASSERT_NE(m_server, nullptr);
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

    std::string m_ip;
    std::unique_ptr<srv::ReplayServer> m_server;
    std::unique_ptr<srv::ServerControl> m_control;
    std::mutex m_outputMutex;
    std::string m_output;
};

TEST_F(ServerControlTest, ReplayRefusesFilesThatCouldBlockTheCommand) {
    Start();
    const std::string fifo = Root() + "/pipe.dat";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    auto reply =
        std::async(std::launch::async, [&] { return m_control->Execute("replay " + fifo); });
    if (reply.wait_for(kDeadline) != std::future_status::ready) {
        // Opening and closing the writing end releases a blocked reader.
        close(open(fifo.c_str(), O_WRONLY | O_NONBLOCK));
        close(open(fifo.c_str(), O_WRONLY));
        ADD_FAILURE() << "replay of a FIFO blocked the command";
    }
    EXPECT_EQ(reply.get(), "error: " + fifo + " is not a regular file\n");
    EXPECT_EQ(m_control->Execute("replay " + Root()).compare(0, 6, "error:"), 0);
    EXPECT_EQ(m_control->Execute("status").compare(0, 13, "state Stopped"), 0);
}

TEST_F(ServerControlTest, StoppedReplayLeavesTheServerReadyForTheNextJob) {
    Start();
    ServerTest::FakeClient gps(m_ip);
    ASSERT_TRUE(gps.Register("gps"));
    std::string log;
    for (unsigned int i = 0; i < 3; ++i) {
        std::string framed;
        // The last record lies a minute in: only a stop ends this replay.
        ASSERT_TRUE(
            ReplayCore::LogFormat::FrameRecord(DataRecord("gps", 1000 + 30000 * i, i + 1), framed));
        ReplayCore::LogFormat::AppendStoredRecord(framed.data(), framed.size(), log);
    }
    const std::string path = WriteTargetFile("/drive.dat", log);

    EXPECT_EQ(m_control->Execute("replay " + path),
              "replaying 3 records (0 initialisation, 0 state) of 1 clients, 60 s\n");
    EXPECT_TRUE(m_control->JobRunning());
    EXPECT_EQ(m_control->Execute("record").compare(0, 11, "error: busy"), 0);
    EXPECT_EQ(m_control->Execute("replay " + path), "error: busy; stop first\n");
    // The replay command, the clock and the first record.
    ASSERT_TRUE(gps.WaitFor(3, kDeadline));

    EXPECT_EQ(m_control->Execute("stop"), "stopping\n");
    EXPECT_EQ(m_control->Execute("wait").compare(0, 16, "done with errors"), 0);
    EXPECT_NE(Output().find("replay stopped: 1 records sent"), std::string::npos) << Output();
    ASSERT_TRUE(gps.WaitFor(4, kDeadline));
    EXPECT_EQ(gps.Received().back().bytes.compare(0, 6, "#stop "), 0);

    // Nothing of the replay is left behind: a recording starts and stops.
    EXPECT_EQ(m_control->Execute("record"), "recording\n");
    EXPECT_EQ(m_control->Execute("stop"), "recording stopped\n");
}

}  // namespace
