// Faults of the log's side of recording, with the real processes: the logger
// service started late, killed and restarted, and the log medium removed,
// full or unwritable. Every case ends with the clients alive, the server
// answering and a log that `replaylog verify` reads.

#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/EndToEnd.h"

namespace {

using namespace std::chrono_literals;
using ReplayTest::CommandResult;
using ReplayTest::NumberAfter;
using ReplayTest::WaitFor;

// One client record of a dump: "offset [segment] kind client time sequence payload".
struct DumpedRecord {
    std::string client;
    long sequence = -1;  // -1: none
};

std::vector<DumpedRecord> DumpedRecords(const std::string& dump) {
    std::vector<DumpedRecord> records;
    std::istringstream lines(dump);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string offset, segment, kind, time, sequence;
        DumpedRecord record;
        if (fields >> offset >> segment >> kind >> record.client >> time >> sequence) {
            record.sequence = sequence == "-" ? -1 : std::strtol(sequence.c_str(), nullptr, 10);
            records.push_back(record);
        }
    }
    return records;
}

// The lowest block number (above the calibration block 0) of `client`.
long FirstBlock(const std::string& dump, const std::string& client) {
    long first = -1;
    for (const DumpedRecord& record : DumpedRecords(dump)) {
        if (record.client == client && record.sequence > 0 &&
            (first < 0 || record.sequence < first)) {
            first = record.sequence;
        }
    }
    return first;
}

// Blocks missing from the log, over all clients: the numbers absent between
// each client's lowest and highest block. Counted from the set of numbers,
// since records of equal time are written latest arrival first.
uint64_t MissingBlocks(const std::string& dump) {
    std::map<std::string, std::set<long>> blocks;
    for (const DumpedRecord& record : DumpedRecords(dump)) {
        if (record.sequence > 0) {
            blocks[record.client].insert(record.sequence);
        }
    }
    uint64_t missing = 0;
    for (const auto& entry : blocks) {
        const std::set<long>& numbers = entry.second;
        missing += static_cast<uint64_t>(*numbers.rbegin() - *numbers.begin() + 1) - numbers.size();
    }
    return missing;
}

class LogFaultTest : public ReplayTest::EndToEndTest {
  protected:
    // The logger service is each case's own business.
    void SetUp() override {
        PrepareTarget();
        if (!HasFatalFailure()) {
            StartServer();
        }
    }

    // Ends the recording (everything queued is written out) and checks the
    // processes survived the fault.
    void StopRecordingAndCheckSurvivors() {
        ASSERT_EQ(Send("stop").status, 0);
        EXPECT_EQ(Send("wait").status, 0) << m_server->Output();
        for (const auto& client : m_clients) {
            EXPECT_TRUE(client->Running()) << client->Output();
        }
        EXPECT_TRUE(m_server->Running()) << m_server->Output();
        ASSERT_TRUE(m_logger != nullptr && m_logger->Running()) << m_logger->Output();
        // Everything the server passed on has reached the service's file.
        m_logger->Kill(SIGTERM);
        EXPECT_EQ(m_logger->Wait(20s), 0) << m_logger->Output();
    }

    // `verify` reads the log: nothing damaged, nothing skipped, nothing out
    // of order (lost blocks show as sequence gaps, which are allowed).
    std::string ExpectReadableLog() {
        const CommandResult verify = Verify();
        EXPECT_TRUE(verify.status == 0 || verify.status == 1) << verify.output;
        EXPECT_NE(verify.output.find(" 0 checksum failures"), std::string::npos) << verify.output;
        EXPECT_NE(verify.output.find(" 0 skipped regions"), std::string::npos) << verify.output;
        EXPECT_NE(verify.output.find(" 0 time order violations"), std::string::npos)
            << verify.output;
        return verify.output;
    }

    // The records the service reports dropped in its last recovery notice.
    long DroppedAtRecovery() { return NumberAfter(m_logger->Output(), "again; "); }
};

