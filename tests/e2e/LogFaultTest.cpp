// Faults of the log's side of recording, with the real processes.

#include <chrono>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/EndToEnd.h"

namespace {

using namespace std::chrono_literals;
using ReplayTest::NumberAfter;
using ReplayTest::WaitFor;

// Block numbers above 0 per client of dump lines "offset [segment] kind client time sequence".
std::map<std::string, std::set<long>> BlocksByClient(const std::string& dump) {
    std::map<std::string, std::set<long>> blocks;
    std::istringstream lines(dump);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string offset, segment, kind, client, time;
        long sequence = 0;
        if (fields >> offset >> segment >> kind >> client >> time >> sequence && sequence > 0) {
            blocks[client].insert(sequence);
        }
    }
    return blocks;
}

long FirstBlock(const std::string& dump, const std::string& client) {
    const auto blocks = BlocksByClient(dump);
    const auto found = blocks.find(client);
    return found == blocks.end() ? -1 : *found->second.begin();
}

// Numbers absent between each client's lowest and highest block; a set,
// since records of equal time are written latest arrival first.
uint64_t MissingBlocks(const std::string& dump) {
    uint64_t missing = 0;
    for (const auto& entry : BlocksByClient(dump)) {
        const std::set<long>& numbers = entry.second;
        missing += static_cast<uint64_t>(*numbers.rbegin() - *numbers.begin() + 1) - numbers.size();
    }
    return missing;
}

class LogFaultTest : public ReplayTest::EndToEndTest {
  protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(PrepareTarget());
        StartServer();
    }

    void StartRecording(bool untilLogged) {
        ASSERT_NO_FATAL_FAILURE(StartClients({"gps", "can"}));
        ASSERT_EQ(Send("record").status, 0);
        if (untilLogged) {
            ASSERT_TRUE(WaitFor([&] { return FirstBlock(Dump(), "gps") > 0; }, 20s, 100ms));
        }
    }

    void StopRecordingAndCheckSurvivors() {
        ASSERT_EQ(Send("stop").status, 0);
        EXPECT_EQ(Send("wait").status, 0) << m_server->Output();
        for (const auto& client : m_clients) {
            EXPECT_TRUE(client->Running()) << client->Output();
        }
        EXPECT_TRUE(m_server->Running()) << m_server->Output();
        ASSERT_TRUE(m_logger != nullptr && m_logger->Running()) << m_logger->Output();
        m_logger->Signal(SIGTERM);
        EXPECT_EQ(m_logger->Wait(20s), 0) << m_logger->Output();
    }

    void StartCountingLogger(const std::string& options = "") {
        StartLogger({"/bin/sh", "-c",
                     "exec \"$0\" \"$@\" --stats-file '" + StatisticsPath() + "' " + options});
    }
    std::string StatisticsPath() const { return Root() + "/logger-stats.json"; }
    nlohmann::json LoggerCounts() const {
        const std::string text = ReplayTest::ReadFile(StatisticsPath());
        return nlohmann::json::parse(text.empty() ? "{}" : text);
    }

    void WaitUntilLoggerSays(const std::string& text) {
        ASSERT_TRUE(
            WaitFor([&] { return m_logger->Output().find(text) != std::string::npos; }, 30s, 50ms))
            << m_logger->Output();
    }
};

TEST_F(LogFaultTest, LoggerStartedLateThenKilledAndRestartedLosesOnlyWhatCameBeforeIt) {
    ASSERT_NO_FATAL_FAILURE(StartRecording(false));
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    ASSERT_FALSE(std::filesystem::exists(LogPath()));
    ASSERT_NO_FATAL_FAILURE(StartLogger());
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(6));

    // A record read but not yet written dies with the service: the kill comes
    // once the log has not grown for 300 ms, so the channel's part is checked.
    uintmax_t size = 0;
    auto stableSince = std::chrono::steady_clock::now();
    ASSERT_TRUE(WaitFor(
        [&] {
            std::error_code ignored;
            const uintmax_t now = std::filesystem::file_size(LogPath(), ignored);
            if (now != size) {
                size = now;
                stableSince = std::chrono::steady_clock::now();
            }
            return std::chrono::steady_clock::now() - stableSince >= 300ms;
        },
        20s, 10ms));
    m_logger->Kill();
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    ASSERT_NO_FATAL_FAILURE(StartLogger());
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    ASSERT_NO_FATAL_FAILURE(StopRecordingAndCheckSurvivors());

    const std::string dump = Dump();
    ASSERT_FALSE(BlocksByClient(dump).empty()) << dump;
    EXPECT_NE(dump.find("multicore"), std::string::npos) << dump;
    EXPECT_EQ(ReplayTest::Occurrences(dump, "INIT:gps"), 1) << dump;
    EXPECT_GT(FirstBlock(dump, "gps"), 1) << "blocks before the logger started: " << dump;
    EXPECT_GT(FirstBlock(dump, "can"), 1) << "blocks before the logger started: " << dump;
    EXPECT_EQ(MissingBlocks(dump), 0u) << dump;
    const std::string report = ExpectReadableLog();
    EXPECT_NE(report.find(" 0 blocks out of order, 0 duplicates"), std::string::npos) << report;
}

TEST_F(LogFaultTest, OutageLongerThanTheQueueHoldsLosesExactlyWhatIsReported) {
    // About forty records: more than the burst that ends a recording.
    ASSERT_NO_FATAL_FAILURE(StartCountingLogger("--queue-mb 0.08"));
    ASSERT_NO_FATAL_FAILURE(StartRecording(true));

    const std::string medium = Root() + "/fs/usb0";
    std::filesystem::rename(medium, medium + ".away");
    ASSERT_NO_FATAL_FAILURE(WaitUntilLoggerSays("queue full after"));
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    std::filesystem::rename(medium + ".away", medium);
    ASSERT_NO_FATAL_FAILURE(WaitUntilLoggerSays("again after"));
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    ASSERT_NO_FATAL_FAILURE(StopRecordingAndCheckSurvivors());

    const nlohmann::json counts = LoggerCounts();
    const long dropped = counts.value("dropped", -1);
    EXPECT_GT(dropped, 0) << counts.dump();
    EXPECT_EQ(counts.value("dropped_queue_full", -1), dropped) << counts.dump();
    EXPECT_EQ(counts.value("written", -1) + dropped, counts.value("received", -2)) << counts.dump();
    EXPECT_EQ(counts.value("outages", -1), 1) << counts.dump();
    const long droppedInOutage =
        NumberAfter(m_logger->Output(), "records held meanwhile written, ");
    EXPECT_EQ(droppedInOutage, dropped) << m_logger->Output();
    ExpectReadableLog();
    EXPECT_EQ(MissingBlocks(Dump()), static_cast<uint64_t>(dropped)) << m_logger->Output();
}

TEST_F(LogFaultTest, FileSizeLimitEndsTheLogOnAWholeRecord) {
    // 16 blocks of 512 bytes; the write that crosses it is partly written.
    ASSERT_NO_FATAL_FAILURE(StartLogger({"/bin/sh", "-c", "ulimit -f 16 && exec \"$0\" \"$@\""}));
    ASSERT_NO_FATAL_FAILURE(StartRecording(false));
    ASSERT_NO_FATAL_FAILURE(WaitUntilLoggerSays("File too large"));
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    ASSERT_NO_FATAL_FAILURE(StopRecordingAndCheckSurvivors());

    EXPECT_LE(std::filesystem::file_size(LogPath()), 16u * 512u);
    const std::string verify = ExpectReadableLog();
    EXPECT_EQ(verify.find(" 0 records"), std::string::npos) << verify;
}

}  // namespace
