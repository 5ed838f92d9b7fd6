#ifndef SERVER_REPLAYPACER_H
#define SERVER_REPLAYPACER_H

// When each replayed record goes out, and how many may be on their way to a
// client at once.
//
// A client takes up a record when it is idle or has handed over the one
// before, and waits for the record's moment only when that is more than
// 10 ms ahead; anything closer it hands over at once. So a record whose
// client's previous item comes more than that before it is sent ahead (the
// server lead time), and the client waits for its moment on its own clock;
// a record close behind its client's previous item is sent at its moment,
// when the client is idle and hands it over on arrival.
//
// A client reads one record at a time while the rest wait in its socket,
// which holds only so many: a burst sent at once overflows it. No more than
// a window of records a client has not reported is sent; a client that
// reports nothing for a while (not replaying, or gone) is no longer waited
// for until it reports again.

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "server/ReplayDelivery.h"
#include "server/ReplayPlan.h"

namespace ReplayServer {

struct PacingSettings {
    int serverLeadTimeMs = 100;
    // Records this close behind their client's previous item (or closer)
    // go out at their moment: the client's own threshold, 10 ms, plus
    // margin for a previous item handed over a little late.
    int64_t atMomentWithinMs = 15;
    // How much before its moment such a record goes out. A client that
    // waits for a moment wakes up to a millisecond early (it sleeps a
    // millisecond short on a millisecond clock), half a millisecond on
    // average; sending this much ahead makes a record handed over on
    // arrival (after the trip through the sockets) come about as early.
    int64_t atMomentLeadUs = 700;
    // Records a client may have unreported; each can take a few kilobytes
    // of a client socket's default receive buffer of about 200 kB.
    uint64_t window = 32;
    // How long a full window waits for a report before the client is no
    // longer waited for.
    int stallMs = 1000;
};

class ReplayPacer {
  public:
    ReplayPacer(ReplayDeliveryTracker& deliveries, const PacingSettings& settings);

    // How long before its moment `record` is sent, in microseconds.
    int64_t LeadUs(const PlannedRecord& record) const;
    // Waits until `client` may be sent another record. False when the wait
    // was woken (the replay is cancelled) or gave up on the client.
    bool WaitForRoom(const std::string& client);
    // Waits until every client that has reported at all has reported every
    // record sent to it. False at the deadline or when woken.
    bool WaitForDelivered(std::chrono::steady_clock::time_point deadline);
    // Times a full window gave up on a client.
    uint64_t Stalls() const { return m_stalls; }

  private:
    ReplayDeliveryTracker& m_deliveries;
    PacingSettings m_settings;
    // Clients no longer waited for, with the reports they had then.
    std::map<std::string, uint64_t> m_unpaced;
    uint64_t m_stalls = 0;
};

}  // namespace ReplayServer

#endif
