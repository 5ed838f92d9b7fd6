#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "libreplay/ReplayRuntimeOptions.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ClientSetup.h"
#include "tests/support/FakeServer.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using ReplayTest::ChildProcess;
using ReplayTest::FakeServer;

class ClientTestSupportTest : public ReplayTest::TargetRootTest {};

TEST_F(ClientTestSupportTest, FakeServersShareThePortOnDistinctAddresses) {
    FakeServer first;
    FakeServer second;
    ASSERT_TRUE(first.IsBound());
    ASSERT_TRUE(second.IsBound());
    EXPECT_NE(first.Address(), second.Address());
    EXPECT_EQ(first.Address().rfind("127.", 0), 0u);
    EXPECT_EQ(first.Port(), 4400);

    const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(sender, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(4400);
    inet_pton(AF_INET, first.Address().c_str(), &to.sin_addr);
    const auto before = std::chrono::steady_clock::now();
    ASSERT_EQ(sendto(sender, "one", 3, 0, reinterpret_cast<sockaddr*>(&to), sizeof to), 3);
    ASSERT_EQ(sendto(sender, "two", 3, 0, reinterpret_cast<sockaddr*>(&to), sizeof to), 3);

    ASSERT_TRUE(first.WaitForDatagrams(2, 5s));
    EXPECT_FALSE(second.WaitForDatagrams(1, 20ms));
    const auto datagrams = first.Datagrams();
    EXPECT_EQ(datagrams[0].bytes, "one");
    EXPECT_EQ(datagrams[1].bytes, "two");
    EXPECT_GE(datagrams[0].arrival, before);
    EXPECT_LE(datagrams[0].arrival, datagrams[1].arrival);

    sockaddr_in local{};
    socklen_t length = sizeof local;
    getsockname(sender, reinterpret_cast<sockaddr*>(&local), &length);
    EXPECT_EQ(datagrams[0].SenderPort(), ntohs(local.sin_port));
    EXPECT_EQ(datagrams[0].SenderAddress().rfind("127.", 0), 0u);

    ASSERT_TRUE(first.Reply(datagrams[0], "#stop"));
    char reply[16] = {0};
    EXPECT_EQ(recv(sender, reply, sizeof reply, 0), 5);
    EXPECT_STREQ(reply, "#stop");
    close(sender);

    first.Clear();
    EXPECT_EQ(first.Count(), 0u);
    first.Close();
    EXPECT_FALSE(first.IsBound());
    EXPECT_FALSE(first.Reply(datagrams[0], "late"));
}

TEST_F(ClientTestSupportTest, ChildProcessesReportStatusAndAreKilledAtTheDeadline) {
    ChildProcess quick([] { return 7; });
    ChildProcess stuck([] {
        for (;;) {
            pause();
        }
        return 0;
    });
    ChildProcess throwing([]() -> int { throw 1; });
    EXPECT_EQ(quick.Wait(10s), 7);
    EXPECT_EQ(quick.Wait(10s), 7);
    EXPECT_EQ(stuck.Wait(50ms), ChildProcess::kTimedOut);
    EXPECT_EQ(throwing.Wait(10s), 125);
    EXPECT_EQ(ReplayTest::RunInChildProcess([] { return abort(), 0; }, 10s), 128 + SIGABRT);
}

TEST_F(ClientTestSupportTest, ReplayConfigPointsTheClientAtTheServer) {
    unsetenv("ENABLE_REPLAY");
    const std::string path = ReplayTest::PrepareReplayClient("127.9.8.7", "reconnectInterval:50;");
    EXPECT_EQ(ReplayTest::ReadFile(path),
              "serverIP:127.9.8.7;\nexternalConnectWait:0;\nreconnectInterval:50;\n");
    EXPECT_EQ(ReplayTest::ReadFile("ReplayConfig.txt"), ReplayTest::ReadFile(path));
    EXPECT_NE(std::getenv("ENABLE_REPLAY"), nullptr);
    ReplayRuntimeOptions& options = ReplayRuntimeOptions::Get();
    EXPECT_EQ(options.GetStringValue(eServerIP), "127.9.8.7");
    EXPECT_EQ(options.GetIntegerValue(eExternalConnectWait), 0);
    EXPECT_EQ(options.GetIntegerValue(eReconnectInterval), 50);
    unsetenv("ENABLE_REPLAY");
}

}  // namespace