TEST_F(LogFaultTest, RecordsBeforeTheLoggerStartsAreDroppedAndLaterOnesKept) {
    ASSERT_NO_FATAL_FAILURE(StartClients({"gps", "can"}));
    ASSERT_EQ(Send("record").status, 0);
    // A few blocks of each client go nowhere: the channel does not exist yet.
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    ASSERT_FALSE(std::filesystem::exists(LogPath()));

    ASSERT_NO_FATAL_FAILURE(StartLogger());
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(6));
    ASSERT_NO_FATAL_FAILURE(StopRecordingAndCheckSurvivors());

    // The log opens with its header and the clients' initialisation blocks
    // (they wait in the write queue), then continues without a gap from
    // the first block that found the logger.
    const std::string dump = Dump();
    const std::vector<DumpedRecord> records = DumpedRecords(dump);
    ASSERT_FALSE(records.empty()) << dump;
    EXPECT_NE(dump.find("multicore"), std::string::npos) << dump;
    EXPECT_EQ(ReplayTest::Occurrences(dump, "INIT:gps"), 1) << dump;
    EXPECT_GT(FirstBlock(dump, "gps"), 1) << dump;
    EXPECT_GT(FirstBlock(dump, "can"), 1) << dump;
    ExpectReadableLog();
    EXPECT_EQ(MissingBlocks(dump), 0u) << dump;
}

TEST_F(LogFaultTest, LoggerKilledAndRestartedLosesNothingTheChannelHeld) {
    ASSERT_NO_FATAL_FAILURE(StartLogger());
    ASSERT_NO_FATAL_FAILURE(StartClients({"gps", "can"}));
    ASSERT_EQ(Send("record").status, 0);
    ASSERT_TRUE(WaitFor([&] { return FirstBlock(Dump(), "gps") > 0; }, 20s, 100ms));

    m_logger->Kill(SIGKILL);
    // Records keep coming while the service is down; the channel holds them.
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    ASSERT_NO_FATAL_FAILURE(StartLogger());
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    ASSERT_NO_FATAL_FAILURE(StopRecordingAndCheckSurvivors());

    // Only what the killed service held in memory could be lost; it writes
    // each batch as soon as it has read it, so that is nothing in practice.
    ExpectReadableLog();
    EXPECT_EQ(MissingBlocks(Dump()), 0u);
    ExpectLogIntact();
}

TEST_F(LogFaultTest, MediumRemovedAndReturnedDropsOnlyWhatCameMeanwhile) {
    ASSERT_NO_FATAL_FAILURE(StartLogger());
    ASSERT_NO_FATAL_FAILURE(StartClients({"gps", "can"}));
    ASSERT_EQ(Send("record").status, 0);
    ASSERT_TRUE(WaitFor([&] { return FirstBlock(Dump(), "gps") > 0; }, 20s, 100ms));

    // The stick is pulled: its mount point goes away with the file on it.
    const std::string medium = Root() + "/fs/usb0";
    std::filesystem::rename(medium, medium + ".away");
    ASSERT_TRUE(WaitFor(
        [&] { return m_logger->Output().find("cannot write") != std::string::npos; }, 20s, 50ms))
        << m_logger->Output();
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));

    // And put back: the service appends to the same file again.
    std::filesystem::rename(medium + ".away", medium);
    ASSERT_TRUE(WaitFor([&] { return DroppedAtRecovery() >= 0; }, 20s, 50ms)) << m_logger->Output();
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    ASSERT_NO_FATAL_FAILURE(StopRecordingAndCheckSurvivors());

    // What the service dropped is exactly what the log misses.
    const long dropped = DroppedAtRecovery();
    EXPECT_GT(dropped, 0) << m_logger->Output();
    ExpectReadableLog();
    EXPECT_EQ(MissingBlocks(Dump()), static_cast<uint64_t>(dropped));
    EXPECT_NE(m_logger->Output().find(std::to_string(dropped) + " dropped"), std::string::npos)
        << m_logger->Output();
}

