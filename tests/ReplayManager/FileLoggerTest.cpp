#include "libreplay/FileLogger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "libreplay/ReplayCore.h"
#include "reference/src/operating_system.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayCore::FileLogger;
using ReplayTest::CapturedDebug;

// A private target root, a fixed clock (so that lines carry a known time) and
// a logger back at its initial state for every test.
class FileLoggerTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        FileLogger::ResetForTesting();
    }
    void TearDown() override {
        FileLogger::ResetForTesting();
        TargetRootTest::TearDown();
    }
    ReplayTest::ManualClock m_clock{83061};

    std::string LogText() const { return ReadTargetFile("/tmp/ReplayLog.txt"); }
    bool LogExists() const { return std::filesystem::exists(Root() + "/tmp/ReplayLog.txt"); }

    // Puts a plain file where the target's /tmp directory should be, so that
    // the log file cannot be created.
    void MakeLogUnwritable() {
        std::filesystem::remove_all(Root() + "/tmp");
        ReplayTest::WriteFile(Root() + "/tmp", "not a directory");
    }
};

size_t Occurrences(const std::string& text, const std::string& fragment) {
    size_t count = 0;
    for (size_t at = text.find(fragment); at != std::string::npos;
         at = text.find(fragment, at + fragment.size())) {
        ++count;
    }
    return count;
}

TEST_F(FileLoggerTest, LinesCarryTheTimeAndText) {
    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityInfo, "client %s ready", "nav"), 24);
    m_clock.Set(90005);
    FileLogger::LogToFile(FileLogger::eSeverityError, "second %d", 2);
    EXPECT_EQ(LogText(), "\n83.061:client nav ready\n90.005:second 2");
}

TEST_F(FileLoggerTest, TextsShorterThanThreeCharactersAreDropped) {
    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityError, "ab"), 2);
    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityError, "%s", ""), 0);
    EXPECT_FALSE(LogExists());
    EXPECT_GT(FileLogger::LogToFile(FileLogger::eSeverityError, "abc"), 0);
    EXPECT_EQ(LogText(), "\n83.061:abc");
}

TEST_F(FileLoggerTest, LevelFiltersBySeverity) {
    EXPECT_EQ(FileLogger::GetLogginglevel(), FileLogger::eSeverityInfo);
    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityDebug, "debug detail"), 0);
    EXPECT_EQ(FileLogger::DumpTextToFile(FileLogger::eSeverityDebug, "\nheader", "text"), 0);
    EXPECT_FALSE(LogExists());
    FileLogger::LogToFile(FileLogger::eSeverityInfo, "info line");

    FileLogger::SetLogginglevel(FileLogger::eSeverityDebug);
    FileLogger::LogToFile(FileLogger::eSeverityDebug, "debug detail");
    FileLogger::SetLogginglevel(FileLogger::eSeverityAssert);
    FileLogger::LogToFile(FileLogger::eSeverityError, "error dropped");
    FileLogger::LogToFile(FileLogger::eSeverityAssert, "assert kept");
    EXPECT_EQ(LogText(), "\n83.061:info line\n83.061:debug detail\n83.061:assert kept");
}

TEST_F(FileLoggerTest, DumpTextNeedsAHeaderOfThreeCharacters) {
    EXPECT_EQ(FileLogger::DumpTextToFile(FileLogger::eSeverityError, nullptr, "text"), 0);
    EXPECT_EQ(FileLogger::DumpTextToFile(FileLogger::eSeverityError, "\nx", "text"), 0);
    EXPECT_FALSE(LogExists());
    EXPECT_EQ(FileLogger::DumpTextToFile(FileLogger::eSeverityError, "\nxy", nullptr), 3);
    EXPECT_EQ(FileLogger::DumpTextToFile(FileLogger::eSeverityError, "\nxy", "text"), 8);
    EXPECT_EQ(LogText(), "\nxy\nxy:text");
}

TEST_F(FileLoggerTest, AssertionsAreLoggedAtSeverityZero) {
    FileLogger::SetLogginglevel(FileLogger::eSeverityAssert);
    FileLogger::LogAssertion(658, "ReplayManager/ReplayCore", "!strstream.fail()");
    EXPECT_EQ(LogText(), "\n83.061:!strstream.fail() at line 658 of ReplayManager/ReplayCore");
}

