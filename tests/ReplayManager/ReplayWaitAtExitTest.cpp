// The sanitizer builds check that nothing the waiting read thread uses is destroyed under it.

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "libreplay/ReplayClient.h"
#include "libreplay/ReplayCore.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ClientSetup.h"
#include "tests/support/FakeServer.h"
#include "tests/support/RawRecordText.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;

const char kClientName[] = "waiter";
constexpr int kDelivered = 5;

std::atomic<int> g_deliveries{0};

int CountDelivery(void*, unsigned int, unsigned int) {
    g_deliveries.fetch_add(1);
    return 1;
}

int WaitingApplication(bool shutDownFirst) {
    std::freopen("client.out", "w", stdout);
    if (ReplayClient::InitializeReplayClient(kClientName, CountDelivery, nullptr,
                                             kDataTypeAsciiText) != 1) {
        return 3;
    }
    while (access("go", F_OK) != 0) {
        std::this_thread::sleep_for(5ms);
    }
    if (shutDownFirst) {
        ReplayClient::ShutDownClient(0, nullptr);
    }
    // atexit handlers and static destructors run while the read thread may still wait.
    std::exit(g_deliveries.load() != 0 ? kDelivered : 0);
}

class ReplayWaitAtExitTest : public ReplayTest::TargetRootTest,
                             public ::testing::WithParamInterface<bool> {};

TEST_P(ReplayWaitAtExitTest, FarAheadItemIsNotWaitedForOnceTheClientEnds) {
    ReplayTest::FakeServer server(false);
    ASSERT_TRUE(server.IsBound());
    ReplayTest::PrepareReplayClient(server.Address());
    const bool shutDownFirst = GetParam();
    ReplayTest::ChildProcess application(
        [shutDownFirst] { return WaitingApplication(shutDownFirst); });
    server.Start();
    ASSERT_TRUE(server.WaitForDatagrams(1, 10s));
    const ReplayTest::Datagram hello = server.Datagrams().front();

    ASSERT_TRUE(server.Reply(hello, "#replay l=1000.000;"));
    ASSERT_TRUE(server.Reply(hello, ReplayTest::WithChecksum(std::string("\"1030.000:") +
                                                             kClientName + ":!1 1:far ahead")));
    std::this_thread::sleep_for(500ms);

    const auto ending = std::chrono::steady_clock::now();
    ReplayTest::WriteFile("go", "");
    const int status = application.Wait(20s);
    const auto took = std::chrono::steady_clock::now() - ending;
    EXPECT_EQ(status, 0) << "5: the item was delivered; other: see client.out";
    // Stopping a waiting thread allows it 2 s; a wait that wakes at once ends far sooner.
    EXPECT_LT(took, 1500ms) << std::chrono::duration_cast<std::chrono::milliseconds>(took).count()
                            << " ms";
}

INSTANTIATE_TEST_SUITE_P(ShutDownOrPlainExit, ReplayWaitAtExitTest, ::testing::Bool());

}  // namespace
