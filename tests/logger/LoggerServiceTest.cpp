#include "logger/LoggerService.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/ReplayManager/RecordText.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using MulticoreLogService::LoggerOptions;
using MulticoreLogService::LoggerService;

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
};

TEST_F(LoggerServiceTest, RecordsAndConsoleTextArriveInStoredFormAndReadBackIdentical) {
    MakeTargetDirectory("/fs/usb0");
    const std::string squatted = WriteTargetFile("/kfsystem/multicore/navi/q", "not a fifo");
    const ReplayPlatform::Status refused = LoggerService(Options()).Start();
    EXPECT_FALSE(refused.IsOk());
    EXPECT_NE(refused.Message().find("not a FIFO"), std::string::npos) << refused.Message();
    EXPECT_FALSE(std::filesystem::exists(Device(LoggerService::kRecordDevice)));
    std::filesystem::remove(squatted);

    LoggerService service(Options());
    const ReplayPlatform::Status started = service.Start();
    ASSERT_TRUE(started.IsOk()) << started.Message();

    const std::vector<std::string> payloads = {
        ReplayCore::LogFormat::HeaderPayload(1000),
        "!1.100:gps:!1 1:inner\r\nbreak     abc\n",
        "\"1.200:ui:!1 1:two\nlines       def\n",
        std::string(2043, 'x'),
        "",
    };
    const int channel = open(Device(LoggerService::kRecordDevice).c_str(), O_RDWR);
    ASSERT_GE(channel, 0);
    for (const std::string& payload : payloads) {
        std::string framed;
        ASSERT_TRUE(ReplayCore::LogFormat::FrameRecord(payload, framed));
        ASSERT_EQ(write(channel, framed.data(), framed.size()),
                  static_cast<ssize_t>(framed.size()));
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
    uint64_t skips = 0;
    EXPECT_EQ(RecordText::LogPayloads(Root() + "/fs/usb0/LOGFILE.DAT", &skips), payloads);
    EXPECT_EQ(skips, 0u);
    EXPECT_EQ(ReplayTest::ReadFile(Root() + "/tmp/ReplayConsole.txt"),
              "q\tError:disk full\na\tline1\n0\tline2\n");
    const std::string stored = ReplayTest::ReadFile(Root() + "/fs/usb0/LOGFILE.DAT");

    close(channel);
    close(debug);
    close(console);
    close(probe);
    service.Stop();
    EXPECT_EQ(service.Summary(),
              "5 records received, 5 written, 0 dropped (0 queue full, 0 "
              "unwritable at stop), " +
                  std::to_string(stored.size()) + " bytes, 0 outages");
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