TEST_F(LogFaultTest, FullMediumIsReportedAndRecordingResumesWhenThereIsRoomAgain) {
    ASSERT_NO_FATAL_FAILURE(StartLogger());
    ASSERT_NO_FATAL_FAILURE(StartClients({"gps", "can"}));
    ASSERT_EQ(Send("record").status, 0);
    ASSERT_TRUE(WaitFor([&] { return FirstBlock(Dump(), "gps") > 0; }, 20s, 100ms));

    // Every write to the file's place now fails with ENOSPC, like a full
    // medium; the file written so far is kept aside.
    const std::string kept = Root() + "/LOGFILE.kept";
    std::filesystem::rename(LogPath(), kept);
    std::filesystem::create_symlink("/dev/full", LogPath());
    ASSERT_TRUE(WaitFor(
        [&] { return m_logger->Output().find("No space left on device") != std::string::npos; },
        20s, 50ms))
        << m_logger->Output();
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));

    std::filesystem::remove(LogPath());
    std::filesystem::rename(kept, LogPath());
    ASSERT_TRUE(WaitFor([&] { return DroppedAtRecovery() >= 0; }, 20s, 50ms)) << m_logger->Output();
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    ASSERT_NO_FATAL_FAILURE(StopRecordingAndCheckSurvivors());

    const long dropped = DroppedAtRecovery();
    EXPECT_GT(dropped, 0) << m_logger->Output();
    ExpectReadableLog();
    EXPECT_EQ(MissingBlocks(Dump()), static_cast<uint64_t>(dropped));
}

TEST_F(LogFaultTest, FileSizeLimitEndsTheLogOnAWholeRecord) {
    // 16 blocks of 512 bytes: the header and a few records fit; the write
    // that crosses the limit is partly written by the kernel.
    ASSERT_NO_FATAL_FAILURE(StartLogger({"/bin/sh", "-c", "ulimit -f 16 && exec \"$0\" \"$@\""}));
    ASSERT_NO_FATAL_FAILURE(StartClients({"gps", "can"}));
    ASSERT_EQ(Send("record").status, 0);
    ASSERT_TRUE(WaitFor(
        [&] { return m_logger->Output().find("File too large") != std::string::npos; }, 20s, 50ms))
        << m_logger->Output();
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    ASSERT_NO_FATAL_FAILURE(StopRecordingAndCheckSurvivors());

    EXPECT_LE(std::filesystem::file_size(LogPath()), 16u * 512u);
    const std::string verify = ExpectReadableLog();
    EXPECT_EQ(verify.find(" 0 records"), std::string::npos) << verify;
}

TEST_F(LogFaultTest, UnwritableDirectoryIsReportedAndRecordingResumesWhenWritable) {
    // Root passes directory permissions unless it gives up the capability.
    std::vector<std::string> launcher;
    if (geteuid() == 0) {
        if (access("/usr/bin/setpriv", X_OK) != 0) {
            GTEST_SKIP() << "running as root without setpriv to drop CAP_DAC_OVERRIDE";
        }
        launcher = {"/usr/bin/setpriv", "--bounding-set", "-dac_override,-dac_read_search", "--"};
    }
    const std::string medium = Root() + "/fs/usb0";
    ASSERT_EQ(chmod(medium.c_str(), 0500), 0);
    ASSERT_NO_FATAL_FAILURE(StartLogger(launcher));
    ASSERT_NO_FATAL_FAILURE(StartClients({"gps", "can"}));
    ASSERT_EQ(Send("record").status, 0);
    ASSERT_TRUE(
        WaitFor([&] { return m_logger->Output().find("Permission denied") != std::string::npos; },
                20s, 50ms))
        << m_logger->Output();
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));

    ASSERT_EQ(chmod(medium.c_str(), 0755), 0);
    ASSERT_TRUE(WaitFor([&] { return DroppedAtRecovery() >= 0; }, 20s, 50ms)) << m_logger->Output();
    ASSERT_NO_FATAL_FAILURE(WaitForRecords(4));
    ASSERT_NO_FATAL_FAILURE(StopRecordingAndCheckSurvivors());

    // The header went with the dropped records; the log starts at the
    // first record written and runs on without a gap.
    EXPECT_GT(DroppedAtRecovery(), 0) << m_logger->Output();
    ExpectReadableLog();
    const std::string dump = Dump();
    EXPECT_GT(FirstBlock(dump, "gps"), 0) << dump;
    EXPECT_EQ(MissingBlocks(dump), 0u) << dump;
}

}  // namespace
