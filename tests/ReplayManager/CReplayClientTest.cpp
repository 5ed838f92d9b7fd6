#include <cstdlib>

#include "libreplay/server/ReplayRuntimeOptions.h"
#include "tests/ReplayManager/ClientTestFixture.h"

namespace {

using namespace ClientTest;
using ReplayTest::CapturedDebug;

int Replayed(void*, unsigned int, unsigned int) {
    return 1;
}

class CountingHandler : public ReplayClient::ReplayMessageHandlerBase {
  public:
    CountingHandler() : ReplayMessageHandlerBase(true) {}
    int ReplayCallback(void*, unsigned int, unsigned int) override { return ++replayed; }
    int InitializationCallback(void*, unsigned int) override { return ++initialised; }
    int replayed = 0;
    int initialised = 0;
};

// The real clock: initialisation starts both client threads.
class CReplayClientTest : public ClientFixture {
  protected:
    void SetUp() override {
        ClientFixture::SetUp();
        ReplayCore::SetClockSourceForTesting(nullptr);
    }
    std::string Body(const std::string& datagram) {
        return datagram.substr(datagram.find(':') + 1,
                               datagram.size() - 9 - datagram.find(':') - 1);
    }
};

TEST_F(CReplayClientTest, DisabledReplayReturnsAtOnceAndEndsTheClient) {
    unsetenv("ENABLE_REPLAY");
    CapturedDebug debug;
    EXPECT_EQ(ReplayClient::InitializeReplayClient("Nav", &Replayed, nullptr, kDataTypeAsciiText),
              0);
    CountingHandler handler;
    EXPECT_EQ(ReplayClient::InitializeReplayClient("Nav", &handler, kDataTypeAsciiText, false), 0);
    EXPECT_EQ(debug.Count("Replay System Disabled"), 2);
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateShutDown);
    EXPECT_FALSE(clientReadThread.isRunning());
    EXPECT_EQ(ReplayClient::SendClientData("x", 1, false, kDataTypeAsciiText), 0);
    EXPECT_EQ(m_server.Count(), 0u);
}

TEST_F(CReplayClientTest, InitialisationDataIsSentAtOnceAsBlockZero) {
    CountingHandler handler;
    const char init[] = "init-data";
    ASSERT_EQ(ReplayClient::InitializeReplayClient("Nav", &handler, kDataTypeNormalizedAsciiText,
                                                   true, init, 9),
              1);
    std::vector<std::string> datagrams = Received();
    ASSERT_GE(datagrams.size(), 1u);
    EXPECT_EQ(datagrams[0][0], '!');
    EXPECT_EQ(Body(datagrams[0]), "Nav:!1 0:init-data");
    EXPECT_TRUE(ChecksumValid(datagrams[0]));
    // Later blocks count on from 1.
    EXPECT_EQ(g_UDPSendBuffer.GetBlockSequence(), 1u);
}

TEST_F(CReplayClientTest, InitialisationsWithoutHandlerOrNameAreRefusedAndEndTheClient) {
    CapturedDebug debug;
    EXPECT_EQ(ReplayClient::InitializeReplayClient("Nav", nullptr, nullptr, kDataTypeAsciiText), 0);
    EXPECT_EQ(ReplayClient::InitializeReplayClient("Nav", static_cast<CountingHandler*>(nullptr),
                                                   kDataTypeAsciiText, false),
              0);
    EXPECT_EQ(ReplayClient::InitializeReplayClient("", &Replayed, nullptr, kDataTypeAsciiText), 0);
    EXPECT_EQ(debug.Count("No CallBack Handler Specified"), 1);
    EXPECT_EQ(debug.Count("No Client Specified"), 1);
    EXPECT_EQ(debug.Count("Invalid Client Name"), 1);
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateShutDown);
    EXPECT_FALSE(clientPingThread.isRunning());
}

}  // namespace
