#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

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

TEST_F(ClientTestSupportTest, FakeServersRecordAndAnswerOnDistinctAddresses) {
    FakeServer first;
    FakeServer second;
    ASSERT_TRUE(first.IsBound() && second.IsBound());
    EXPECT_NE(first.Address(), second.Address());

    const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(FakeServer::kReplayPort);
    inet_pton(AF_INET, first.Address().c_str(), &to.sin_addr);
    for (const char* text : {"one", "two"}) {
        ASSERT_EQ(sendto(sender, text, 3, 0, reinterpret_cast<sockaddr*>(&to), sizeof to), 3);
    }
    ASSERT_TRUE(first.WaitForDatagrams(2, 5s));
    EXPECT_FALSE(second.WaitForDatagrams(1, 10ms));
    const auto datagrams = first.Datagrams();
    EXPECT_EQ(datagrams[0].bytes + datagrams[1].bytes, "onetwo");
    EXPECT_LE(datagrams[0].arrival, datagrams[1].arrival);

    ASSERT_TRUE(first.Reply(datagrams[1], "#stop"));
    char reply[16] = {0};
    EXPECT_EQ(recv(sender, reply, sizeof reply, 0), 5);
    close(sender);
}

TEST_F(ClientTestSupportTest, ChildProcessesReportStatusAndAreKilledAtTheDeadline) {
    ChildProcess quick([] { return 7; });
    ChildProcess stuck([] { return pause(); });
    ChildProcess throwing([]() -> int { throw 1; });
    EXPECT_EQ(stuck.Wait(50ms), ChildProcess::kTimedOut);
    EXPECT_EQ(quick.Wait(10s), 7);
    EXPECT_EQ(throwing.Wait(10s), 125);
    EXPECT_EQ(ReplayTest::RunInChildProcess([] { return abort(), 0; }, 10s), 128 + SIGABRT);
}

TEST_F(ClientTestSupportTest, ReplayConfigPointsTheClientAtTheServer) {
    ReplayTest::PrepareReplayClient("127.9.8.7", "reconnectInterval:50;");
    EXPECT_NE(std::getenv("ENABLE_REPLAY"), nullptr);
    EXPECT_EQ(ReplayRuntimeOptions::Get().GetStringValue(eServerIP), "127.9.8.7");
    EXPECT_EQ(ReplayRuntimeOptions::Get().GetIntegerValue(eExternalConnectWait), 0);
    EXPECT_EQ(ReplayRuntimeOptions::Get().GetIntegerValue(eReconnectInterval), 50);
    unsetenv("ENABLE_REPLAY");
}

}  // namespace
