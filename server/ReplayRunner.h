#ifndef SERVER_REPLAYRUNNER_H
#define SERVER_REPLAYRUNNER_H

// Sends a replay plan to the recorded clients. Every record goes out at its
// recorded offset from the replay start minus the server lead time, measured
// from one monotonic anchor, so scheduling errors never add up. Each client's
// replay clock is set (key l) so that, with its networking latency added, it
// reads the log time that the anchor's offset stands for.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "server/ReplayPacer.h"
#include "server/ReplayPlan.h"
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
    // Send moments and the window of unreported records; its lead time is
    // serverLeadTimeMs.
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
    size_t initialisationSent = 0;
    size_t stateSent = 0;
    size_t recordsSent = 0;
    size_t sendFailures = 0;
    // How late the sends were against their schedule.
    int64_t maxSendLatenessMs = 0;
    // Times a client's full window was not reported within the pacing's
    // stall time, and the clients whose last records were not reported.
    uint64_t pacingStalls = 0;
    bool deliveredAll = false;
};

class ReplayRunner {
  public:
    ReplayRunner(ReplayServer& server, const ReplayPlan& plan, const ReplaySettings& settings);

    // Runs the whole replay on the calling thread.
    ReplayResult Run();
    // Ends a running replay early (from any thread): the clients are stopped.
    void Cancel();

  private:
    // Sleeps until `when`; false when cancelled.
    bool WaitUntil(std::chrono::steady_clock::time_point when);
    bool WaitForClients(ReplayResult& result);
    void StopClients();

    ReplayServer& m_server;
    const ReplayPlan& m_plan;
    ReplaySettings m_settings;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_cancelled = false;
};

}  // namespace ReplayServer

#endif
