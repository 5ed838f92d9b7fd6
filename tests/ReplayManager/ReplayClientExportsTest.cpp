#include <cstdlib>
#include <string>

#include "libreplay/ReplayClientC.h"
#include "tests/ReplayManager/ClientTestFixture.h"

namespace {

using namespace ClientTest;

int Replayed(void*, unsigned int, unsigned int) {
    return 1;
}

using ReplayClientExportsTest = ClientFixture;

TEST_F(ReplayClientExportsTest, EntryPointsDriveTheClient) {
    ReplayCore::SetClockSourceForTesting(nullptr);  // the client's threads run
    ASSERT_EQ(
        CInitializeReplayClient("Exporter", &Replayed, nullptr, kDataTypeAsciiText, nullptr, 0), 1);
    EXPECT_EQ(CGetReplayState(), ReplayCore::eStateStopped);
    // Only one initialisation with callbacks per process.
    EXPECT_EQ(
        CInitializeReplayClient("Exporter", &Replayed, nullptr, kDataTypeAsciiText, nullptr, 0), 0);

    g_clientStateManager.SetStateForTesting(ReplayCore::eStateRecord);
    EXPECT_EQ(CSendClientData("buffered", 8, 0, kDataTypeAsciiText), 0);
    // Any non-zero flag sends at once, as a block of its own.
    EXPECT_GT(CSendClientData("at once", 7, 2, kDataTypeAsciiText), 0);
    bool immediate = false;
    for (const std::string& datagram : Received()) {
        immediate = immediate || datagram.find(":at once") != std::string::npos;
        EXPECT_EQ(datagram.find("buffered"), std::string::npos);
    }
    EXPECT_TRUE(immediate);
}

// A handler that takes every item; replay never starts in these tests.
class TakingHandler : public ReplayClient::ReplayMessageHandlerBase {
  public:
    TakingHandler() : ReplayMessageHandlerBase(true) {}
    int ReplayCallback(void*, unsigned int, unsigned int) override { return 1; }
};

TEST_F(ReplayClientExportsTest, DisabledReplayReturnsAtOnceAndEndsTheClient) {
    unsetenv("ENABLE_REPLAY");
    ReplayTest::CapturedDebug debug;
    EXPECT_EQ(ReplayClient::InitializeReplayClient("Nav", &Replayed, nullptr, kDataTypeAsciiText),
              0);
    TakingHandler handler;
    EXPECT_EQ(ReplayClient::InitializeReplayClient("Nav", &handler, kDataTypeAsciiText, false), 0);
    EXPECT_EQ(debug.Count("Replay System Disabled"), 2);
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateShutDown);
    EXPECT_FALSE(clientReadThread.isRunning());
    EXPECT_EQ(ReplayClient::SendClientData("x", 1, false, kDataTypeAsciiText), 0);
    EXPECT_EQ(m_server.Count(), 0u);
}

}  // namespace
