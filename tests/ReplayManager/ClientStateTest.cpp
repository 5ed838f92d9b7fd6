#include <cstdio>

#include "tests/ReplayManager/ClientTestFixture.h"
#include "tests/support/RawRecordText.h"

namespace {

using namespace ClientTest;
using ReplayCore::ReplayState;

using ClientStateTest = ClientFixture;

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
            // Disconnected has no command word to report.
            if (allowed && to != ReplayCore::eStateDisconnected) {
                ++expectedReports;
            }
        }
    }
    g_clientStateManager.SetStateForTesting(ReplayCore::eStateStopped);
    EXPECT_EQ(g_clientStateManager.SetClientState(ReplayCore::eStateUnknown, nullptr),
              ReplayCore::eStateStopped);
    EXPECT_EQ(static_cast<int>(Received().size()), expectedReports);

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
    EXPECT_EQ(ReplayClient::PingServer(), 0);
    EXPECT_TRUE(Received().empty());

    g_nowMs = 102000;
    EXPECT_EQ(ReplayClient::PingServer(), 0);
    std::vector<std::string> datagrams = Received();
    ASSERT_EQ(datagrams.size(), 1u);
    EXPECT_EQ(SplitBlock(datagrams[0]).items, std::vector<std::string>{"young"});

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

    const std::vector<std::string> datagrams = Received();
    ASSERT_EQ(datagrams.size(), 3u);
    EXPECT_EQ(datagrams[0], ReplayTest::WithChecksum("#100.000:Tester:#connecting"))
        << "the status writer's stored form";
    EXPECT_EQ(StatusText(datagrams[1]), "#quit");
    EXPECT_EQ(StatusText(datagrams[2]), "#quit e=host exiting;");
}

}  // namespace
