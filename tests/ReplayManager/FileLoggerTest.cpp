#include "libreplay/server/FileLogger.h"

#include <filesystem>
#include <string>

#include "libreplay/ReplayCore.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayCore::FileLogger;

class FileLoggerTest : public ReplayTest::TargetRootTest {
  protected:
    ReplayTest::ManualClock m_clock{83061};

    std::string LogText() const { return ReadTargetFile("/tmp/ReplayLog.txt"); }
};

using ReplayTest::Occurrences;

TEST_F(FileLoggerTest, LinesCarryTimeAndTextAndFollowTheLevel) {
    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityError, "ab"), 2);
    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityDebug, "debug detail"), 0);
    EXPECT_EQ(FileLogger::DumpTextToFile(FileLogger::eSeverityError, "\nx", "text"), 0);
    EXPECT_FALSE(std::filesystem::exists(Root() + "/tmp/ReplayLog.txt"));

    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityInfo, "client %s ready", "nav"), 24);
    m_clock.Set(90005);
    FileLogger::SetLogginglevel(FileLogger::eSeverityDebug);
    FileLogger::LogToFile(FileLogger::eSeverityDebug, "debug %d", 2);
    EXPECT_EQ(FileLogger::DumpTextToFile(FileLogger::eSeverityError, "\nxy", "text"), 8);
    FileLogger::SetLogginglevel(FileLogger::eSeverityAssert);
    FileLogger::LogToFile(FileLogger::eSeverityError, "error dropped");
    FileLogger::LogAssertion(658, "ReplayManager/ReplayCore", "!strstream.fail()");
    EXPECT_EQ(LogText(),
              "\n83.061:client nav ready\n90.005:debug 2\nxy:text"
              "\n90.005:!strstream.fail() at line 658 of ReplayManager/ReplayCore");
}

TEST_F(FileLoggerTest, WritesAreCappedAt5000CallsPerProcess) {
    for (unsigned int i = 0; i < FileLogger::kMaximumWrites; ++i) {
        ASSERT_EQ(FileLogger::DumpTextToFile(FileLogger::eSeverityError, "\nhd", "x"), 5) << i;
    }
    EXPECT_EQ(FileLogger::DumpTextToFile(FileLogger::eSeverityError, "\nhd", "over"), -1);
    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityError, "still over"), -1);

    const std::string text = LogText();
    EXPECT_EQ(Occurrences(text, "\nhd:x"), 5000);
    EXPECT_EQ(Occurrences(text, "ReplayLog.txt size limit exceeded"), 2);
    EXPECT_EQ(text.find("over"), std::string::npos);
}

TEST_F(FileLoggerTest, MinimalWriterGivesUpAfterFiveFailures) {
    EXPECT_EQ(ReplayCore::DumpTextToFile("as it stands"), 12);
    EXPECT_EQ(LogText(), "as it stands");

    std::filesystem::remove_all(Root() + "/tmp");
    ReplayTest::WriteFile(Root() + "/tmp", "not a directory");
    testing::internal::CaptureStdout();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(ReplayCore::DumpTextToFile("some text"), -1);
    }
    EXPECT_EQ(ReplayCore::DumpTextToFile("some text"), 0);
    EXPECT_EQ(Occurrences(testing::internal::GetCapturedStdout(), "Failed to open"), 5);
}

}  // namespace
