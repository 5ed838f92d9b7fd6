#ifndef LIBREPLAY_SERVER_REPLAYLOGSTATISTICS_H
#define LIBREPLAY_SERVER_REPLAYLOGSTATISTICS_H

// Statistics and consistency checks over the records of a stored log: the
// segments between header records, per client the records, items, times,
// sequence gaps and checksum failures, and a list of problems found. A log
// is clean exactly when it holds records, begins with a header, every record
// reads whole, and each client's blocks are all there, once, in block order,
// with times that never run backwards.

#include <cstddef>
#include <cstdint>
#include <array>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "libreplay/ReplayExport.h"
#include "libreplay/server/ReplayLogReader.h"
#include "libreplay/server/ReplayLogRecord.h"

namespace ReplayCore {

struct LogClientStatistics {
    std::string name;
    uint64_t records = 0;  // client records, status records included
    uint64_t statusRecords = 0;
    uint64_t items = 0;
    uint64_t bytes = 0;  // record payload bytes
    uint64_t checksumFailures = 0;
    uint64_t sequenceGaps = 0;      // runs of missing blocks
    uint64_t missingBlocks = 0;     // blocks absent in those runs
    uint64_t blocksOutOfOrder = 0;  // stored after a later block of the client
    uint64_t duplicateBlocks = 0;   // stored a second time
    uint64_t restarts = 0;          // the client's block count began again
    bool hasTime = false;
    int64_t firstTimeMs = 0;  // first block time
    int64_t lastTimeMs = 0;   // latest item time

    // Tracking within the segment, since the client's last restart.
    bool hasLastSequence = false;
    unsigned int lastSequence = 0;  // highest block number seen
    bool hasLastItemTime = false;
    int64_t lastItemTimeMs = 0;  // latest item time of the blocks in order
    // Blocks found missing that may still turn up late: block number to the
    // offset of the record that revealed the gap.
    std::map<unsigned int, uint64_t> pendingMissing;
    // The latest blocks, to tell a repeated block from a late one.
    struct RecentBlock {
        unsigned int sequence = 0;
        size_t hash = 0;
    };
    static constexpr size_t kRecentBlocks = 64;
    std::array<RecentBlock, kRecentBlocks> recent{};
    size_t recentCount = 0;
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
    enum Kind {
        kChecksum,     // a client record whose checksum does not match
        kSequenceGap,  // blocks of a client missing
        kTimeOrder,    // time running backwards within a client, or a record
                       // far older than the records before it
        kSkipped,      // bytes of the file that hold no readable record
        kBlockOrder,   // a client's block stored after a later one
        kDuplicate,    // a record or header stored twice
        kUnreadable,   // a record that is neither a header nor a client record
        kHeader,       // the log does not begin with a header
        kEmpty,        // the log holds no record at all
        kKindCount
    };
    Kind kind;
    uint64_t offset;
    std::string text;
};

// Names of the kinds as shown in problem lists ("sequence gap") and as JSON
// keys ("sequence_gap").
REPLAY_API const char* LogProblemKindName(LogProblem::Kind kind);
REPLAY_API const char* LogProblemKindKey(LogProblem::Kind kind);

class REPLAY_API LogStatistics {
  public:
    // The log manager writes records up to this much older than the latest
    // written one; anything older is out of order.
    static constexpr int64_t kReorderToleranceMs = 1000;
    static constexpr size_t kMaxKeptProblems = 1000;
    static constexpr size_t kMaxClientsPerSegment = 256;
    static constexpr size_t kMaxSegments = 10000;
    // A gap of more blocks than this is reported at once rather than kept
    // open for blocks that arrive late.
    static constexpr unsigned int kMaxPendingGap = 64;
    static constexpr size_t kMaxPendingMissing = 4096;

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
    // The first kMaxKeptProblems problems found, in file order.
    const std::vector<LogProblem>& Problems() const { return m_problems; }
    bool Clean() const { return m_problemCount == 0; }

  private:
    LogSegmentStatistics& SegmentFor(const LogRecord& record);
    void AddClientRecord(const LogRecord& record, LogSegmentStatistics& segment);
    // Block numbering and times of one data record of a tracked client;
    // true when the record's time was found running backwards.
    bool TrackBlock(const LogRecord& record, LogClientStatistics& client, bool checksumValid);
    void ReportMissing(LogClientStatistics& client);
    void ReportMissing(LogSegmentStatistics& segment);
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
    uint64_t m_problemCounts[LogProblem::kKindCount] = {};
    std::vector<LogProblem> m_problems;
    // Adjacent repeats (by hash and length), and header times seen, for
    // duplicate detection.
    size_t m_payloadHash = 0;  // of the record being added
    size_t m_previousHash = 0;
    size_t m_previousLength = 0;
    std::set<int64_t> m_headerTimes;
    bool m_finished = false;
    LogClientRecord m_fields;  // reused, so names do not allocate per record
};

// Reads a whole log into `statistics`; false (with `error`) when the file
// cannot be opened or read.
REPLAY_API bool CollectLogStatistics(const std::string& path, LogStatistics& statistics,
                                     std::string& error);

}  // namespace ReplayCore

#endif
