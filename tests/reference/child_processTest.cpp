#include "reference/src/child_process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;
using ReplayPlatform::RunProgram;
using std::chrono::milliseconds;

TEST(RunProgramTest, CollectsOutputAndExitStatusOfAProgramFoundOnPathOrFailsWithout) {
    std::string output = "kept:";
    const int status =
        RunProgram({"sh", "-c", "echo one; echo two >&2; exit 3"}, milliseconds(10000), output);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(RunProgram({"replay-no-such-program"}, milliseconds(10000), output), -1);
    EXPECT_EQ(RunProgram({}, milliseconds(10000), output), -1);
    EXPECT_EQ(output, "kept:one\n");  // appended; standard error goes nowhere
}

TEST(RunProgramTest, AProgramOverItsTimeLimitIsKilledAtTheLimit) {
    for (const char* script : {"echo started; sleep 30", "exec >&-; sleep 30 & wait"}) {
        std::string output;
        const auto start = Clock::now();
        EXPECT_EQ(RunProgram({"sh", "-c", script}, milliseconds(300), output), -1) << script;
        const auto took = Clock::now() - start;
        EXPECT_GE(took, milliseconds(300)) << script;
        EXPECT_LT(took, milliseconds(10000)) << script;
    }
}

}  // namespace
