#include "logger/LoggerService.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "libreplay/ReplayLogReader.h"
#include "logger/ChannelParsers.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using MulticoreLogService::LoggerOptions;
using MulticoreLogService::LoggerService;

bool IsFifo(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

class LoggerServiceTest : public ReplayTest::TargetRootTest {
  protected:
    LoggerOptions Options() const {
        LoggerOptions options;
        options.deviceRoot = Root() + "/kfsystem/multicore";
        options.logFile = Root() + "/fs/usb0/LOGFILE.DAT";
        options.consoleLogFile = Root() + "/tmp/ReplayConsole.txt";
        options.syncIntervalMs = 0;
        return options;
    }
    std::string Device(const char* device) const { return Root() + "/kfsystem/multicore" + device; }

    // Opens the record channel as the library does (read-write).
    int OpenChannel() const { return open(Device(LoggerService::kRecordDevice).c_str(), O_RDWR); }

    static void WriteRecord(int fd, const std::string& payload) {
        std::string framed;
        ASSERT_TRUE(ReplayCore::LogFormat::FrameRecord(payload, framed));
        ASSERT_EQ(write(fd, framed.data(), framed.size()), static_cast<ssize_t>(framed.size()));
    }

    // Runs the built executable under this test's root until it is ready;
    // its standard output goes to <root>/tmp/stdout.txt.
    pid_t StartExecutable() const {
        const std::string output = Root() + "/tmp/stdout.txt";
        const pid_t child = fork();
        if (child == 0) {
            const int out = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(out, 1);
            const std::string binary = std::string(REPLAY_BINARY_DIR) + "/logger/replay-logger";
            execl(binary.c_str(), binary.c_str(), "--root", Root().c_str(), "--ready-file",
                  ReadyFile().c_str(), "--sync-interval-ms", "60000", static_cast<char*>(nullptr));
            _exit(127);
        }
        EXPECT_TRUE(ReplayTest::WaitFor([&] { return std::filesystem::exists(ReadyFile()); }, 20s));
        return child;
    }
    // SIGTERM, then the exit status must tell a clean stop.
    void TerminateExecutable(pid_t child) const {
        ASSERT_GT(child, 0);
        ASSERT_EQ(kill(child, SIGTERM), 0);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0);
        EXPECT_FALSE(std::filesystem::exists(ReadyFile()));
    }
    std::string ReadyFile() const { return Root() + "/tmp/ready"; }

    std::vector<std::string> ReadBack(uint64_t* reconnects = nullptr) const {
        ReplayCore::ReplayLogReader reader;
        std::vector<std::string> payloads;
        if (!reader.Open(Root() + "/fs/usb0/LOGFILE.DAT")) {
            return payloads;
        }
        ReplayCore::LogRecord record;
        while (reader.Next(record)) {
            payloads.push_back(record.payload);
        }
        EXPECT_EQ(reader.SkipCount(), 0u);
        if (reconnects != nullptr) {
            *reconnects = reader.ReconnectCount();
        }
        return payloads;
    }
};

