#ifndef SERVER_REPLAYPLAN_H
#define SERVER_REPLAYPLAN_H

// What a replay sends: every item of the stored data records of a log (or of
// one segment of it, within a time range) as a record of its own, in time
// order; each client's initialisation records and its last item before the
// range; and a report of what could not be used.

#include <cstdint>
#include <set>
#include <string>
#include <vector>
#include "reference/src/status.h"

namespace ReplayServer {

struct PlannedRecord {
    std::string client;
    int64_t timeMs = 0;
    // Initialisation records keep their block 0; items are numbered 1, 2,
    // 3... per client in the order sent, so a client sees no gap.
    unsigned int sequence = 0;
    // The record to send, checksum included, without line end.
    std::string record;
    uint64_t offset = 0;  // of the stored record in the log file
};

struct PlanOptions {
    // -1: every segment; otherwise only records of this segment.
    int segment = -1;
    // Items earlier than the first record's time plus this are left out.
    int64_t fromOffsetMs = 0;
    // Items at or after the first record's time plus this are left out; -1:
    // none.
    int64_t toOffsetMs = -1;
    // Each client's last item before the range is sent ahead of the range,
    // so that the client starts from the state it had there.
    bool withState = true;
    // The block number of each client's first item.
    unsigned int firstSequence = 1;
};

struct ReplayPlan {
    // Block 0 of each client, sent before the replay starts.
    std::vector<PlannedRecord> initialisation;
    // Each client's last item before the range (with withState), sent after
    // the initialisation records.
    std::vector<PlannedRecord> state;
    // One record per item, in time order; a client's own items keep their
    // order.
    std::vector<PlannedRecord> records;
    std::set<std::string> clients;
    // The log time at which the replay starts (the first record's, plus the
    // offset asked for).
    int64_t startMs = 0;
    int64_t endMs = 0;
    uint64_t damagedRecords = 0;
    uint64_t skippedStatusRecords = 0;
    // Items a client would not hand over (empty, or without a time), and
    // items that could not be formed into a record of their own.
    uint64_t skippedItems = 0;
    uint64_t unformedItems = 0;
    // The first damaged records, described for the operator.
    std::vector<std::string> damageReports;

    int64_t DurationMs() const { return records.empty() ? 0 : endMs - startMs; }
};

// Reads `path` into `plan`; fails when the file cannot be read or holds
// nothing to replay. Damaged records are skipped and reported.
// Either can be called again with other options to plan from another point.
ReplayPlatform::Status LoadReplayPlan(const std::string& path, const PlanOptions& options,
                                      ReplayPlan& plan);
// The same over a log held in memory.
ReplayPlatform::Status BuildReplayPlan(const char* data, size_t size, const PlanOptions& options,
                                       ReplayPlan& plan);

}  // namespace ReplayServer

#endif
