#ifndef LIBREPLAY_REPLAYLOGSTATISTICS_H
#define LIBREPLAY_REPLAYLOGSTATISTICS_H

// Statistics and consistency checks over the records of a stored log: the
// segments between header records, per client the records, items, times,
// sequence gaps and checksum failures, and a list of problems found.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "libreplay/ReplayExport.h"
#include "libreplay/ReplayLogReader.h"
#include "libreplay/ReplayLogRecord.h"

namespace ReplayCore {

struct LogClientStatistics {
    std::string name;
    uint64_t records = 0;  // client records, status records included
    uint64_t statusRecords = 0;
    uint64_t items = 0;
    uint64_t bytes = 0;  // record payload bytes
    uint64_t checksumFailures = 0;
    uint64_t sequenceGaps = 0;   // places where the block sequence jumped
    uint64_t missingBlocks = 0;  // blocks absent in those jumps
    bool hasTime = false;
    int64_t firstTimeMs = 0;  // first block time
    int64_t lastTimeMs = 0;   // latest item time
    // Sequence tracking within the segment.
    bool hasLastSequence = false;
    unsigned int lastSequence = 0;
};

struct LogSegmentStatistics {
    uint32_t index = 0;  // 0: records before the first header
    bool hasHeader = false;
    uint64_t offset = 0;      // of the header, or of the segment's first record
    int64_t startTimeMs = 0;  // the header's time, else the first record's
    bool hasRecordTime = false;
    int64_t firstRecordMs = 0;
    int64_t lastRecordMs = 0;  // latest block time
    uint64_t records = 0;      // all records, header included
    uint64_t replayRecords = 0;
    uint64_t otherRecords = 0;
    uint64_t reorderedRecords = 0;  // older than an earlier record, within tolerance
    uint64_t timeOrderViolations = 0;
    uint64_t untrackedClientRecords = 0;  // beyond kMaxClientsPerSegment
    std::map<std::string, LogClientStatistics> clients;

    // From the segment's start to its latest record time.
    int64_t DurationMs() const { return hasRecordTime ? lastRecordMs - startTimeMs : 0; }
};

struct LogProblem {
    enum Kind { kChecksum, kSequenceGap, kTimeOrder, kSkipped };
    Kind kind;
    uint64_t offset;
    std::string text;
};

REPLAY_API const char* LogProblemKindName(LogProblem::Kind kind);

class REPLAY_API LogStatistics {
  public:
    // The log manager writes records up to this much older than the latest
    // written one; anything older is out of order.
    static constexpr int64_t kReorderToleranceMs = 1000;
    static constexpr size_t kMaxKeptProblems = 1000;
    static constexpr size_t kMaxClientsPerSegment = 256;
    static constexpr size_t kMaxSegments = 10000;

    void Add(const LogRecord& record);
    // Takes the reader's skipped regions into the problems; call once, after
    // the last record.
    void Finish(const ReplayLogReader& reader);

    uint64_t Records() const { return m_records; }
    uint64_t HeaderRecords() const { return m_headerRecords; }
    uint64_t ClientRecords() const { return m_clientRecords; }
    // Client records that carry data (not status records).
    uint64_t ReplayRecords() const { return m_replayRecords; }
    uint64_t OtherRecords() const { return m_otherRecords; }
    uint64_t PayloadBytes() const { return m_payloadBytes; }
    uint64_t ReconnectLines() const { return m_reconnectLines; }

    const std::vector<LogSegmentStatistics>& Segments() const { return m_segments; }
    // Per client over the whole log.
    std::vector<LogClientStatistics> Clients() const;

    uint64_t ProblemCount() const { return m_problemCount; }
    uint64_t ProblemCount(LogProblem::Kind kind) const { return m_problemCounts[kind]; }
    // The first kMaxKeptProblems problems in file order (skips last).
    const std::vector<LogProblem>& Problems() const { return m_problems; }
    bool Clean() const { return m_problemCount == 0; }

  private:
    LogSegmentStatistics& SegmentFor(const LogRecord& record);
    void AddClientRecord(const LogRecord& record, LogSegmentStatistics& segment);
    void AddProblem(LogProblem::Kind kind, uint64_t offset, const std::string& text);

    uint64_t m_records = 0;
    uint64_t m_headerRecords = 0;
    uint64_t m_clientRecords = 0;
    uint64_t m_replayRecords = 0;
    uint64_t m_otherRecords = 0;
    uint64_t m_payloadBytes = 0;
    uint64_t m_reconnectLines = 0;
    std::vector<LogSegmentStatistics> m_segments;
    uint64_t m_problemCount = 0;
    uint64_t m_problemCounts[4] = {0, 0, 0, 0};
    std::vector<LogProblem> m_problems;
    LogClientRecord m_fields;  // reused, so names do not allocate per record
};

// Reads a whole log into `statistics`; false (with `error`) when the file
// cannot be opened or read.
REPLAY_API bool CollectLogStatistics(const std::string& path, LogStatistics& statistics,
                                     std::string& error);

}  // namespace ReplayCore

#endif
