#include <cstdlib>

#include "libreplay/ReplayRuntimeOptions.h"
#include "tests/ReplayManager/ClientTestFixture.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define CLIENT_TEST_UNDER_TSAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define CLIENT_TEST_UNDER_TSAN 1
#endif

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

#if !defined(CLIENT_TEST_UNDER_TSAN)
// Re-initialising re-opens the socket that the running read thread uses; the
// race is accepted by design, so this case stays out of the thread checker.
TEST_F(CReplayClientTest, SecondHandlerInitialisationReplacesTheHandler) {
    CountingHandler first;
    CountingHandler second;
    ASSERT_EQ(ReplayClient::InitializeReplayClient("Nav", &first, kDataTypeAsciiText, false), 1);
    ASSERT_EQ(ReplayClient::InitializeReplayClient("Nav", &second, kDataTypeAsciiText, false), 1);
    EXPECT_EQ(g_replayMessageHandler.load(), &second);
    int announcements = 0;
    for (const std::string& datagram : Received()) {
        announcements += Body(datagram) == "Nav:" ? 1 : 0;
    }
    EXPECT_EQ(announcements, 2);
}
#endif

// Without an initialisation callback, initialisation records go to the
// replay callback.
TEST(ReplayMessageHandlerTest, InitialisationRecordsGoWhereTheHandlerWantsThem) {
    static int replayed = 0;
    static int initialised = 0;
    const auto replay = [](void*, unsigned int, unsigned int) { return ++replayed; };
    ReplayClient::ReplayMessageHandler withInit(replay,
                                                [](void*, unsigned int) { return ++initialised; });
    ReplayClient::ReplayMessageHandler withoutInit(replay, nullptr);
    withInit.DoCallback(nullptr, 0, 0, true);
    withoutInit.DoCallback(nullptr, 0, 0, true);
    EXPECT_EQ(initialised, 1);
    EXPECT_EQ(replayed, 1);
}

}  // namespace
