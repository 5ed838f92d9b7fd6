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
        ReplayErrorManager::Get().ResetForTesting();
        errno = 0;
    }
    void TearDown() override {
        ReplayErrorManager::Get().ResetForTesting();
        ReplayCore::FileLogger::ResetForTesting();
        TargetRootTest::TearDown();
    }
    ReplayErrorManager& Manager() { return ReplayErrorManager::Get(); }
};

void ExpectFresh(const ReplayError& error) {
    EXPECT_EQ(error.GetText(), "No Error");
    EXPECT_EQ(error.GetCode(), 0);
    EXPECT_EQ(error.GetSeverity(), ReplayError::eErrorInfo);
    EXPECT_EQ(error.GetLocation(), "");
    EXPECT_EQ(error.GetErrorNumber(), 0u);
}

TEST_F(ReplayErrorTest, TextRecordsChooseSeverityBySignAndReplaceMarkup) {
    ExpectFresh(ReplayError());
    EXPECT_EQ(ReplayError("a", -5, ReplayError::eErrorBySign).GetSeverity(),
              ReplayError::eErrorSevere);
    EXPECT_EQ(ReplayError("a", 0, ReplayError::eErrorBySign).GetSeverity(),
              ReplayError::eErrorInfo);
    EXPECT_EQ(ReplayError("a", 5, ReplayError::eErrorBySign).GetSeverity(),
              ReplayError::eErrorInfo);

    CapturedDebug debug;
    const ReplayError error("<a & \"b\" > 5%", 17, ReplayError::eErrorWarning);
    EXPECT_EQ(error.GetText(), "!a ! !b! ! 5!");
    EXPECT_EQ(error.GetCode(), 17);
    EXPECT_EQ(error.GetLocation(), "");
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "libReplay::ReplayError::ctor2: !a ! !b! ! 5!\n"),
              1);
    // Informational records are not announced.
    ReplayError("quiet", 0, ReplayError::eErrorInfo);
    EXPECT_EQ(debug.Count("quiet"), 0);
}

TEST_F(ReplayErrorTest, LocatedRecordsNameFileAndLineAndTakeErrno) {
    CapturedDebug debug;
    const ReplayError error(42, "ReplayManager/UDPSockets.cpp", "bind <failed>",
                            ReplayError::eErrorBySign);
    EXPECT_EQ(error.GetText(), "UDPSockets.cpp line 42: bind !failed!");
    EXPECT_EQ(error.GetLocation(), "42:UDPSockets.cpp");
    EXPECT_EQ(error.GetCode(), -1);
    EXPECT_EQ(error.GetSeverity(), ReplayError::eErrorBySign);  // not resolved here
    // Announced whatever the severity, and logged to the file.
    EXPECT_EQ(debug.Count(CapturedDebug::kError, "libReplay::ReplayError::ctor: UDPSockets"), 1);
    EXPECT_NE(ReadTargetFile(ReplayCore::FileLogger::kLogFileLocation)
                  .find("UDPSockets.cpp line 42: bind !failed!"),
              std::string::npos);

    errno = ENOENT;
    const ReplayError fromErrno(7, "/src/Log.cpp", nullptr, ReplayError::eErrorSevere);
    EXPECT_EQ(fromErrno.GetText(),
              std::string("Log.cpp line 7: Errno=2; text:") + std::strerror(ENOENT));
    EXPECT_EQ(errno, 0);

    // The message and the location are cut to 195 characters.
    const std::string longName(300, 'f');
    const ReplayError cut(1, longName.c_str(), "x", ReplayError::eErrorSevere);
    EXPECT_EQ(cut.GetText().size(), 195u);
    EXPECT_EQ(cut.GetLocation().size(), 195u);
}

TEST_F(ReplayErrorTest, RecordsAreNumberedAndEqualByLocationOnly) {
    const ReplayError first("one", 1, ReplayError::eErrorSevere);
    const ReplayError second(10, "a/File.cpp", "two", ReplayError::eErrorSevere);
    EXPECT_EQ(second.GetErrorNumber(), first.GetErrorNumber() + 1);
    const ReplayError copy = second;
    EXPECT_EQ(copy.GetErrorNumber(), second.GetErrorNumber());

    const ReplayError sameLocation(10, "b/File.cpp", "other text", ReplayError::eErrorWarning);
    EXPECT_TRUE(second == sameLocation);
    EXPECT_FALSE(second == ReplayError(11, "a/File.cpp", "two", ReplayError::eErrorSevere));
    // Records without a location never compare equal, not even to themselves.
    EXPECT_FALSE(first == first);
    EXPECT_FALSE(second == first);
}

