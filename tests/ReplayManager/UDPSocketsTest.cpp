#include "libreplay/server/UDPSockets.h"

#include <fcntl.h>

#include <string>
#include <vector>

#include "libreplay/ReplayCore.h"
#include "libreplay/server/ReplayError.h"
#include "libreplay/server/ReplayRuntimeOptions.h"
#include "tests/support/FakeServer.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayTest::CapturedDebug;
using ReplayTest::FakeServer;

std::vector<std::pair<std::string, int>> g_handlerCalls;
void RecordingHandler(const unsigned char* data, int length) {
    g_handlerCalls.emplace_back(
        data == nullptr ? "null"
                        : std::string(reinterpret_cast<const char*>(data), std::max(length, 0)),
        length);
}

class UDPSocketsTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        ReplayErrorManager::Get().ResetForTesting();
        g_handlerCalls.clear();
        ReplayRuntimeOptions::Get().SetIntegerValue(eExternalConnectWait, 0);
    }
    void TearDown() override {
        UDPSocketClient::m_messageRecievedHandler = nullptr;
        ReplayErrorManager::Get().ResetForTesting();
        TargetRootTest::TearDown();
    }
};

TEST_F(UDPSocketsTest, OnlyTheExactLocalHostTextSkipsTheExternalWaitAndAClosedSocketRefuses) {
    ReplayRuntimeOptions::Get().SetIntegerValue(eExternalConnectWait, 20);
    ReplayTest::ManualClock clock(19999);
    CapturedDebug debug;
    UDPSocketClient client;
    EXPECT_EQ(client.close(), 0);
    EXPECT_FALSE(debug.Contains("Closing Socket"));
    EXPECT_GT(client.Open("127.0.0.1", FakeServer::kReplayPort), 0);
    EXPECT_EQ(fcntl(client.Socket(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_GT(client.Open(nullptr, 4401), 0);  // passive, no name: no wait
    EXPECT_FALSE(debug.Contains("Waiting for External Connection"));

    for (const char* other : {"localhost", "127.000.000.001", "127.0.0.2"}) {
        EXPECT_EQ(client.Open(other, FakeServer::kReplayPort), -1) << other;
        EXPECT_FALSE(client.IsLocalHost());
        EXPECT_EQ(client.Socket(), UDPSocket::INVALID_SOCKET);  // the open socket is gone too
    }
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Waiting for External Connection"), 3);

    SCOPED_TRACE("a closed socket refuses everything at once");
    timeval forever{1000, 0};
    EXPECT_EQ(client.Listen(&forever), -1);
    char buffer[16];
    EXPECT_EQ(client.Read(buffer, sizeof buffer), -1);
    EXPECT_EQ(client.Send("abc", 3), -1);
    EXPECT_NE(ReadTargetFile("/tmp/ReplayLog.txt").find("m_socket > 0 at line 241"),
              std::string::npos);
    UDPSocketClient::m_messageRecievedHandler = &RecordingHandler;
    UDPSocketClient::io_handler(0);
    EXPECT_EQ(g_handlerCalls, (decltype(g_handlerCalls){{"null", 0}}));

    clock.Set(20000);
    EXPECT_GT(client.Open("127.0.0.2", FakeServer::kReplayPort), 0);
}

}  // namespace
