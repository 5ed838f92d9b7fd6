#ifndef SERVER_REPLAYPACER_H
#define SERVER_REPLAYPACER_H

// When each replayed record goes out, and how many may be on their way to a
// client at once.
//
// A client waits for a record's moment on its own clock only when that is
// more than 10 ms ahead, and hands anything closer over at once. Every
// record goes out at its moment, so the client hands it over on arrival and
// all items are timed by the one schedule here. (Records sent ahead, to be
// waited for on the client's clock, came out up to several milliseconds
// off wherever they met records timed here: the two clocks agree only as
// well as the clock setting's trip allows.)
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
    // How long before its moment a record goes out: about the trip through
    // the sockets to the client's callback.
    int64_t sendAheadUs = 700;
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
