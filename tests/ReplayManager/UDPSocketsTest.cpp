#include "libreplay/UDPSockets.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>

#include "libreplay/FileLogger.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/ReplayError.h"
#include "libreplay/ReplayRuntimeOptions.h"
#include "tests/support/FakeServer.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using ReplayTest::CapturedDebug;
using ReplayTest::FakeServer;

std::atomic<int64_t> g_fakeNow{0};
int64_t FakeClock() {
    return g_fakeNow.load();
}

bool CloseOnExec(int fd) {
    const int flags = fcntl(fd, F_GETFD);
    return flags >= 0 && (flags & FD_CLOEXEC) != 0;
}

class UDPSocketsTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        ReplayErrorManager::Get().ResetForTesting();
        ReplayRuntimeOptions::Get().SetIntegerValue(eExternalConnectWait, 0);
    }
    void TearDown() override {
        ReplayCore::SetClockSourceForTesting(nullptr);
        ReplayErrorManager::Get().ResetForTesting();
        ReplayCore::FileLogger::ResetForTesting();
        TargetRootTest::TearDown();
    }
    std::string LastErrorText() const { return ReplayErrorManager::Get().GetLastError().GetText(); }
    std::string LastErrorLocation() const {
        return ReplayErrorManager::Get().GetLastError().GetLocation();
    }
    // A loopback port with nobody behind it: a fake server bound and gone.
    static std::string VanishedServerAddress() {
        FakeServer gone(false);
        return gone.Address();
    }
};

TEST_F(UDPSocketsTest, ClosedSocketIsHarmless) {
    CapturedDebug debug;
    UDPSocketClient client;
    EXPECT_EQ(client.Socket(), UDPSocket::INVALID_SOCKET);
    EXPECT_EQ(client.close(), 0);
    EXPECT_EQ(client.close(), 0);
    EXPECT_FALSE(debug.Contains("Closing Socket"));

    timeval forever{1000, 0};
    EXPECT_EQ(client.Listen(&forever), -1);  // returns at once, never selects

    char buffer[16];
    EXPECT_EQ(client.Read(buffer, sizeof buffer), -1);
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "Invalid Socket"), 1);

    EXPECT_EQ(client.Send("abc", 3), -1);
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "m_socket=-1"), 1);
    EXPECT_NE(ReadTargetFile("/tmp/ReplayLog.txt").find("m_socket > 0 at line 241"),
              std::string::npos);
}

TEST_F(UDPSocketsTest, SocketsAreCloseOnExecAndCloseOnce) {
    CapturedDebug debug;
    UDPSocket plain;
    const int fd = plain.makeSocket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(CloseOnExec(fd));
    EXPECT_EQ(plain.closeSocket(fd), 0);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Closing Socket " + std::to_string(fd)), 1);

    FakeServer server;
    ASSERT_TRUE(server.IsBound());
    UDPSocketClient client;
    const int opened = client.Open(server.Address().c_str(), server.Port());
    ASSERT_GT(opened, 0);
    EXPECT_EQ(client.Socket(), opened);
    EXPECT_TRUE(CloseOnExec(opened));
    EXPECT_EQ(client.ConnectionType(), AF_INET);

    // Opening again replaces the socket instead of leaking it.
    debug.Clear();
    ASSERT_GT(client.Open(server.Address().c_str(), server.Port()), 0);
    EXPECT_EQ(debug.Count("Closing Socket " + std::to_string(opened)), 1);

    EXPECT_EQ(client.close(), 0);
    EXPECT_EQ(client.Socket(), UDPSocket::INVALID_SOCKET);
    EXPECT_EQ(client.close(), 0);
}

TEST_F(UDPSocketsTest, SendAndReadThroughConnectedSocket) {
    FakeServer server;
    ASSERT_TRUE(server.IsBound());
    UDPSocketClient client;
    ASSERT_GT(client.Open(server.Address().c_str(), server.Port()), 0);

    EXPECT_EQ(client.Send("record-1", 8), 8);
    ASSERT_TRUE(server.WaitForDatagrams(1, 5s));
    const ReplayTest::Datagram first = server.Datagrams()[0];
    EXPECT_EQ(first.bytes, "record-1");

    ASSERT_TRUE(server.Reply(first, "#record"));
    timeval limit{5, 0};
    EXPECT_EQ(client.Listen(&limit), 1);
    char buffer[64] = {0};
    EXPECT_EQ(client.Read(buffer, sizeof buffer), 7);
    EXPECT_EQ(std::string(buffer), "#record");
}

