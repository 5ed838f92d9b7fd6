#include "server/ReplayServer.h"

#include "libreplay/server/FileLogger.h"
#include "tests/server/LoopbackServer.h"

namespace {

namespace srv = ReplayServer;
using ReplayTest::WaitFor;
using ServerTest::DataRecord;
using ServerTest::StatusRecord;

constexpr auto kDeadline = std::chrono::seconds(10);

using UdpClient = ReplayTest::UdpTestClient;

class ReplayServerTest : public ServerTest::LoopbackServerTest {
  protected:
    void Send(const UdpClient& client, const std::string& text) {
        ASSERT_TRUE(client.Send(m_ip, 4400, text));
    }
};

TEST_F(ReplayServerTest, ClientsGetOwnSlotsAndFollowTheRecordingState) {
    StartServer();
    UdpClient gps(m_ip);
    UdpClient can(m_ip);
    Send(gps, StatusRecord("gps", 1000, ""));
    EXPECT_EQ(gps.Receive(), "#stop s=0;");
    Send(can, DataRecord("can", 1000, 0, "INIT"));
    EXPECT_EQ(can.Receive(), "#stop s=1;");

    m_server->StartRecording();
    const std::string command = gps.Receive();
    EXPECT_EQ(command.compare(0, 14, "#record s=0;t="), 0) << command;
    EXPECT_EQ(can.Receive().compare(0, 14, "#record s=1;t="), 0);

    UdpClient late(m_ip);
    Send(late, StatusRecord("late", 1000, ""));
    EXPECT_EQ(late.Receive().compare(0, 14, "#record s=2;t="), 0);

    Send(gps, DataRecord("gps", 1100, 1));
    Send(gps, StatusRecord("gps", 1200, ""));
    Send(gps, StatusRecord("gps", 1200, "#record e=;"));
    // With the file log at its last entry, bad datagrams must not log past it.
    using ReplayCore::FileLogger;
    while (FileLogger::WritesSoFar() < FileLogger::kMaximumWrites) {
        ASSERT_GT(FileLogger::LogToFile(FileLogger::eSeverityError, "filler entry"), 0);
    }
    std::string damaged = DataRecord("gps", 1300, 2);
    damaged[3] = 'x';
    Send(gps, damaged);
    // Sent last: once it is counted, all are handled.
    ASSERT_TRUE(WaitFor([&] { return m_server->Counters().checksumFailures >= 1; }, kDeadline));
    EXPECT_LT(FileLogger::GetLogginglevel(), FileLogger::eSeverityAssert);
    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityAssert, "not written"), 0);
    const srv::ServerCounters counters = m_server->Counters();
    EXPECT_EQ(counters.recordsHeld + counters.recordsForwarded, 2u);
    EXPECT_EQ(counters.checksumFailures, 1u);
    EXPECT_EQ(m_server->Clients().size(), 3u);

    EXPECT_TRUE(m_server->StopRecording(0));
    EXPECT_EQ(m_server->Counters().recordsForwarded, 3u);  // with the flushing status record
    EXPECT_EQ(gps.Receive(), "#stop s=0;");
    EXPECT_EQ(m_server->GetState(), ReplayCore::eStateStopped);
}

TEST_F(ReplayServerTest, FullTableRefusesNewNamesButReplacesRestartedAndSilentClients) {
    ReplayTest::ManualClock clock(1000000);
    srv::ServerSettings settings;
    settings.clientLimit = 1;
    StartServer(settings);
    UdpClient first(m_ip);
    Send(first, StatusRecord("gps", 1000, ""));
    EXPECT_EQ(first.Receive(), "#stop s=0;");
    UdpClient second(m_ip);
    Send(second, StatusRecord("can", 1000, ""));
    ASSERT_TRUE(WaitFor([&] { return m_server->Counters().refusedClients == 1; }, kDeadline));
    EXPECT_EQ(m_server->Clients().size(), 1u);

    UdpClient restarted(m_ip);
    Send(restarted, StatusRecord("gps", 2000, ""));
    EXPECT_EQ(restarted.Receive(), "#stop s=0;");
    ASSERT_TRUE(WaitFor(
        [&] {
            const auto table = m_server->Clients();
            return table.size() == 1 && table[0].GetMessagesReceived() == 1 &&
                   table[0].GetClientName() == "gps";
        },
        kDeadline));

    clock.Advance(60000);
    m_server->GetClientDataList().UpdateClientStatus(true);
    UdpClient newcomer(m_ip);
    Send(newcomer, StatusRecord("nav", 1000, ""));
    EXPECT_EQ(newcomer.Receive(), "#stop s=0;");
    const auto table = m_server->Clients();
    ASSERT_EQ(table.size(), 1u);
    EXPECT_EQ(table[0].GetClientName(), "nav");
    EXPECT_EQ(m_server->Counters().refusedClients, 1u);
}

}  // namespace
