#include "libreplay/server/ReplayError.h"

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "libreplay/server/FileLogger.h"
#include "tests/support/TestSupport.h"

namespace {

class ReplayErrorTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        Manager().ResetForTesting();
        errno = 0;
    }
    static ReplayErrorManager& Manager() { return ReplayErrorManager::Get(); }
};

TEST_F(ReplayErrorTest, ManagerKeepsTheLastThirtySeriousErrorsAndThreePerLocation) {
    for (int index = 1; index <= 31; ++index) {
        Manager().LogError(ReplayError(std::to_string(index).c_str(), index, 1));
    }
    EXPECT_EQ(Manager().GetErrorCount(), 30u);
    EXPECT_EQ(Manager().GetLastError().GetText(), "31");

    EXPECT_EQ(Manager().LogError(ReplayError("info", 0, 3)).GetText(), "info");
    EXPECT_EQ(Manager().GetLastError().GetText(), "31");
    Manager().ClearErrors();
    EXPECT_EQ(Manager().GetErrorCount(), 0u);

    Manager().SetLimitRepeats(true);
    for (int index = 0; index < 4; ++index) {
        Manager().LogError(ReplayError(99, "dir/Same.cpp", "again", 1));
        Manager().LogError(ReplayError("text only", -1, 1));  // no location: not limited
    }
    EXPECT_EQ(Manager().GetErrorCount(), 7u);

    Manager().LogError(ReplayError(5, "x.cpp", "fatal", ReplayError::eErrorFatal));
    Manager().ClearErrors();
    EXPECT_EQ(Manager().GetErrorCount(), 8u);
}

TEST_F(ReplayErrorTest, ConcurrentLoggingNeverExceedsThirtyEntries) {
    ReplayCore::FileLogger::SetLogginglevel(-1);  // keeps the file log out of the race
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([thread] {
            for (int index = 0; index < 300; ++index) {
                if (index % 2 == 0) {
                    Manager().LogError(ReplayError(index, "T.cpp", "located", 1));
                } else {
                    Manager().LogError("text", "thread", thread % 3);
                }
                EXPECT_LE(Manager().GetErrorCount(), 30u);
                (void)Manager().GetLastError();
                if (index % 50 == 0) {
                    Manager().ClearErrors();
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(Manager().GetErrorCount(), 30u);
    EXPECT_EQ(Manager().GetLowestSeverity(), ReplayError::eErrorFatal);
}

}  // namespace