TEST_F(LoggerServiceTest, RecordsAndConsoleTextArriveInStoredFormAndReadBackIdentical) {
    MakeTargetDirectory("/fs/usb0");
    LoggerService service(Options());
    ASSERT_TRUE(service.Start()) << service.Error();

    const std::vector<std::string> payloads = {
        ReplayCore::LogFormat::HeaderPayload(1000),
        "!1.100:gps:!1 1:inner\r\nbreak     abc\n",
        "\"1.200:ui:!1 1:two\nlines       def\n",
        std::string(2043, 'x'),
        "",
    };
    const int channel = OpenChannel();
    ASSERT_GE(channel, 0);
    for (const std::string& payload : payloads) {
        WriteRecord(channel, payload);
    }
    const int debug = open(Device(LoggerService::kDebugDevice).c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(debug, 0);
    ASSERT_EQ(write(debug, "Error:disk full\n", 16), 16);
    const int console = open(Device(LoggerService::kConsoleDevice).c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(console, 0);
    const std::string batch = std::string("a\x06line1\n") +
                              "0\x05"
                              "line2";
    ASSERT_EQ(write(console, batch.data(), batch.size()), static_cast<ssize_t>(batch.size()));
    // The presence probe: a zero-length write answers 0 while the service runs.
    const int probe = open(Device(LoggerService::kProbeDevice).c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(probe, 0);
    EXPECT_EQ(write(probe, "", 0), 0);

    ASSERT_TRUE(ReplayTest::WaitFor(
        [&] { return service.Statistics().recordsWritten.load() == payloads.size(); }, 10s));
    ASSERT_TRUE(ReplayTest::WaitFor(
        [&] {
            return ReplayTest::ReadFile(Root() + "/tmp/ReplayConsole.txt").find("line2") !=
                   std::string::npos;
        },
        10s));
    EXPECT_EQ(ReadBack(), payloads);
    EXPECT_EQ(ReplayTest::ReadFile(Root() + "/tmp/ReplayConsole.txt"),
              "q\tError:disk full\na\tline1\n0\tline2\n");
    const std::string stored = ReplayTest::ReadFile(Root() + "/fs/usb0/LOGFILE.DAT");

    close(channel);
    close(debug);
    close(console);
    close(probe);
    service.Stop();
    EXPECT_EQ(service.Summary(),
              "5 records written, 0 dropped, " + std::to_string(stored.size()) + " bytes");
    // The FIFOs stay, but the probe finds no reader behind them.
    EXPECT_TRUE(IsFifo(Device(LoggerService::kRecordDevice)));
    EXPECT_LT(open(Device(LoggerService::kProbeDevice).c_str(), O_WRONLY | O_NONBLOCK), 0);
    EXPECT_EQ(errno, ENXIO);
}

TEST_F(LoggerServiceTest, WriterReattachingAfterAllClosedIsMarkedReconnecting) {
    MakeTargetDirectory("/fs/usb0");
    LoggerService service(Options());
    ASSERT_TRUE(service.Start()) << service.Error();
    const auto& statistics = service.Statistics();

    int channel = OpenChannel();
    WriteRecord(channel, "first\n");
    ASSERT_TRUE(ReplayTest::WaitFor([&] { return statistics.recordsWritten.load() == 1; }, 10s));
    close(channel);
    ASSERT_TRUE(
        ReplayTest::WaitFor([&] { return statistics.recordChannelClosures.load() == 1; }, 10s));
    channel = OpenChannel();
    WriteRecord(channel, "second\n");
    close(channel);
    service.Stop();

    uint64_t reconnects = 0;
    EXPECT_EQ(ReadBack(&reconnects), (std::vector<std::string>{"first\n", "second\n"}));
    EXPECT_EQ(reconnects, 1u);
    const std::string stored = ReplayTest::ReadFile(Root() + "/fs/usb0/LOGFILE.DAT");
    EXPECT_LT(stored.find("reconnecting"), stored.find("second"));
}

TEST_F(LoggerServiceTest, MissingMediumDropsAndCountsThenWritingResumes) {
    LoggerService service(Options());
    ASSERT_TRUE(service.Start()) << service.Error();
    const auto& statistics = service.Statistics();
    const int channel = OpenChannel();
    for (int i = 0; i < 3; ++i) {
        WriteRecord(channel, "lost " + std::to_string(i) + "\n");
    }
    ASSERT_TRUE(
        ReplayTest::WaitFor([&] { return statistics.recordsDroppedNoMedium.load() == 3; }, 10s));

    MakeTargetDirectory("/fs/usb0");
    WriteRecord(channel, "kept\n");
    ASSERT_TRUE(ReplayTest::WaitFor([&] { return statistics.recordsWritten.load() == 1; }, 10s));

    // Medium pulled while the file is open: the open file must not swallow
    // records silently.
    std::filesystem::remove_all(Root() + "/fs/usb0");
    WriteRecord(channel, "lost again\n");
    ASSERT_TRUE(
        ReplayTest::WaitFor([&] { return statistics.recordsDroppedNoMedium.load() == 4; }, 10s));
    MakeTargetDirectory("/fs/usb0");
    WriteRecord(channel, "back\n");
    ASSERT_TRUE(ReplayTest::WaitFor([&] { return statistics.recordsWritten.load() == 2; }, 10s));
    close(channel);
    service.Stop();
    EXPECT_EQ(ReadBack(), std::vector<std::string>{"back\n"});
    EXPECT_EQ(service.Summary().find("2 records written, 4 dropped"), 0u);
}

TEST_F(LoggerServiceTest, ExistingNonFifoDeviceRefusesToStart) {
    WriteTargetFile("/kfsystem/multicore/navi/q", "not a fifo");
    LoggerService service(Options());
    EXPECT_FALSE(service.Start());
    EXPECT_NE(service.Error().find("not a FIFO"), std::string::npos);
    // What it had created before the failure is gone again.
    EXPECT_FALSE(std::filesystem::exists(Device(LoggerService::kRecordDevice)));
}

// The executable, restarted under a writer that keeps the record channel
// open read-write the whole time, as the replay server does: what it writes
// while the service is down waits in the FIFO and is stored after the
// restart, and SIGTERM stores everything received before the exit.
TEST_F(LoggerServiceTest, RestartedServiceDrainsWhatTheWriterKeptWritingWhileItWasDown) {
    MakeTargetDirectory("/fs/usb0");
    pid_t service = StartExecutable();
    ASSERT_GT(service, 0);
    const int channel = open(Device(LoggerService::kRecordDevice).c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_GE(channel, 0);
    std::vector<std::string> payloads;
    auto writeRecords = [&](const char* phase, int count) {
        for (int i = 0; i < count; ++i) {
            payloads.push_back(std::string(phase) + " " + std::to_string(i) +
                               std::string(100, '.') + "\n");
            WriteRecord(channel, payloads.back());
        }
    };
    writeRecords("before", 300);
    TerminateExecutable(service);

    writeRecords("while down", 100);
    EXPECT_LT(open(Device(LoggerService::kProbeDevice).c_str(), O_WRONLY | O_NONBLOCK), 0);
    EXPECT_EQ(errno, ENXIO);

    service = StartExecutable();
    ASSERT_GT(service, 0);
    writeRecords("after", 100);
    TerminateExecutable(service);
    close(channel);

    EXPECT_EQ(ReadBack(), payloads);
    const std::string summaries = ReplayTest::ReadFile(Root() + "/tmp/stdout.txt");
    EXPECT_NE(summaries.find("300 records written, 0 dropped"), std::string::npos) << summaries;
    EXPECT_NE(summaries.find("200 records written, 0 dropped"), std::string::npos) << summaries;
}

TEST(ChannelParsersTest, RecordsSplitAtAnyByteBoundaryAreReassembled) {
    std::string stream;
    std::vector<std::string> expected;
    for (const std::string payload : {"a\n", "", "bc\r\n", "garbage"}) {
        std::string framed;
        ReplayCore::LogFormat::FrameRecord(payload, framed);
        stream += framed;
        expected.push_back(framed);
    }
    stream.insert(0, "xx|broken\n");  // dropped up to its line end
    for (size_t split = 0; split <= stream.size(); ++split) {
        std::vector<std::string> got;
        MulticoreLogService::RecordChannelParser parser(
            [&](const char* data, size_t length) { got.emplace_back(data, length); });
        parser.Feed(stream.data(), split);
        parser.Feed(stream.data() + split, stream.size() - split);
        EXPECT_EQ(got, expected) << "split at " << split;
        EXPECT_EQ(parser.MalformedBytes(), 10u);
    }
}

}  // namespace
