#ifndef SERVER_REPLAYRUNNER_H
#define SERVER_REPLAYRUNNER_H

// Sends a replay plan to the recorded clients under the operator's control.
// A ReplaySchedule maps each record's log time to the moment it is due; every
// record goes out at that moment (less the trip to the client), so
// scheduling errors never add up. Each client's replay clock is set (key l) so that,
// with its networking latency added, it reads the log time the schedule
// stands at; after a pause, seek or rate change it is set again, so the
// items are on time from the new point instead of running late.
//
// The control calls (Pause, Resume, Seek, Step..., SetRate, SetLoop) may come
// from any thread while Run works; each answers at once with an empty string
// or an error text saying why it does not apply.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "reference/src/status.h"
#include "server/ReplayPacer.h"
#include "server/ReplayPlan.h"
#include "server/ReplaySchedule.h"
#include "server/ReplayServer.h"

namespace ReplayServer {

struct ReplayProgress {
    size_t sent = 0;
    size_t total = 0;
    int64_t replayMs = 0;  // replay time since the start
    int64_t durationMs = 0;
};

struct ReplaySettings {
    int serverLeadTimeMs = 100;
    int networkingLatencyMs = 100;
    // How long to wait for every recorded client to be connected.
    int clientWaitMs = 30000;
    // After the last record, before "stop": the clients still hold it back
    // until its moment, and a stop would cut it off.
    int endGraceMs = 500;
    int progressIntervalMs = 1000;
    // Send moments and the window of unreported records.
    PacingSettings pacing;
    // How long the end of a replay waits for the clients' reports of the
    // last records.
    int deliveryWaitMs = 5000;
    std::function<void(const ReplayProgress&)> progress;
};

struct ReplayResult {
    bool completed = false;
    bool cancelled = false;
    std::string error;
    std::vector<std::string> missingClients;
    // Clients that had not reported their last record when the replay
    // ended (their tail may not have reached the application).
    std::vector<std::string> undeliveredClients;
    size_t initialisationSent = 0;
    size_t stateSent = 0;
    size_t recordsSent = 0;
    size_t sendFailures = 0;
    size_t loops = 0;
    // How late the sends were against their schedule.
    int64_t maxSendLatenessMs = 0;
    // Per client: block numbers a seek forward skipped. A client counts
    // those as missed; they were left out on purpose.
    std::map<std::string, uint64_t> skippedBySeek;
    // Times a client's full window was not reported within the pacing's
    // stall time, and the clients whose last records were not reported.
    uint64_t pacingStalls = 0;
    bool deliveredAll = false;
};

// Where a running replay stands, for status reports.
struct ReplayPosition {
    bool started = false;  // false while waiting for the clients
    bool paused = false;
    bool loop = false;
    bool maxRate = false;
    double rate = 1.0;
    int64_t logMs = 0;    // the log time reached
    int64_t startMs = 0;  // the plan's first and last log times
    int64_t endMs = 0;
    size_t nextRecord = 0;  // index of the next record to send
    size_t records = 0;
    size_t recordsSent = 0;  // in all, loops and steps included
    size_t loops = 0;
    // As in ReplayResult.
    std::map<std::string, uint64_t> skippedBySeek;
};

class ReplayRunner {
  public:
    ReplayRunner(ReplayServer& server, const ReplayPlan& plan, const ReplaySettings& settings);

    // Runs the whole replay on the calling thread.
    ReplayResult Run();
    // Ends a running replay early (from any thread): the clients are stopped.
    void Cancel();

    ReplayPlatform::Status Pause();
    ReplayPlatform::Status Resume();
    // To `offsetMs` after the plan's start; each client first gets its last
    // record before that point, so it starts from the state it had there.
    ReplayPlatform::Status Seek(int64_t offsetMs);
    // While paused: the next `count` records, or those within `ms` of the
    // position, handed over at once; the position moves past them.
    ReplayPlatform::Status StepRecords(size_t count);
    ReplayPlatform::Status StepTime(int64_t ms);
    // 0.1 to 10 times as fast as recorded.
    ReplayPlatform::Status SetRate(double rate);
    // As fast as the clients report handling what they were sent.
    ReplayPlatform::Status SetMaxRate();
    void SetLoop(bool loop);
    ReplayPosition Position() const;

  private:
    using Clock = std::chrono::steady_clock;
    static int64_t NowMs();
    static int64_t NowUs();
    static Clock::time_point At(int64_t ms);

    bool WaitUntil(Clock::time_point when);
    bool WaitForClients(ReplayResult& result);
    bool WaitForDelivery(ReplayResult& result);
    void StopClients();
    // The state each client had at `logMs`: its last record before it.
    void SendStateBefore(int64_t logMs);
    // Sets every client's clock so that its replay time reads `logMs` now.
    void SetClientClocks(int64_t logMs);
    void SendRecord(size_t index, int64_t dueMs);
    // Sends a record that is not on the schedule (initialisation, state);
    // false when the send failed.
    // `dueUs`: when the client is to hand the record over, for the timing
    // figures; untimed records are handed over on arrival.
    bool SendUnscheduled(const PlannedRecord& record,
                         int64_t dueUs = ReplayDeliveryTracker::kUntimed);
    // Counts the block numbers a client will find missing because a seek
    // jumped over them.
    void NoteSequence(const PlannedRecord& record);
    // Re-anchors after a change while playing: the clients' clocks are set
    // (and the new line starts) after the last record sent. Caller holds
    // m_mutex.
    void Reanchor(int64_t logMs, int64_t nowMs);
    // The first record at or after `logMs`.
    size_t RecordAt(int64_t logMs) const;
    ReplayPlatform::Status CheckStarted() const;
    // Paused, and with something left to step to.
    ReplayPlatform::Status CheckSteppable(bool atEnd) const;

    ReplayServer& m_server;
    const ReplayPlan& m_plan;
    ReplaySettings m_settings;

    mutable std::mutex m_mutex;  // everything below; held while sending
    std::condition_variable m_wake;
    bool m_cancelled = false;
    bool m_started = false;
    bool m_ended = false;  // past the last record; no more control
    ReplaySchedule m_schedule{0, 0};
    size_t m_next = 0;
    bool m_loop = false;
    bool m_maxRate = false;
    // A clock setting waiting to go out at this moment (INT64_MIN: none);
    // no record goes out before it.
    int64_t m_clockDueMs = INT64_MIN;
    // When the clients will have handed over everything sent so far.
    int64_t m_clientsIdleMs = INT64_MIN;
    // Per client: the highest block number sent.
    std::map<std::string, unsigned int> m_highestSequence;
    // Created by Run; used by its thread only.
    std::unique_ptr<ReplayPacer> m_pacer;
    ReplayResult m_result;
};

}  // namespace ReplayServer

#endif