TEST_F(UDPSocketsTest, OnlyTheExactLocalHostTextSkipsTheExternalWait) {
    ReplayRuntimeOptions::Get().SetIntegerValue(eExternalConnectWait, 20);
    ReplayCore::SetClockSourceForTesting(&FakeClock);
    g_fakeNow = 19999;
    CapturedDebug debug;

    UDPSocketClient client;
    EXPECT_TRUE(client.IsLocalHost());
    EXPECT_GT(client.Open("127.0.0.1", FakeServer::kReplayPort), 0);
    EXPECT_TRUE(client.IsLocalHost());
    EXPECT_FALSE(debug.Contains("Waiting for External Connection"));

    for (const char* other : {"localhost", "127.000.000.001", "127.0.0.2"}) {
        debug.Clear();
        EXPECT_EQ(client.Open(other, FakeServer::kReplayPort), -1) << other;
        EXPECT_FALSE(client.IsLocalHost());
        EXPECT_EQ(client.Socket(), UDPSocket::INVALID_SOCKET);
        EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Waiting for External Connection"), 1);
        EXPECT_FALSE(debug.Contains("Constructing Synchronous Client Socket"));
    }

    // Once the clock has run the whole wait, a remote name is tried.
    g_fakeNow = 20000;
    EXPECT_GT(client.Open("127.0.0.2", FakeServer::kReplayPort), 0);
    EXPECT_EQ(client.GetServerName(), "127.0.0.2");
}

TEST_F(UDPSocketsTest, NullNameSkipsTheWaitAndKeepsTheServerName) {
    ReplayRuntimeOptions::Get().SetIntegerValue(eExternalConnectWait, 1000000);
    UDPSocketClient client;
    client.SetServerName("10.1.2.3");
    EXPECT_GT(client.Open(nullptr, 4401), 0);
    EXPECT_EQ(client.GetServerName(), "10.1.2.3");
    client.SetServerName(nullptr);
    EXPECT_EQ(client.GetServerName(), "10.1.2.3");
}

TEST_F(UDPSocketsTest, FailedOpenLeavesTheSocketClosedAndIsRecorded) {
    CapturedDebug debug;
    UDPSocketClient client;

    // An unknown service name fails the look-up without any network.
    EXPECT_EQ(client.Open("127.0.0.1", -1), -1);
    EXPECT_EQ(client.Socket(), UDPSocket::INVALID_SOCKET);
    EXPECT_NE(LastErrorText().find("UDPSockets line 198: getaddrinfo error"), std::string::npos)
        << LastErrorText();
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "getaddrinfo error"), 2);  // record + own
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Closing Socket"), 1);

    // An IPv6 address resolves, but the IPv4 socket cannot connect to it.
    debug.Clear();
    EXPECT_EQ(client.Open("::1", FakeServer::kReplayPort), -1);
    EXPECT_EQ(client.Socket(), UDPSocket::INVALID_SOCKET);
    EXPECT_EQ(LastErrorLocation(), "209:UDPSockets");
    EXPECT_NE(LastErrorText().find("Failed to Connect to Server ::1"), std::string::npos);
    EXPECT_EQ(debug.Count(CapturedDebug::kWarning, "Closing Socket"), 1);
}

TEST_F(UDPSocketsTest, SendToAbsentServerReportsRefusal) {
    const std::string address = VanishedServerAddress();
    CapturedDebug debug;
    UDPSocketClient client;
    ASSERT_GT(client.Open(address.c_str(), FakeServer::kReplayPort), 0);

    // The first datagram leaves; the port-unreachable answer fails a later
    // send on the connected socket.
    int result = 0;
    ASSERT_TRUE(ReplayTest::WaitFor(
        [&] {
            result = client.Send("ping", 4);
            return result < 0;
        },
        5s, 5ms));
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(LastErrorLocation(), "254:UDPSockets");
    const std::string expected = "Send Failed to Server " + address +
                                 "; socket=" + std::to_string(client.Socket()) +
                                 "; nbytes=4; Error=Connection refused";
    EXPECT_NE(LastErrorText().find(expected), std::string::npos) << LastErrorText();
    EXPECT_EQ(debug.Count(CapturedDebug::kError, expected), 2);  // record + own
    EXPECT_GT(client.Socket(), 0);  // the caller decides about reconnecting
}

TEST_F(UDPSocketsTest, ReadAfterServerVanishedReportsRefusal) {
    FakeServer server;
    ASSERT_TRUE(server.IsBound());
    CapturedDebug debug;
    UDPSocketClient client;
    ASSERT_GT(client.Open(server.Address().c_str(), server.Port()), 0);
    server.Close();

    ASSERT_EQ(client.Send("state", 5), 5);
    timeval limit{5, 0};
    ASSERT_EQ(client.Listen(&limit), 1);  // the pending error wakes the reader
    char buffer[32];
    EXPECT_EQ(client.Read(buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(debug.Count(CapturedDebug::kError,
                          "-1 Bytes Returned by recvfrom; Error=Connection refused"),
              1);
}

}  // namespace
