#ifndef TESTS_REPLAYMANAGER_SERVERTESTSUPPORT_H
#define TESTS_REPLAYMANAGER_SERVERTESTSUPPORT_H

// Helpers shared by the server-side tests: a clock the test sets by hand and
// IPv4 loopback addresses.

#include <arpa/inet.h>
#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>

#include "libreplay/ReplayCore.h"

namespace ServerTest {

// Replaces the library clock for its lifetime; the time moves only when the
// test sets it.
class ManualClock {
  public:
    explicit ManualClock(int64_t startMs) {
        Now().store(startMs);
        ReplayCore::SetClockSourceForTesting(&Read);
    }
    ~ManualClock() { ReplayCore::SetClockSourceForTesting(nullptr); }
    ManualClock(const ManualClock&) = delete;
    ManualClock& operator=(const ManualClock&) = delete;

    void Set(int64_t ms) { Now().store(ms); }
    void Advance(int64_t ms) { Now().fetch_add(ms); }
    int64_t Get() const { return Now().load(); }

  private:
    static std::atomic<int64_t>& Now() {
        static std::atomic<int64_t> now{0};
        return now;
    }
    static int64_t Read() { return Now().load(); }
};

inline sockaddr_in Address(const std::string& ip, int port) {
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
    return address;
}

}  // namespace ServerTest

#endif
