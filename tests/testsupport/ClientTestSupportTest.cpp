#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "tests/support/ChildProcess.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using ReplayTest::ChildProcess;

// Tests that run code in a child process rely on its status telling a crash
// or a hang from success.
TEST(ClientTestSupportTest, ChildProcessesReportStatusAndAreKilledAtTheDeadline) {
    ChildProcess quick([] { return 7; });
    ChildProcess stuck([] { return pause(); });
    ChildProcess throwing([]() -> int { throw 1; });
    EXPECT_EQ(stuck.Wait(50ms), ChildProcess::kTimedOut);
    EXPECT_EQ(quick.Wait(10s), 7);
    EXPECT_EQ(throwing.Wait(10s), 125);
    EXPECT_EQ(ReplayTest::RunInChildProcess([] { return abort(), 0; }, 10s), 128 + SIGABRT);
}

}  // namespace