// The cap counts calls: the 5001st and every later call write the notice in
// place of their text and fail.
TEST_F(FileLoggerTest, WritesAreCappedAt5000CallsPerProcess) {
    CapturedDebug debug;
    for (unsigned int i = 0; i < FileLogger::kMaximumWrites; ++i) {
        ASSERT_EQ(FileLogger::DumpTextToFile(FileLogger::eSeverityError, "\nhd", "x"), 5) << i;
    }
    EXPECT_EQ(FileLogger::DumpTextToFile(FileLogger::eSeverityError, "\nhd", "over"), -1);
    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityError, "still over"), -1);

    const std::string text = LogText();
    EXPECT_EQ(Occurrences(text, "\nhd:x"), 5000u);
    EXPECT_EQ(Occurrences(text, "ReplayLog.txt size limit exceeded"), 2u);
    EXPECT_EQ(text.find("over"), std::string::npos);
    EXPECT_EQ(text.substr(text.size() - 33), "ReplayLog.txt size limit exceeded");
    EXPECT_EQ(debug.Count(CapturedDebug::kError,
                          "libReplay::FileLogger::DumpTextToFile: ReplayLog.txt size limit "
                          "exceeded\n"),
              2);
    // Filtered messages never reach the cap check.
    EXPECT_EQ(FileLogger::DumpTextToFile(FileLogger::eSeverityDebug, "\nhd", "x"), 0);
}

// Failures at severities 0 to 2 are announced, those at 3 and 4 only
// counted; after five counted failures the logger stays silent.
TEST_F(FileLoggerTest, FailedOpensAreReportedFiveTimesAtMost) {
    MakeLogUnwritable();
    CapturedDebug debug;
    FileLogger::SetLogginglevel(FileLogger::eSeverityDebug);
    testing::internal::CaptureStdout();
    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityDebug, "quiet failure"), -1);
    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityInfo, "quiet failure"), -1);
    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityWarning, "loud failure"), -1);
    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityError, "loud failure"), -1);
    EXPECT_EQ(FileLogger::DumpTextToFile(FileLogger::eSeverityAssert, "\nabcd", "x"), -1);
    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityError, "silent"), 0);
    EXPECT_EQ(FileLogger::LogToFile(FileLogger::eSeverityAssert, "silent"), 0);
    const std::string printed = testing::internal::GetCapturedStdout();

    const std::string path = Root() + "/tmp/ReplayLog.txt";
    EXPECT_EQ(printed,
              "\nDebugLogger::DumpTextToFile: Failed to open " + path + " at 83.061; msgLen =7 " +
                  "\nDebugLogger::DumpTextToFile: Failed to open " + path +
                  " at 83.061; msgLen =7 " + "\nDebugLogger::DumpTextToFile: Failed to open " +
                  path + " at 83.061; msgLen =5 ");
    EXPECT_EQ(debug.Count(CapturedDebug::kError,
                          "test::libReplay::FileLogger::DumpTextToFile: "
                          "DebugLogger::DumpTextToFile: Failed to open "),
              3)
        << debug.Dump();
}

TEST_F(FileLoggerTest, HexDumpLayout) {
    CapturedDebug debug("app");
    const unsigned char none[1] = {0};
    FileLogger::DumpHexToFile(FileLogger::eSeverityInfo, "title", none, 1, true);
    FileLogger::DumpHexToFile(FileLogger::eSeverityDebug, "title", none, 0, true);
    unsigned char data[20];
    for (unsigned int i = 0; i < 20; ++i) {
        data[i] = static_cast<unsigned char>(0x3c + i);
    }
    data[1] = '\n';
    data[2] = 0x80;
    data[3] = 0xff;
    data[19] = 0x7f;
    FileLogger::DumpHexToFile(FileLogger::eSeverityDebug, "Block", data, 20, true);
    FileLogger::DumpHexToFile(5, "Plain", data, 17, false);

    const std::vector<CapturedDebug::Line> lines = debug.Lines();
    ASSERT_EQ(lines.size(), 6u) << debug.Dump();
    for (const CapturedDebug::Line& line : lines) {
        EXPECT_EQ(line.channel, CapturedDebug::kMessage);
    }
    EXPECT_EQ(lines[0].text,
              "app::libReplay::FileLogger::DumpHexToFile: Block: dumping 20 Bytes:\n");
    EXPECT_EQ(lines[1].text,
              "app:  3c 0a 80 ff 40 41 42 43 44 45 46 47 48 49 4a 4b     <...@ABCDEFGHIJK\n");
    EXPECT_EQ(lines[2].text, "app:  4c 4d 4e 7f" + std::string(36, ' ') + "     LMN\x7f\n");
    EXPECT_EQ(lines[3].text,
              "app::libReplay::FileLogger::DumpHexToFile: Plain: dumping 17 Bytes:\n");
    EXPECT_EQ(lines[4].text, "app:  3c 0a 80 ff 40 41 42 43 44 45 46 47 48 49 4a 4b\n");
    EXPECT_EQ(lines[5].text, "app:  4c" + std::string(45, ' ') + "\n");
}

