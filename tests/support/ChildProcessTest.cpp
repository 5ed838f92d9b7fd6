// The child processes every end-to-end test, benchmark and soak run relies
// on to report how a child ended and never to leave one behind.

#include "support/ChildProcess.h"

#include <signal.h>

#include <gtest/gtest.h>

#include <filesystem>
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

// A child that ignores SIGTERM is still running at Wait's deadline, and Stop
// ends it with SIGKILL once the grace has passed.
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

// Added variables replace the caller's of the same name rather than
// following them (a program reading the first would see the old value);
// the working directory and the truncated output file are the child's.
TEST_F(ChildProcessTest, EnvironmentDirectoryAndOutputAreTheChilds) {
    setenv("REPLAY_CHILD_TEST", "old", 1);
    const std::string out = WriteTargetFile("/child.out", "left over\n");
    ChildProcess child;
    ASSERT_TRUE(child.Start(
        {"/bin/sh", "-c", "env | grep -c '^REPLAY_CHILD_TEST='; echo $REPLAY_CHILD_TEST; pwd -P"},
        {Root() + "/tmp", {"REPLAY_CHILD_TEST=new"}, out, true, false}));
    EXPECT_EQ(child.Wait(10s), 0);
    EXPECT_EQ(child.Output(),
              "1\nnew\n" + std::filesystem::canonical(Root() + "/tmp").string() + "\n");
    unsetenv("REPLAY_CHILD_TEST");
}

}  // namespace
