#include <cstdio>

#include "tests/ReplayManager/ClientTestFixture.h"

namespace {

using namespace ClientTest;
using ReplayCore::ReplayState;

using ClientStateTest = ClientFixture;

// The message text of a status record, without time, name and trailer.
std::string StatusText(const std::string& datagram) {
    return SplitBlock(datagram).items.at(0);
}

class ClosingHandler : public ReplayClient::ReplayMessageHandlerBase {
  public:
    ClosingHandler() : ReplayMessageHandlerBase(false) {}
    int ReplayCallback(void*, unsigned int, unsigned int) override { return 0; }
    void ReplayComplete(unsigned int size, char* text) override {
        std::snprintf(text, size, "%s", "all done");
    }
};

TEST_F(ClientStateTest, TransitionsFollowTheTableOnlyChangesAreReportedAndReplayEndsWithItsText) {
    Connect();
    const ReplayState kStates[] = {ReplayCore::eStateStopped,      ReplayCore::eStateRecord,
                                   ReplayCore::eStateReplay,       ReplayCore::eStateShutDown,
                                   ReplayCore::eStateDisconnected, ReplayCore::eStateConnecting};
    int expectedReports = 0;
    for (ReplayState from : kStates) {
        for (ReplayState to : kStates) {
            g_clientStateManager.SetStateForTesting(from);
            const bool allowed =
                from != to && from != ReplayCore::eStateShutDown &&
                (from != ReplayCore::eStateDisconnected || to == ReplayCore::eStateConnecting);
            const ReplayState result = g_clientStateManager.SetClientState(to, nullptr);
            EXPECT_EQ(result, allowed ? to : from) << from << " -> " << to;
            // Disconnected has no command word, so a change to it is not
            // reported even when allowed.
            if (allowed && to != ReplayCore::eStateDisconnected) {
                ++expectedReports;
            }
        }
    }
    g_clientStateManager.SetStateForTesting(ReplayCore::eStateStopped);
    EXPECT_EQ(g_clientStateManager.SetClientState(ReplayCore::eStateUnknown, nullptr),
              ReplayCore::eStateStopped);
    EXPECT_EQ(static_cast<int>(Received().size()), expectedReports);

    // The end of a replay sends the handler's closing text before the report.
    g_clientStateManager.SetStateForTesting(ReplayCore::eStateReplay);
    ClosingHandler handler;
    g_clientStateManager.SetClientState(ReplayCore::eStateStopped, &handler);
    const std::vector<std::string> datagrams = Received();
    ASSERT_EQ(static_cast<int>(datagrams.size()), expectedReports + 2);
    EXPECT_EQ(StatusText(datagrams[expectedReports]), "#replay w=all done;");
    EXPECT_EQ(StatusText(datagrams.back()), "#stop");
}

TEST_F(ClientStateTest, PingWhileRecordingSendsAnOldBlockInsteadOfAReport) {
    Connect(ReplayCore::eStateRecord);
    ReplayClient::SendClientData("young", 5, false, kDataTypeAsciiText);
    g_nowMs = 101999;
    EXPECT_EQ(ReplayClient::PingServer(), 0);  // block younger than 2 s: nothing
    EXPECT_TRUE(Received().empty());

    g_nowMs = 102000;
    EXPECT_EQ(ReplayClient::PingServer(), 0);
    std::vector<std::string> datagrams = Received();
    ASSERT_EQ(datagrams.size(), 1u);
    EXPECT_EQ(SplitBlock(datagrams[0]).items, std::vector<std::string>{"young"});

    // An old empty block: a plain state report.
    g_nowMs = 104000;
    EXPECT_GT(ReplayClient::PingServer(), 0);
    datagrams = Received();
    ASSERT_EQ(datagrams.size(), 2u);
    EXPECT_EQ(StatusText(datagrams[1]), "#record");

    g_clientStateManager.SetStateForTesting(ReplayCore::eStateStopped);
    EXPECT_GT(ReplayClient::PingServer(), 0);
    EXPECT_EQ(StatusText(Received().back()), "#stop");
}

TEST_F(ClientStateTest, DisconnectMovesToConnectingAndShutDownIsFinalAndReportsTheReason) {
    Connect(ReplayCore::eStateRecord);
    EXPECT_EQ(ReplayClient::Disconnect(), ReplayCore::eStateConnecting);
    // A connected mark stops a connecting client, and leaves others alone.
    g_clientStateManager.SetClientConnected();
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateStopped);
    g_clientStateManager.SetStateForTesting(ReplayCore::eStateReplay);
    g_clientStateManager.SetClientConnected();
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateReplay);

    g_clientStateManager.SetStateForTesting(ReplayCore::eStateRecord);
    char reason[] = "host exiting";
    ReplayClient::ShutDownClient(1, reason);
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateShutDown);
    EXPECT_EQ(ReplayClient::Disconnect(), ReplayCore::eStateShutDown);
    EXPECT_EQ(g_clientStateManager.SetClientState(ReplayCore::eStateRecord, nullptr),
              ReplayCore::eStateShutDown);
    EXPECT_EQ(ReplayClient::SendClientData("x", 1, false, kDataTypeAsciiText), 0);

    // The connected mark itself is not reported.
    const std::vector<std::string> datagrams = Received();
    ASSERT_EQ(datagrams.size(), 3u);
    EXPECT_EQ(StatusText(datagrams[0]), "#connecting");
    EXPECT_EQ(StatusText(datagrams[1]), "#quit");
    EXPECT_EQ(StatusText(datagrams[2]), "#quit e=host exiting;");
}

// On the real clock: the ping thread's own timing decides.
TEST_F(ClientStateTest, PingsGoOutOnlyInTheServersTimeSlot) {
    ReplayCore::SetClockSourceForTesting(nullptr);
    ClientPingThread::SetIntervalsForTesting(10, 20);
    Connect(ReplayCore::eStateStopped);
    g_UDPSendBuffer.SetTimeSlot(11);  // a slot the clock never reaches
    clientPingThread.start();
    EXPECT_FALSE(m_server.WaitForDatagrams(1, 1200ms));

    g_UDPSendBuffer.SetTimeSlot(4);
    ASSERT_TRUE(m_server.WaitForDatagrams(2, 3s));
    for (const ReplayTest::Datagram& ping : m_server.Datagrams()) {
        // The record's time is the moment of sending.
        const ReplayCore::MSTime::MSTimeStruct sent(ping.bytes.substr(1, ping.bytes.find(':') - 1));
        EXPECT_EQ(ReplayCore::GetTimeSlotFromTime(sent), 4u) << ping.bytes;
        EXPECT_NE(ping.bytes.find("#stop"), std::string::npos);
    }
    clientPingThread.RequestStop();
}

}  // namespace
