#ifndef TOOLS_SOAK_SOAKANALYSIS_H
#define TOOLS_SOAK_SOAKANALYSIS_H

// What a soak run measured, worked out from the files the processes leave:
// each client's journal (what it sent while recording), the log file (what
// the server stored), each client's list of replayed items, and the memory
// samples taken while recording.

#include <cstddef>
#include <climits>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "support/DemoJournal.h"

namespace ReplaySoak {

using SentItem = ReplaySupport::JournalItem;

struct LoggedItem {
    int64_t timeMs = 0;  // the item's time in the log
    std::string bytes;
};

struct ReplayedItem {
    int64_t momentMs = 0;  // monotonic clock at the client's callback
    std::string bytes;
};

using ReplaySupport::ReadJournal;
// "<moment> <hex>" lines.
std::vector<ReplayedItem> ReadReplayed(const std::string& path);

struct LogContents {
    bool opened = false;
    std::string error;
    // Data items of each client in file order; initialisation records and
    // status records are left out.
    std::map<std::string, std::vector<LoggedItem>> items;
    size_t checksumFailures = 0;
    size_t unparsable = 0;
    uint64_t skippedRegions = 0;
};

// Reads a stored log. `initialisationPrefix` marks the payload of the
// clients' initialisation records, which are not part of any journal.
LogContents ReadLog(const std::string& path, const std::string& initialisationPrefix);

// How missing items are told apart.
struct LossLimits {
    // The server's stop moment: a stop keeps every item handed over before
    // it; items handed over from then until the client heard of the stop
    // may be missing.
    int64_t stopMomentMs = INT64_MAX;
    // A client's journal time is read just before it hands the item over;
    // the library's stamp, which decides the side of the stop, follows a
    // moment later. Items this close before the moment count as after it.
    int64_t stampMarginMs = 50;
    // The server's write queue drops a record more than a second older than
    // the last one it wrote. A block sent at least this long after its first
    // item may have met that rule; a younger one cannot have.
    int64_t lateAgeMs = 1000;
};

struct ClientResult {
    size_t sent = 0;
    size_t logged = 0;       // sent items found in the log
    size_t afterStop = 0;    // handed over at or after the stop moment, not stored
    size_t lostAtStop = 0;   // handed over before the stop moment, after the last stored item
    size_t late = 0;         // in blocks old enough to be dropped as late by the write queue
    size_t lost = 0;         // sent, not in the log, and explained by neither
    size_t unexpected = 0;   // in the log but never sent (or logged twice)
    size_t replayed = 0;     // logged items that came back on replay
    size_t replayLost = 0;   // logged items that did not come back
    size_t replayWrong = 0;  // replayed items that are not in the log, or out of order
    // |moment − log time − the client's median offset| of each replayed item.
    std::vector<int64_t> timingErrorsMs;
};

ClientResult AnalyseClient(const std::vector<SentItem>& sent, const std::vector<LoggedItem>& logged,
                           const std::vector<ReplayedItem>& replayed, const LossLimits& limits);

struct Distribution {
    size_t count = 0;
    double mean = 0;
    int64_t p99 = 0;
    int64_t max = 0;
};
Distribution Summarise(std::vector<int64_t> values);

struct MemorySample {
    double minutes = 0;  // since recording started
    long rssKb = 0;
};

// Least-squares slope in KB per minute; 0 with fewer than two samples.
double SlopeKbPerMinute(const std::vector<MemorySample>& samples);

}  // namespace ReplaySoak

#endif
