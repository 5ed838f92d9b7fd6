#include "libreplay/ReplayError.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "libreplay/FileLogger.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayTest::CapturedDebug;

class ReplayErrorTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        Manager().ResetForTesting();
        errno = 0;
    }
    void TearDown() override {
        Manager().ResetForTesting();
        TargetRootTest::TearDown();
    }
    static ReplayErrorManager& Manager() { return ReplayErrorManager::Get(); }
};

void ExpectFresh(const ReplayError& error) {
    EXPECT_EQ(error.GetText(), "No Error");
    EXPECT_EQ(error.GetCode(), 0);
    EXPECT_EQ(error.GetSeverity(), ReplayError::eErrorInfo);
    EXPECT_EQ(error.GetErrorNumber(), 0u);
}

TEST_F(ReplayErrorTest, TextRecordsChooseSeverityBySignAndReplaceMarkup) {
    EXPECT_EQ(ReplayError("a", -5, ReplayError::eErrorBySign).GetSeverity(), 1);
    EXPECT_EQ(ReplayError("a", 0, ReplayError::eErrorBySign).GetSeverity(), 3);

    CapturedDebug debug;
    const ReplayError error("<a & \"b\" > 5%", 17, ReplayError::eErrorWarning);
    EXPECT_EQ(error.GetText(), "!a ! !b! ! 5!");
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "!a ! !b! ! 5!"), 1);
    ReplayError("quiet", 0, ReplayError::eErrorInfo);  // informational: not announced
    EXPECT_EQ(debug.Count("quiet"), 0);
}

TEST_F(ReplayErrorTest, LocatedRecordsNameFileAndLineAndTakeErrno) {
    const ReplayError error(42, "ReplayManager/UDPSockets.cpp", "bind <failed>", 7);
    EXPECT_EQ(error.GetText(), "UDPSockets.cpp line 42: bind !failed!");
    EXPECT_EQ(error.GetLocation(), "42:UDPSockets.cpp");
    EXPECT_NE(ReadTargetFile(ReplayCore::FileLogger::kLogFileLocation).find("bind !failed!"),
              std::string::npos);

    errno = ENOENT;
    const ReplayError fromErrno(7, "/src/Log.cpp", nullptr, 1);
    EXPECT_EQ(fromErrno.GetText(),
              std::string("Log.cpp line 7: Errno=2; text:") + std::strerror(ENOENT));
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(fromErrno.GetErrorNumber(), error.GetErrorNumber() + 1);

    // Equality is by location alone, and needs one.
    EXPECT_TRUE(error == ReplayError(42, "other/UDPSockets.cpp", "different", 2));
    const ReplayError unlocated("text", 1, 1);
    EXPECT_FALSE(unlocated == unlocated);
}

TEST_F(ReplayErrorTest, ManagerKeepsTheLastThirtySeriousErrors) {
    ExpectFresh(Manager().GetLastError());
    for (int index = 1; index <= 31; ++index) {
        Manager().LogError(ReplayError(std::to_string(index).c_str(), index, 1));
    }
    EXPECT_EQ(Manager().GetErrorCount(), 30u);
    EXPECT_EQ(Manager().GetLastError().GetText(), "31");

    // A severity-3 record passes through without being kept.
    EXPECT_EQ(Manager().LogError(ReplayError("info", 0, 3)).GetText(), "info");
    EXPECT_EQ(Manager().GetLastError().GetText(), "31");
    Manager().ClearErrors();
    EXPECT_EQ(Manager().GetErrorCount(), 0u);

    // After a fatal error nothing clears the list.
    Manager().LogError(ReplayError(5, "x.cpp", "fatal", ReplayError::eErrorFatal));
    Manager().ClearErrors();
    EXPECT_EQ(Manager().GetErrorCount(), 1u);
}

TEST_F(ReplayErrorTest, LoggingTextBuildsTheMessageFromContextAndErrno) {
    // Severity 3 through this overload is kept.
    EXPECT_EQ(Manager().LogError("x", nullptr, 3).GetText(), "x");
    ExpectFresh(Manager().LogError(nullptr, "ctx", 2));  // nothing to say
    EXPECT_EQ(Manager().GetErrorCount(), 1u);

    errno = ENOENT;
    const ReplayError error = Manager().LogError(nullptr, "ctx", 2);
    EXPECT_EQ(error.GetText(), std::string("ctx:    ") + std::strerror(ENOENT));
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(Manager().GetLastError().GetText(), error.GetText());

    ExpectFresh(Manager().LogError("debug", "ctx", 4));  // ignored altogether
}

TEST_F(ReplayErrorTest, RepeatLimitKeepsThreeErrorsPerLocation) {
    Manager().SetLimitRepeats(true);
    for (int index = 0; index < 4; ++index) {
        Manager().LogError(ReplayError(99, "dir/Same.cpp", "again", 1));
        Manager().LogError(ReplayError("text only", -1, 1));  // no location: not limited
    }
    EXPECT_EQ(Manager().GetErrorCount(), 7u);
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