TEST_F(FileLoggerTest, ToHexUsesWidthThreePerByte) {
    const unsigned char bytes[] = {0x0a, 0xff, 0x00, 0x7b};
    EXPECT_STREQ(FileLogger::ToHex(bytes, 4), "  a ff  0 7b");
    // Length 0 hands back the previous result.
    EXPECT_STREQ(FileLogger::ToHex(bytes, 0), "  a ff  0 7b");
    EXPECT_STREQ(FileLogger::ToHex(bytes + 1, 1), " ff");

    std::vector<unsigned char> full(128, 0xab);
    const char* hex = FileLogger::ToHex(full.data(), 128);
    ASSERT_NE(hex, nullptr);
    EXPECT_EQ(std::string(hex), [] {
        std::string expected;
        for (int i = 0; i < 128; ++i) {
            expected += " ab";
        }
        return expected;
    }());
}

TEST_F(FileLoggerTest, ToHexRejectsMoreThan128Bytes) {
    std::vector<unsigned char> tooMany(129, 1);
    EXPECT_EQ(FileLogger::ToHex(tooMany.data(), 129), nullptr);
    const std::string text = LogText();
    const std::string prefix = "\n83.061:len <= maxInputLength at line ";
    const std::string suffix = " of ReplayManager/ReplayCore";
    ASSERT_GT(text.size(), prefix.size() + suffix.size()) << text;
    EXPECT_EQ(text.substr(0, prefix.size()), prefix);
    EXPECT_EQ(text.substr(text.size() - suffix.size()), suffix);
    const std::string line =
        text.substr(prefix.size(), text.size() - prefix.size() - suffix.size());
    EXPECT_EQ(line.find_first_not_of("0123456789"), std::string::npos) << line;
}

TEST(FileLoggerTextTest, FormatDebugTextShowsControlCharacters) {
    EXPECT_EQ(FileLogger::FormatDebugText("a\r\nb", 10), "a\\nb");
    EXPECT_EQ(FileLogger::FormatDebugText("a\r\nb", 2), "a\\");
    EXPECT_EQ(FileLogger::FormatDebugText("\x01\tz\x80\xff~", 10), "__z__~");
    EXPECT_EQ(FileLogger::FormatDebugText("abc", 0), "");
    EXPECT_EQ(FileLogger::FormatDebugText(nullptr, 5), "");
}

TEST(FileLoggerTextTest, ReplaceXMLEntityMasksMarkupCharacters) {
    const std::string in = "<a href=\"x\">&100%'";
    std::string out;
    for (char c : in) {
        out += ReplayCore::ReplaceXMLEntity(c);
    }
    EXPECT_EQ(out, "!a href=!x!!!100!'");
}

TEST_F(FileLoggerTest, MinimalWriterGivesUpAfterFiveFailures) {
    EXPECT_EQ(ReplayCore::DumpTextToFile("ab"), 0);
    EXPECT_EQ(ReplayCore::DumpTextToFile("as it stands"), 12);
    EXPECT_EQ(LogText(), "as it stands");

    MakeLogUnwritable();
    testing::internal::CaptureStdout();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(ReplayCore::DumpTextToFile("some text"), -1);
    }
    EXPECT_EQ(ReplayCore::DumpTextToFile("some text"), 0);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(Occurrences(printed, "\nDebugLogger::DumpTextToFile: Failed to open " + Root() +
                                       "/tmp/ReplayLog.txt; msgLen =9 "),
              5u);
}

TEST_F(FileLoggerTest, LogWriterWritesToDescriptorOrStream) {
    CPipe pipe;
    ASSERT_TRUE(pipe.open(true, true));
    EXPECT_EQ(ReplayCore::LogWriter::WriteToLog(pipe.getWriteDescriptor(), "abc", 3), 3);
    EXPECT_EQ(ReplayCore::LogWriter::WriteToLog(pipe.getWriteDescriptor(), nullptr, "defg", 4), 4);
    char buffer[16] = {};
    EXPECT_EQ(pipe.read(buffer, sizeof buffer), 7);
    EXPECT_STREQ(buffer, "abcdefg");

    EXPECT_EQ(ReplayCore::LogWriter::WriteToLog(0, "abc", 3), -1);
    EXPECT_EQ(ReplayCore::LogWriter::WriteToLog(-1, nullptr, "abc", 3), -1);

    // With a stream the descriptor is not consulted.
    const std::string path = Root() + "/work/channel.txt";
    FILE* stream = std::fopen(path.c_str(), "w");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(ReplayCore::LogWriter::WriteToLog(-1, stream, "stream", 6), 6);
    std::fclose(stream);
    EXPECT_EQ(ReplayTest::ReadFile(path), "stream");
}

}  // namespace
