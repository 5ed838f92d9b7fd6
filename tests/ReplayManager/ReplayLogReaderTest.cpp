#include "libreplay/server/ReplayLogReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "libreplay/server/ClientRecord.h"
#include "libreplay/server/ReplayLogRecord.h"
#include "libreplay/server/ReplayLogStatistics.h"
#include "tests/ReplayManager/RecordText.h"

namespace {

using namespace ReplayCore;
using namespace RecordText;

std::vector<LogRecord> ReadMemory(const std::string& data, ReplayLogReader& reader) {
    reader.OpenMemory(data.data(), data.size());
    std::vector<LogRecord> records;
    for (LogRecord record; reader.Next(record);) {
        records.push_back(record);
    }
    return records;
}

// The smallest buffer makes records straddle the reader's refills.
TEST(ReplayLogReaderTest, EveryPayloadShapeReadsBackIdentical) {
    const std::vector<std::string> shapes = {
        WithChecksum("!1.000:gps:!1 1:with\r\ninner\nbreaks"),
        WithChecksum("\"1.001:ui:!1 1:two\nlines\r\nand a lone \r here"),
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
    const std::string good1 = WithChecksum("!1.000:gps:!1 1:a");
    const std::string good2 = WithChecksum("!1.100:gps:!1 2:b");
    const std::string text = "\"1.200:ui:!1 1:quoted Q\t[-M-] \t   5|fake\n";
    const std::string cut = Stored(good1).substr(0, 20);
    std::string log;
    log += "leading garbage\r\n";               // garbage at 0
    log += Stored(good1);                       // record
    log += std::string("\x00\xff\x80junk", 7);  // binary junk without line end
    log += Stored(WithChecksum(text));          // marker inside a payload
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
        EXPECT_EQ(records[1].payload, WithChecksum(text));
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

std::string Block(char type, const std::string& time, const std::string& client,
                  unsigned int sequence, const std::string& items) {
    return WithChecksum(RecordText::BlockBody(type, time, client, sequence, items));
}

LogStatistics Collect(const std::string& log) {
    LogStatistics statistics;
    ReplayLogReader reader;
    for (const LogRecord& record : ReadMemory(log, reader)) {
        statistics.Add(record);
    }
    statistics.Finish(reader);
    return statistics;
}

std::string ProblemList(const LogStatistics& statistics) {
    std::string text;
    for (const LogProblem& problem : statistics.Problems()) {
        text += std::to_string(problem.offset) + ": " + LogProblemKindName(problem.kind) + ": " +
                problem.text + "\n";
    }
    return text;
}

// Two recordings with type changes, a burst, restarts with and without block 0,
// and a record lagging by exactly the writer's reordering allowance (1 s).
std::vector<std::string> HealthyPayloads() {
    return {
        LogFormat::HeaderPayload(100000),
        Block('"', "99.990", "gps", 0, "INIT:gps"),
        Block('"', "100.010", "can", 5, "POS 1"),
        Block('$', "100.010", "gps", 1, "%&'" + Item("100.012", "()*")),
        Block('"', "100.020", "gps", 2, "POS 1" + Item("100.020", "POS 2")),
        Block('$', "100.020", "can", 6, "+,-"),
        Block('"', "100.030", "gps", 3, "a"),
        Block('"', "100.030", "gps", 4, "b"),
        Block('"', "100.030", "gps", 5, "c"),
        WithChecksum("#100.040:gps:"),
        Block('$', "100.500", "gps", 6, "./0"),
        Block('"', "101.000", "gps", 0, "INIT:gps"),
        Block('"', "101.001", "can", 1, "POS 1"),
        Block('"', "101.100", "gps", 1, "POS 1"),
        Block('"', "101.200", "can", 2, "POS 2"),
        WithChecksum("#101.300:ReplayManager:stop"),
        LogFormat::HeaderPayload(200000),
        Block('"', "200.100", "gps", 9, "POS 9"),
        Block('"', "200.100", "can", 3, "POS 3"),
        Block('$', "200.200", "gps", 10, "123"),
        Block('"', "199.200", "ui", 1, "lag"),
    };
}

std::string Log(const std::vector<std::string>& payloads) {
    std::string log;
    for (const std::string& payload : payloads) {
        log += Stored(payload);
    }
    return log;
}

TEST(ReplayLogStatisticsTest, HealthyLogOfMixedTypesBurstsAndRestartsIsClean) {
    std::string log = Log(HealthyPayloads());
    LogFormat::AppendReconnectLine(log);
    log += Stored(Block('"', "200.300", "can", 4, "POS 4"));
    const LogStatistics statistics = Collect(log);
    EXPECT_TRUE(statistics.Clean()) << ProblemList(statistics);
    ASSERT_EQ(statistics.Segments().size(), 2u);
    const LogSegmentStatistics& first = statistics.Segments()[0];
    EXPECT_EQ(first.clients.at("gps").restarts, 1u);
    EXPECT_EQ(first.clients.at("can").restarts, 1u);
    EXPECT_EQ(first.clients.at("gps").items, 11u);
    EXPECT_EQ(statistics.Segments()[1].reorderedRecords, 1u);
}

TEST(ReplayLogStatisticsTest, EachKindOfDamageIsAProblem) {
    using Payloads = std::vector<std::string>;
    struct Case {
        const char* what;
        std::function<void(Payloads&)> damage;
        LogProblem::Kind kind;
        const char* text;  // part of the first problem's text
    };
    const Case cases[] = {
        {"block removed", [](Payloads& p) { p.erase(p.begin() + 6); }, LogProblem::kSequenceGap,
         "client gps: block 3 missing"},
        {"several blocks removed", [](Payloads& p) { p.erase(p.begin() + 6, p.begin() + 9); },
         LogProblem::kSequenceGap, "client gps: blocks 3 to 5 missing"},
        {"first blocks of a client, of one millisecond, swapped",
         [](Payloads& p) {
             p[1] = Block('$', "100.010", "gps", 1, "x");
             p[3] = Block('"', "100.010", "gps", 0, "INIT:gps");
         },
         LogProblem::kBlockOrder, "client gps: block 0 stored after block 1"},
        {"record repeated", [](Payloads& p) { p.insert(p.begin() + 4, p[4]); },
         LogProblem::kDuplicate, "record repeated"},
        {"block stored again later", [](Payloads& p) { p.insert(p.begin() + 9, p[6]); },
         LogProblem::kDuplicate, "client gps: block 3 stored a second time"},
        {"header repeated", [](Payloads& p) { p.insert(p.begin() + 5, p[0]); },
         LogProblem::kDuplicate, "header of 100.000 stored a second time"},
        {"byte inserted into a client name", [](Payloads& p) { p[4].insert(10, "-"); },
         LogProblem::kUnreadable, "neither a header nor a client record"},
        {"name character changed", [](Payloads& p) { p[4][9] = 'X'; }, LogProblem::kChecksum,
         "checksum mismatch"},
        {"header damaged", [](Payloads& p) { p[0][3] = '#'; }, LogProblem::kHeader,
         "the log does not begin with a header"},
        {"header removed", [](Payloads& p) { p.erase(p.begin()); }, LogProblem::kHeader,
         "the log does not begin with a header"},
        {"empty file", [](Payloads& p) { p.clear(); }, LogProblem::kEmpty, "no records"},
        {"block time running backwards",
         [](Payloads& p) { p[6] = Block('"', "100.015", "gps", 3, "a"); }, LogProblem::kTimeOrder,
         "client gps: time runs backwards"},
        {"item time running backwards",
         [](Payloads& p) {
             p[4] = Block('"', "100.020", "gps", 2, "POS 1" + Item("100.019", "POS 2"));
         },
         LogProblem::kTimeOrder, "item times run backwards"},
        {"another client's record one millisecond past the reordering allowance",
         [](Payloads& p) { p.back() = Block('"', "199.199", "ui", 1, "lag"); },
         LogProblem::kTimeOrder, "client ui: record time 199.199 is 1001 ms before"},
        {"record cut short", [](Payloads&) {}, LogProblem::kSkipped, "truncated"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Payloads payloads = HealthyPayloads();
        c.damage(payloads);
        std::string log = Log(payloads);
        if (c.kind == LogProblem::kSkipped) {
            log.resize(log.size() - 5);  // cut into the last record
        }
        const LogStatistics statistics = Collect(log);
        EXPECT_FALSE(statistics.Clean());
        EXPECT_GE(statistics.ProblemCount(c.kind), 1u) << ProblemList(statistics);
        const std::vector<LogProblem>& problems = statistics.Problems();
        EXPECT_TRUE(std::any_of(problems.begin(), problems.end(), [&](const LogProblem& problem) {
            return problem.kind == c.kind && problem.text.find(c.text) != std::string::npos;
        })) << ProblemList(statistics);
    }
}

TEST(ReplayLogStatisticsTest, LateBlockIsOutOfOrderNotMissingAndProblemsAreInFileOrder) {
    std::string damaged = Block('"', "100.030", "can", 1, "x");
    damaged[damaged.size() - 3] ^= 1;
    const std::string log = Log({
        LogFormat::HeaderPayload(100000),
        Block('"', "100.010", "gps", 1, "a"),
        Block('"', "100.020", "gps", 3, "c"),
        damaged,
        Block('"', "100.020", "gps", 2, "b"),  // late, not missing
        Block('"', "100.050", "gps", 5, "e"),  // block 4 never comes
        Block('"', "100.060", "can", 2, "y"),
    });
    const LogStatistics statistics = Collect(log);
    EXPECT_EQ(statistics.ProblemCount(LogProblem::kBlockOrder), 1u) << ProblemList(statistics);
    EXPECT_EQ(statistics.ProblemCount(LogProblem::kSequenceGap), 1u) << ProblemList(statistics);
    EXPECT_EQ(statistics.ProblemCount(LogProblem::kChecksum), 1u) << ProblemList(statistics);
    EXPECT_EQ(statistics.ProblemCount(), 3u) << ProblemList(statistics);
    const LogClientStatistics& gps = statistics.Segments()[0].clients.at("gps");
    EXPECT_EQ(gps.missingBlocks, 1u);
    EXPECT_EQ(gps.blocksOutOfOrder, 1u);
    // The gap is known only at the segment's end but reported where it showed.
    const std::vector<LogProblem>& problems = statistics.Problems();
    for (size_t i = 1; i < problems.size(); ++i) {
        EXPECT_LE(problems[i - 1].offset, problems[i].offset) << ProblemList(statistics);
    }
    EXPECT_EQ(problems.back().kind, LogProblem::kSequenceGap) << ProblemList(statistics);
}

}  // namespace
