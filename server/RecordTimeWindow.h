#ifndef SERVER_RECORDTIMEWINDOW_H
#define SERVER_RECORDTIMEWINDOW_H

// Keeps each client's data records near that client's own clock. Clients on
// different machines run clocks of their own, so a record's time is compared
// with where that client's clock should stand now: the offset between its
// first record and the server's clock, carried forward on the server's
// clock (monotonic clocks drift apart by seconds a day at most). A record further than the window
// from there (a forged record stamped an hour ahead, say) would stretch the log and make a replay
// wait for it; it is refused and counted instead.

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace ReplayServer {

class RecordTimeWindow {
  public:
    // `windowMs` 0 accepts every record.
    explicit RecordTimeWindow(int64_t windowMs) : m_windowMs(windowMs) {}

    // True when client `name`'s record stamped `recordTimeMs` and arriving at
    // the server's `serverNowMs` lies within the window; the first record of
    // a name sets where that client's clock stands.
    bool Accept(const std::string& name, int64_t recordTimeMs, int64_t serverNowMs);

    uint64_t Refused() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_refused;
    }

    // Names remembered at most; past it the longest unseen name is forgotten,
    // so that a flood of made-up names cannot grow the table.
    static constexpr size_t kMaximumNames = 1024;

  private:
    struct ClientClock {
        int64_t offsetMs;  // client's record time minus the server's clock
        int64_t lastSeenMs;
    };

    const int64_t m_windowMs;
    mutable std::mutex m_mutex;
    std::map<std::string, ClientClock> m_clocks;
    uint64_t m_refused = 0;
};

}  // namespace ReplayServer

#endif
