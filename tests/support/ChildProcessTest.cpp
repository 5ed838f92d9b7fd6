// The child processes every end-to-end test, benchmark and soak relies on.

#include "support/ChildProcess.h"

#include <signal.h>

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using ReplaySupport::ChildProcess;

class ChildProcessTest : public ReplayTest::TargetRootTest {};

TEST_F(ChildProcessTest, ReportsExitStatusSignalAndEscapingException) {
    EXPECT_EQ(ReplaySupport::RunInChildProcess([] { return 300; }, 10s), 300 & 0xFF);
    EXPECT_EQ(ReplaySupport::RunInChildProcess([]() -> int { throw std::runtime_error("x"); }, 10s),
              125);
    ChildProcess killed;
    ASSERT_TRUE(killed.Start({"/bin/sh", "-c", "kill -TERM $$"}, {}));
    EXPECT_EQ(killed.Wait(10s), 128 + SIGTERM);
    EXPECT_EQ(ChildProcess().Wait(1s), ChildProcess::kNotStarted);
}

TEST_F(ChildProcessTest, StopEscalatesToKillAfterTheGrace) {
    ChildProcess stubborn;
    ASSERT_TRUE(stubborn.Start({"/bin/sh", "-c", "trap '' TERM; echo ready; exec sleep 60"},
                               {"", {}, Root() + "/out", false, false}));
    ASSERT_TRUE(ReplayTest::WaitFor([&] { return stubborn.Output() == "ready\n"; }, 10s));
    stubborn.Signal(SIGTERM);
    EXPECT_EQ(stubborn.Wait(200ms), ChildProcess::kStillRunning);
    EXPECT_TRUE(stubborn.Running());
    EXPECT_EQ(stubborn.Stop(100ms), 128 + SIGKILL);
    EXPECT_FALSE(stubborn.Running());
}

}  // namespace
