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
// text, so a report is only counted while a record is outstanding: a ping
// that arrives while a client holds a record back until its moment counts
// that record one report early.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace ReplayServer {

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
};

class ReplayDeliveryTracker {
  public:
    // Forgets every client (a new replay starts).
    void Reset();
    void NoteSent(const std::string& client);
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
    // Waits until every client has reported every record sent to it so far.
    bool WaitForAllReported(std::chrono::steady_clock::time_point deadline);
    // Ends every wait in progress (a cancelled replay).
    void Wake();

  private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<std::string, ClientDelivery> m_clients;
    uint64_t m_wakeGeneration = 0;
};

}  // namespace ReplayServer

#endif
