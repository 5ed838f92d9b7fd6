#include "libreplay/server/ReplayLogger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <string>

#include "tests/ReplayManager/ServerTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

std::string Golden(const std::string& name) {
    return ReplayTest::ReadFile(std::string(REPLAY_TEST_DATA_DIR) + "/framing/" + name);
}

using ReplayTest::Occurrences;

int OpenDescriptorCount() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                          std::filesystem::directory_iterator()));
}

using ReplayLoggerTest = ServerTest::LoggerChannelTest;

TEST_F(ReplayLoggerTest, RecordsAreFramedByteExact) {
    MakeMediumAndChannel();
    ReplayLogger& logger = ReplayLogger::Get();
    std::string expected;
    for (const char* name : {"plain", "escaped", "empty", "largest"}) {
        const std::string text = Golden(std::string(name) + ".txt");
        const ReplayError result = logger.WriteTextToLog(text);
        EXPECT_FALSE(result.IsError()) << name << ": " << result.GetText();
        expected += Golden(std::string(name) + ".rec");
        EXPECT_EQ(ReadTargetFile(kChannel), expected) << "after " << name;
    }

    const ReplayError tooLong = logger.WriteTextToLog(Golden("largest.txt") + "x");
    EXPECT_TRUE(tooLong.IsError());
    EXPECT_EQ(ReadTargetFile(kChannel), expected);
}

TEST_F(ReplayLoggerTest, MissingChannelIsReportedEvery100thAttemptUpTo1000) {
    MakeTargetDirectory("/fs/usb0");
    const auto fileLog = [this] { return ReadTargetFile("/tmp/ReplayLog.txt"); };
    ReplayLogger& logger = ReplayLogger::Get();
    const int descriptorsBefore = OpenDescriptorCount();
    testing::internal::CaptureStdout();
    for (int attempt = 1; attempt <= 99; ++attempt) {
        ASSERT_FALSE(logger.Connect());
    }
    EXPECT_EQ(Occurrences(fileLog(), "Failed to open Replay Logger Console"), 0);
    EXPECT_FALSE(logger.Connect());  // the 100th
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed, "Failed to open Logger " + Root() + kChannel + "\n");
    EXPECT_EQ(Occurrences(fileLog(), "Failed to open Replay Logger Console " + Root()), 1);

    for (int attempt = 101; attempt <= 1200; ++attempt) {
        ASSERT_FALSE(logger.Connect());
    }
    EXPECT_EQ(Occurrences(fileLog(), "Failed to open Replay Logger Console"), 10);
    EXPECT_EQ(OpenDescriptorCount(), descriptorsBefore + 1);
}

TEST_F(ReplayLoggerTest, FullFifoLosesRecordsWithoutBlockingAndKeepsThemWhole) {
    MakeTargetDirectory("/fs/usb0");
    MakeTargetDirectory("/kfsystem/multicore/navi");
    const std::string fifo = Root() + kChannel;
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);

    ReplayLogger& logger = ReplayLogger::Get();
    const std::string text = Golden("largest.txt");
    int accepted = 0;
    ReplayError result;
    while (accepted < 10000) {
        result = logger.WriteTextToLog(text);
        if (result.IsError()) {
            break;
        }
        ++accepted;
    }
    ASSERT_TRUE(result.IsError());
    EXPECT_GT(accepted, 0);
    EXPECT_NE(result.GetText().find("ReplayLogger line 232"), std::string::npos);

    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    const std::string drained = ServerTest::ReadAvailable(reader);
    close(reader);
    const std::string record = Golden("largest.rec");
    ASSERT_EQ(drained.size(), record.size() * static_cast<size_t>(accepted));
    for (int i = 0; i < accepted; ++i) {
        EXPECT_EQ(drained.compare(record.size() * static_cast<size_t>(i), record.size(), record), 0)
            << "record " << i;
    }
    EXPECT_FALSE(logger.WriteTextToLog("!y\n").IsError());
}

}  // namespace
