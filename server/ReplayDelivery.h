#ifndef SERVER_REPLAYDELIVERY_H
#define SERVER_REPLAYDELIVERY_H

// What each client has made of the records a replay sent it. A replaying
// client reports after every record it processes (a bare replay state report,
// or one with "w=<text>"), and adds a report "d=<count>" whenever its block
// numbers show a gap. Counting those reports against the records sent tells
// the server how far each client has got, which paces the sends and tells
// when a replay has really been delivered.
//
// A client's ping in the replay state looks exactly like a report with no
// text, so a report is only counted while a record is outstanding, and not
// when it comes well before the moment the oldest outstanding record is due
// to be handed over (no report can). A ping that arrives within that margin
// still counts one record early.
//
// For records sent with their moment, the report's arrival against that
// moment is the replay's timing as the server sees it: the client reports
// right after its callback, so this adds only the way back over the network
// and the client's own work after the callback. Reports carry no record
// number, so they are matched to records in order: a record handed over
// more than kEarliestReportUs early is taken for a ping, and from then on
// each report is matched to the record before its own, reading one item
// spacing late.

#include <chrono>
#include <condition_variable>
#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace ReplayServer {

// Timing of the reported records against their moments, in microseconds.
struct DeliveryTiming {
    // 250 us buckets up to 100 ms, then 10 ms buckets; the last takes
    // everything from 9.99 s on. A stalled bench still shows its true tail.
    static constexpr int64_t kFineBucketUs = 250;
    static constexpr size_t kFineBuckets = 400;
    static constexpr int64_t kCoarseBucketUs = 10000;
    static constexpr size_t kCoarseBuckets = 990;
    static constexpr size_t kBuckets = kFineBuckets + kCoarseBuckets;
    static constexpr size_t kRecent = 512;

    uint64_t items = 0;
    int64_t sumAbsUs = 0;
    int64_t maxAbsUs = 0;
    // Counts of |error| in the buckets above, for the percentiles.
    std::array<uint32_t, kBuckets> histogram{};
    // The latest items: their log time (ms) and signed error (us; positive
    // is late).
    std::deque<std::pair<int64_t, int64_t>> recent;

    void Add(int64_t logMs, int64_t errorUs);
    double MeanMs() const { return items == 0 ? 0.0 : sumAbsUs / 1000.0 / items; }
    double MaxMs() const { return maxAbsUs / 1000.0; }
    // The |error| below which `fraction` of the items lie, to a bucket.
    double PercentileMs(double fraction) const;
    static size_t BucketOf(int64_t magnitudeUs);
    // The upper edge of `bucket`.
    static int64_t BucketEndUs(size_t bucket);
};

struct ClientDelivery {
    std::string name;
    uint64_t recordsSent = 0;
    // Records the client has reported as processed (never above sent).
    uint64_t recordsReported = 0;
    // Records the client found missing in its block numbers (its own
    // running total).
    uint64_t missed = 0;
    // Records the client dropped because their checksum did not match.
    uint64_t checksumErrors = 0;
    // The last report's argument text ("w=...", "d=..."; empty when bare).
    std::string lastReport;
    std::chrono::steady_clock::time_point lastReportAt{};
    DeliveryTiming timing;
};

class ReplayDeliveryTracker {
  public:
    // Forgets every client (a new replay starts).
    void Reset();
    // A record sent to `client`; with `dueUs` (steady clock) the moment it
    // is due to be handed over, and its log time, for the timing figures.
    void NoteSent(const std::string& client, int64_t dueUs = kUntimed, int64_t logMs = 0);
    // One status report from `client`: `payload` is the report's message,
    // e.g. "#replay" or "#replay w=Checksum Error;". Reports in any other
    // state than replay are ignored.
    void NoteReport(const std::string& client, const std::string& payload);

    std::vector<ClientDelivery> Snapshot() const;
    // One client's figures; a zeroed entry named `client` when unknown.
    ClientDelivery Get(const std::string& client) const;
    uint64_t Outstanding(const std::string& client) const;

    // Waits until `client` has reported at least `count` records. False at
    // the deadline or when Wake() is called meanwhile.
    bool WaitForReported(const std::string& client, uint64_t count,
                         std::chrono::steady_clock::time_point deadline);
    // Ends every wait in progress (a cancelled replay).
    void Wake();

    static constexpr int64_t kUntimed = INT64_MIN;
    // How far before its record's moment a report can come: a record close
    // behind its client's previous one goes out a moment early and is
    // handed over on arrival.
    static constexpr int64_t kEarliestReportUs = 5000;

  private:
    struct SentRecord {
        int64_t dueUs;
        int64_t logMs;
    };

    mutable std::mutex m_mutex;
    // Per client, the records sent and not yet reported, oldest first.
    std::map<std::string, std::deque<SentRecord>> m_unreported;
    std::condition_variable m_changed;
    std::map<std::string, ClientDelivery> m_clients;
    uint64_t m_wakeGeneration = 0;
};

}  // namespace ReplayServer

#endif
