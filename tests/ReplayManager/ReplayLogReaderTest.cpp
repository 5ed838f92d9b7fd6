#include "libreplay/server/ReplayLogReader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "libreplay/server/ClientRecord.h"
#include "libreplay/server/ReplayLogRecord.h"
#include "libreplay/server/ReplayLogStatistics.h"
#include "tests/support/TestSupport.h"

namespace {

using ReplayCore::LogRecord;
using ReplayCore::LogRecordKind;
using ReplayCore::LogSkip;
using ReplayCore::ReplayLogReader;
namespace LogFormat = ReplayCore::LogFormat;

std::string Stored(const std::string& payload) {
    std::string framed;
    EXPECT_TRUE(LogFormat::FrameRecord(payload, framed));
    std::string out;
    LogFormat::AppendStoredRecord(framed.data(), framed.size(), out);
    return out;
}

std::string Checksummed(const std::string& body) {
    std::string record(body.size() + ReplayCore::kChecksumFieldLength + 1, '\0');
    record.replace(0, body.size(), body);
    unsigned int sum = 0;
    const int length =
        ReplayCore::AppendChecksum(&record[0], static_cast<unsigned int>(body.size()),
                                   static_cast<unsigned int>(record.size()), sum);
    record.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return record;
}

std::vector<LogRecord> ReadAll(ReplayLogReader& reader) {
    std::vector<LogRecord> records;
    LogRecord record;
    while (reader.Next(record)) {
        records.push_back(record);
    }
    return records;
}

std::vector<LogRecord> ReadMemory(const std::string& data, ReplayLogReader& reader) {
    reader.OpenMemory(data.data(), data.size());
    return ReadAll(reader);
}

TEST(ReplayLogFormatTest, FramingAndStoredFormMatchTheWriterByteForByte) {
    std::string framed;
    ASSERT_TRUE(LogFormat::FrameRecord("!a\nb\n", framed));
    EXPECT_EQ(framed, std::string("   5|!a\xd8"
                                  "b\n"));
    ASSERT_TRUE(LogFormat::FrameRecord("", framed));
    EXPECT_EQ(framed, "   0|");
    EXPECT_TRUE(LogFormat::FrameRecord(std::string(2043, 'x'), framed));
    EXPECT_EQ(framed.size(), 2048u);
    EXPECT_FALSE(LogFormat::FrameRecord(std::string(2044, 'x'), framed));

    std::string stored;
    const std::string plain = "   7|abc\r\nx\n";
    LogFormat::AppendStoredRecord(plain.data(), plain.size(), stored);
    EXPECT_EQ(stored, "Q\t[-M-] \t   7|abc\r\r\nx\r\n");
    stored.clear();
    LogFormat::AppendStoredRecord("   0|", 5, stored);
    EXPECT_EQ(stored, "Q\t[-M-] \t   0|\r\n");

    EXPECT_EQ(LogFormat::HeaderPayload(83061), "!83.061:multicore:\n");
    int64_t time = 0;
    EXPECT_TRUE(LogFormat::ParseHeaderPayload("!83.061:multicore:\n", time));
    EXPECT_EQ(time, 83061);
    EXPECT_FALSE(LogFormat::ParseHeaderPayload("!83.061:multicore:!1 2:x       0\n", time));
}

// Every payload shape the writer can produce reads back unchanged, also
// when records straddle the reader's buffer refills.
TEST(ReplayLogReaderTest, EveryPayloadShapeReadsBackIdentical) {
    const std::vector<std::string> shapes = {
        Checksummed("!1.000:gps:!1 1:with\r\ninner\nbreaks"),
        Checksummed("\"1.001:ui:!1 1:two\nlines\r\nand a lone \r here"),
        "ends with a carriage return\r",
        "no line end at all",
        "",
        "\r\n",
        std::string(2043, 'y'),
        std::string(2042, '\n') + "z",
        "!" + std::string(2041, '\r') + "\n",
        LogFormat::HeaderPayload(5),
    };
    std::vector<std::string> payloads;
    std::string log;
    for (int round = 0; round < 40; ++round) {
        for (const std::string& shape : shapes) {
            payloads.push_back(shape);
            log += Stored(shape);
        }
    }
    ReplayLogReader reader(ReplayLogReader::kMinimumBufferSize);
    const std::vector<LogRecord> records = ReadMemory(log, reader);
    ASSERT_EQ(records.size(), payloads.size());
    uint64_t offset = 0;
    for (size_t i = 0; i < records.size(); ++i) {
        ASSERT_EQ(records[i].payload, payloads[i]) << "record " << i;
        EXPECT_EQ(records[i].offset, offset);
        offset += Stored(payloads[i]).size();
    }
    EXPECT_EQ(reader.SkipCount(), 0u);
    EXPECT_EQ(records[0].kind, LogRecordKind::kClient);
    EXPECT_EQ(records[2].kind, LogRecordKind::kOther);
    EXPECT_EQ(records[9].kind, LogRecordKind::kHeader);
    EXPECT_EQ(records[9].segment, 1u);
    EXPECT_EQ(records.back().segment, 40u);
}

TEST(ReplayLogReaderTest, SurvivesDamageAndReportsWhatItSkipped) {
    const std::string good1 = Checksummed("!1.000:gps:!1 1:a");
    const std::string good2 = Checksummed("!1.100:gps:!1 2:b");
    const std::string text = "\"1.200:ui:!1 1:quoted Q\t[-M-] \t   5|fake\n";
    const std::string cut = Stored(good1).substr(0, 20);
    std::string log;
    log += "leading garbage\r\n";               // garbage at 0
    log += Stored(good1);                       // record
    log += std::string("\x00\xff\x80junk", 7);  // binary junk without line end
    log += Stored(Checksummed(text));           // marker inside a payload
    log += "Q\t[-M-] \t9999|too long\r\n";      // length larger than allowed
    log += "Q\t[-M-] \treconnecting\r\n";       // re-attach line
    log += "-- reconnecting --\r\n";            // and one without marker
    log += cut;                                 // cut short, then a record
    log += Stored(good2);
    log += Stored(good1).substr(0, 30);  // truncated tail

    for (size_t bufferSize : {ReplayLogReader::kMinimumBufferSize, size_t(1 << 20)}) {
        ReplayLogReader reader(bufferSize);
        const std::vector<LogRecord> records = ReadMemory(log, reader);
        ASSERT_EQ(records.size(), 3u);
        EXPECT_EQ(records[0].payload, good1);
        EXPECT_EQ(records[1].payload, Checksummed(text));
        EXPECT_EQ(records[2].payload, good2);
        EXPECT_EQ(reader.ReconnectCount(), 2u);

        std::vector<LogSkip::Kind> kinds;
        for (const LogSkip& skip : reader.Skips()) {
            kinds.push_back(skip.kind);
        }
        const std::vector<LogSkip::Kind> expected = {
            LogSkip::kGarbage,   LogSkip::kGarbage,    LogSkip::kBadFraming, LogSkip::kReconnect,
            LogSkip::kReconnect, LogSkip::kBadFraming, LogSkip::kTruncated};
        EXPECT_EQ(kinds, expected);
        EXPECT_EQ(reader.Skips().front().offset, 0u);
        EXPECT_EQ(reader.Skips().back().offset, log.size() - 30);
        EXPECT_EQ(reader.SkipCount(), 5u);
    }
}

class ReplayLogFileTest : public ReplayTest::TargetRootTest {};

// Statistics over records built here, so each fault is known exactly.
TEST_F(ReplayLogFileTest, StatisticsFindChecksumGapAndTimeOrderFaults) {
    std::string log = Stored(LogFormat::HeaderPayload(1000));
    log +=
        Stored(Checksummed("!1.100:gps:!1 1:a\xde"
                           "1.150:b"));
    log += Stored(Checksummed("!1.200:gps:!1 2:c"));
    log += Stored(Checksummed("!1.250:gps:!1 5:d"));  // blocks 3 and 4 missing
    std::string damaged = Checksummed("!1.300:can:!1 1:e");
    damaged[16] = 'E';
    log += Stored(damaged);
    log += Stored(Checksummed("!1.299:can:!1 2:f"));  // reordered within tolerance
    log += Stored(Checksummed("!0.100:can:!1 3:g"));  // far too old
    log += Stored(Checksummed("#1.400:can:#stop"));
    log += Stored(LogFormat::HeaderPayload(9000));
    log += Stored(Checksummed("!9.100:gps:!1 9:h"));  // new segment: no gap
    const std::string path = WriteTargetFile("/fs/usb0/LOGFILE.DAT", log);

    ReplayCore::LogStatistics statistics;
    std::string error;
    ASSERT_TRUE(ReplayCore::CollectLogStatistics(path, statistics, error)) << error;
    EXPECT_EQ(statistics.Records(), 10u);
    EXPECT_EQ(statistics.ReplayRecords(), 7u);
    EXPECT_EQ(statistics.ProblemCount(ReplayCore::LogProblem::kChecksum), 1u);
    EXPECT_EQ(statistics.ProblemCount(ReplayCore::LogProblem::kSequenceGap), 1u);
    EXPECT_EQ(statistics.ProblemCount(ReplayCore::LogProblem::kTimeOrder), 1u);
    EXPECT_FALSE(statistics.Clean());

    ASSERT_EQ(statistics.Segments().size(), 2u);
    const ReplayCore::LogSegmentStatistics& first = statistics.Segments()[0];
    EXPECT_EQ(first.DurationMs(), 300);
    EXPECT_EQ(first.reorderedRecords, 1u);
    const ReplayCore::LogClientStatistics& gps = first.clients.at("gps");
    EXPECT_EQ(gps.items, 4u);
    EXPECT_EQ(gps.missingBlocks, 2u);
    EXPECT_EQ(statistics.Segments()[1].clients.at("gps").sequenceGaps, 0u);
    const std::vector<ReplayCore::LogClientStatistics> clients = statistics.Clients();
    ASSERT_EQ(clients.size(), 2u);
    EXPECT_EQ(clients[1].records, 4u);
}

TEST(ReplayLogGoldenTest, GoldenLogsReadAsDescribed) {
    struct Expectation {
        const char* file;
        uint64_t records;
        size_t segments;
        uint64_t skips;
        uint64_t reconnects;
    };
    const Expectation expectations[] = {
        {"clean.dat", 7, 1, 0, 0},
        {"two_segments.dat", 11, 2, 0, 0},
        {"truncated_tail.dat", 7, 1, 1, 0},
        {"garbage_reconnect.dat", 8, 2, 1, 1},
    };
    for (const Expectation& expected : expectations) {
        SCOPED_TRACE(expected.file);
        ReplayCore::LogStatistics statistics;
        std::string error;
        ASSERT_TRUE(ReplayCore::CollectLogStatistics(
            std::string(REPLAY_TEST_DATA_DIR) + "/logs/" + expected.file, statistics, error));
        EXPECT_EQ(statistics.Records(), expected.records);
        EXPECT_EQ(statistics.Segments().size(), expected.segments);
        EXPECT_EQ(statistics.ProblemCount(), expected.skips);
        EXPECT_EQ(statistics.ReconnectLines(), expected.reconnects);
    }
}

}  // namespace