TEST_F(ReplayErrorTest, ManagerKeepsTheLastThirtySeriousErrors) {
    ExpectFresh(Manager().GetLastError());
    for (int index = 1; index <= 31; ++index) {
        Manager().LogError(ReplayError(std::to_string(index).c_str(), index, 1));
    }
    EXPECT_EQ(Manager().GetErrorCount(), 30u);
    EXPECT_EQ(Manager().GetLastError().GetText(), "31");
    EXPECT_EQ(Manager().GetLowestSeverity(), ReplayError::eErrorSevere);

    // Informational records pass through without being kept.
    const ReplayError info("info", 0, ReplayError::eErrorInfo);
    EXPECT_EQ(Manager().LogError(info).GetText(), "info");
    EXPECT_EQ(Manager().GetLastError().GetText(), "31");

    EXPECT_EQ(Manager().ClearErrors(), 0);
    EXPECT_EQ(Manager().GetErrorCount(), 0u);
}

TEST_F(ReplayErrorTest, LoggingTextBuildsTheMessageFromContextAndErrno) {
    // Severity 3 through this overload is kept.
    EXPECT_EQ(Manager().LogError("x", nullptr, 3).GetText(), "x");
    EXPECT_EQ(Manager().GetErrorCount(), 1u);

    // Nothing to say: a fresh record, nothing kept.
    ExpectFresh(Manager().LogError(nullptr, "ctx", 2));
    EXPECT_EQ(Manager().GetErrorCount(), 1u);

    errno = ENOENT;
    const ReplayError error = Manager().LogError(nullptr, "ctx", 2);
    EXPECT_EQ(error.GetText(), std::string("ctx:    ") + std::strerror(ENOENT));
    EXPECT_EQ(error.GetCode(), -1);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(Manager().GetLastError().GetText(), error.GetText());
    EXPECT_EQ(Manager().GetLowestSeverity(), 2);

    // Severity 4 and above is ignored altogether, errno included.
    errno = EACCES;
    ExpectFresh(Manager().LogError("debug", "ctx", 4));
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(Manager().GetErrorCount(), 2u);
    EXPECT_EQ(Manager().GetLowestSeverity(), 2);
}

TEST_F(ReplayErrorTest, AFatalErrorMakesTheListPermanent) {
    Manager().LogError("severe", "ctx", 1);
    Manager().LogError(ReplayError(5, "x.cpp", "fatal", ReplayError::eErrorFatal));
    EXPECT_EQ(Manager().ClearErrors(), 0);
    EXPECT_EQ(Manager().GetErrorCount(), 2u);
    EXPECT_EQ(Manager().GetLowestSeverity(), ReplayError::eErrorFatal);
    EXPECT_EQ(Manager().GetLastError().GetLocation(), "5:x.cpp");
}

TEST_F(ReplayErrorTest, RepeatLimitKeepsThreeErrorsPerLocation) {
    Manager().SetLimitRepeats(true);
    for (int index = 0; index < 4; ++index) {
        Manager().LogError(ReplayError(99, "dir/Same.cpp", "again", 1));
    }
    EXPECT_EQ(Manager().GetErrorCount(), 3u);
    // Records without a location are not limited.
    for (int index = 0; index < 4; ++index) {
        Manager().LogError(ReplayError("text only", -1, 1));
    }
    EXPECT_EQ(Manager().GetErrorCount(), 7u);

    Manager().SetLimitRepeats(false);
    Manager().LogError(ReplayError(99, "dir/Same.cpp", "again", 1));
    EXPECT_EQ(Manager().GetErrorCount(), 8u);
}

TEST_F(ReplayErrorTest, ConcurrentLoggingNeverExceedsThirtyEntries) {
    ReplayCore::FileLogger::SetLogginglevel(-1);  // keep the file log out of the race
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([this, thread] {
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
    EXPECT_LE(Manager().GetErrorCount(), 30u);
    EXPECT_EQ(Manager().GetLowestSeverity(), ReplayError::eErrorFatal);
}

}  // namespace
