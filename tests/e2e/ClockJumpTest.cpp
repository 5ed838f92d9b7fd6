// Jumps of the wall clock, an hour forward and back, while the real processes
// record and replay: all timing runs on the monotonic clock, so the replay
// keeps its pace and the log its order.

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/EndToEnd.h"

namespace {

using namespace std::chrono_literals;
using ReplayTest::ClientSummary;
using ReplayTest::CommandResult;
using ReplayTest::kLastBlockItems;

constexpr long kHourSeconds = 3600;
// Far below the hour of a jump, well above what a loaded machine or a
// sanitizer build costs a replayed item.
constexpr long kTimingToleranceMs = 500;

class ClockJumpTest : public ReplayTest::EndToEndTest {
  protected:
    void SetUp() override {
        PrepareTarget();
        if (HasFatalFailure()) {
            return;
        }
        m_offsetFile = Root() + "/wall-clock-offset";
        JumpWallClockTo(0);
        const char* sanitizerOptions = std::getenv("ASAN_OPTIONS");
        m_environment = {
            std::string("LD_PRELOAD=") + REPLAY_WALL_CLOCK_SHIM,
            "REPLAY_WALL_CLOCK_OFFSET_FILE=" + m_offsetFile,
            // The shim is preloaded ahead of the sanitizer runtime.
            std::string("ASAN_OPTIONS=") +
                (sanitizerOptions != nullptr ? std::string(sanitizerOptions) + ":" : "") +
                "verify_asan_link_order=0",
        };
        StartLogger();
        if (!HasFatalFailure()) {
            StartServer();
        }
    }

    // Every process started with the shim sees the wall clock moved by this
    // many seconds from now on.
    void JumpWallClockTo(long seconds) {
        ReplayTest::WriteFile(m_offsetFile, std::to_string(seconds) + "\n");
    }

    // The wall clock in seconds as a process under the shim reads it.
    long ShimmedWallClock() {
        std::vector<std::string> argv = {"/usr/bin/env"};
        argv.insert(argv.end(), m_environment.begin(), m_environment.end());
        argv.insert(argv.end(), {"/bin/date", "+%s"});
        std::string output;
        ReplaySupport::RunCommand(argv, 10s, output);
        return std::strtol(output.c_str(), nullptr, 10);
    }

    std::string m_offsetFile;
};

TEST_F(ClockJumpTest, WallClockJumpsDisturbNeitherRecordingNorReplayTiming) {
    // The jump is real for the processes: otherwise this case proves nothing.
    const long before = ShimmedWallClock();
    JumpWallClockTo(kHourSeconds);
    ASSERT_NEAR(ShimmedWallClock() - before, kHourSeconds, 60);
    JumpWallClockTo(0);

    ASSERT_NO_FATAL_FAILURE(StartClients({"gps", "can"}));
    ASSERT_EQ(Send("record").status, 0);
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    JumpWallClockTo(kHourSeconds);
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    JumpWallClockTo(-kHourSeconds);
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    ASSERT_EQ(Send("stop").status, 0);
    ASSERT_EQ(Send("wait").status, 0) << m_server->Output();

    ExpectLogIntact();

    const CommandResult replay = Send("replay " + LogPath());
    ASSERT_EQ(replay.status, 0) << replay.output;
    // The jumps here are the fault's timing, during the replay's run.
    JumpWallClockTo(0);
    std::this_thread::sleep_for(700ms);
    JumpWallClockTo(2 * kHourSeconds);
    std::this_thread::sleep_for(700ms);
    JumpWallClockTo(-kHourSeconds);
    ASSERT_EQ(Send("wait").status, 0) << m_server->Output();

    const std::vector<ClientSummary> summaries = StopClients();
    for (size_t i = 0; i < summaries.size(); ++i) {
        const ClientSummary& summary = summaries[i];
        ASSERT_TRUE(summary.found) << m_clients[i]->Output();
        EXPECT_TRUE(summary.identical) << m_clients[i]->Output();
        EXPECT_LE(summary.recorded - std::min(summary.recorded, summary.replayed), kLastBlockItems)
            << m_clients[i]->Output();
        EXPECT_LE(summary.maxErrorMs, kTimingToleranceMs) << m_clients[i]->Output();
    }
}

}  // namespace
