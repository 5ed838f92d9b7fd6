#ifndef SERVER_REPLAYPLAN_H
#define SERVER_REPLAYPLAN_H

// What a replay sends: the data records of a stored log (or of one segment of
// it, from an offset on) in time order, each client's initialisation records,
// and a report of the records that could not be used.

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace ReplayServer {

struct PlannedRecord {
    std::string client;
    int64_t timeMs = 0;
    unsigned int sequence = 0;
    // The record as the client sent it, checksum and line feed included.
    std::string record;
    uint64_t offset = 0;  // in the log file
};

struct PlanOptions {
    // -1: every segment; otherwise only records of this segment.
    int segment = -1;
    // Records earlier than the first record's time plus this are left out.
    int64_t fromOffsetMs = 0;
};

struct ReplayPlan {
    // Block 0 of each client, sent before the replay starts.
    std::vector<PlannedRecord> initialisation;
    // Data records in time order; a client's own records keep their order.
    std::vector<PlannedRecord> records;
    std::set<std::string> clients;
    // The log time at which the replay starts (the first record's, plus the
    // offset asked for).
    int64_t startMs = 0;
    int64_t endMs = 0;
    uint64_t damagedRecords = 0;
    uint64_t skippedStatusRecords = 0;
    // The first damaged records, described for the operator.
    std::vector<std::string> damageReports;

    int64_t DurationMs() const { return records.empty() ? 0 : endMs - startMs; }
};

// Reads `path` into `plan`; false with `error` when the file cannot be read
// or holds nothing to replay. Damaged records are skipped and reported.
bool LoadReplayPlan(const std::string& path, const PlanOptions& options, ReplayPlan& plan,
                    std::string& error);
// The same over a log held in memory.
bool BuildReplayPlan(const char* data, size_t size, const PlanOptions& options, ReplayPlan& plan,
                     std::string& error);

}  // namespace ReplayServer

#endif
