#include "libreplay/server/ReplayRuntimeOptions.h"
#include "tests/ReplayManager/ClientTestFixture.h"

namespace {

using namespace ClientTest;
using ReplayTest::CapturedDebug;

using SynchronousReadThreadTest = ClientFixture;

TEST_F(SynchronousReadThreadTest, CommandsSetStateSlotClockLatencyAndOptionsInKeyOrder) {
    Connect(ReplayCore::eStateStopped);
    CapturedDebug debug;
    g_nowMs = 300000;
    Handle("#replay s=4;l=500.250;");
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateReplay);
    EXPECT_EQ(g_UDPSendBuffer.GetTimeSlot(), 4u);
    EXPECT_TRUE(clientReadThread.ClockIsSet());
    EXPECT_EQ(clientReadThread.GetLatency().m_timeMilliseconds, 100);  // networkingLatency
    g_nowMs = 300040;
    EXPECT_EQ(clientReadThread.GetReplayClock().ExecutionTimeMS().m_timeMilliseconds, 500290);

    const std::string lines = debug.Dump();
    const size_t clock =
        lines.find("Setting Clock to 500.250; Server Log Time=500.250; Latency = 100 MS");
    ASSERT_NE(clock, std::string::npos) << lines;
    EXPECT_LT(lines.find("Time Slot set to 4"), clock) << lines;

    g_nowMs = 400000;
    Handle("#record t=401.300;");
    EXPECT_EQ(ReplayClient::GetReplayState(), ReplayCore::eStateRecord);
    EXPECT_EQ(debug.Count("Latency = -1.300"), 1) << debug.Dump();
    EXPECT_NE(ReadTargetFile("/tmp/ReplayLog.txt").find("clockTime >= serverTime at line 397"),
              std::string::npos);

    const std::string path = Root() + "/other.txt";
    ReplayTest::WriteFile(path, "clientUDPDebugLevel:6;\nreconnectInterval:900;\n");
    Handle("#record c=" + path + ";s=7;");
    EXPECT_EQ(g_LoggingLevel.load(), 6u);
    EXPECT_EQ(ReplayRuntimeOptions::Get().GetIntegerValue(eReconnectInterval), 900);
    EXPECT_EQ(g_UDPSendBuffer.GetTimeSlot(), 7u);
}

}  // namespace
