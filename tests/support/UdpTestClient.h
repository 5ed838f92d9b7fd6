#ifndef TESTS_SUPPORT_UDPTESTCLIENT_H
#define TESTS_SUPPORT_UDPTESTCLIENT_H

// A plain UDP socket standing in for a replay client in server tests.

#include <string>

#include "tests/support/TestSupport.h"

namespace ReplayTest {

class UdpTestClient {
  public:
    // Binds `ip`:`port` (port 0: any free one).
    explicit UdpTestClient(const std::string& ip = "127.0.0.1", int port = 0);
    ~UdpTestClient();
    UdpTestClient(const UdpTestClient&) = delete;
    UdpTestClient& operator=(const UdpTestClient&) = delete;

    bool Bound() const { return m_fd >= 0; }
    int Port() const { return m_port; }
    bool Send(const std::string& ip, int port, const std::string& text) const;
    // The next datagram, or "" when none comes within the deadline.
    std::string Receive(int timeoutMs = 10000) const;

  private:
    int m_fd = -1;
    int m_port = 0;
};

}  // namespace ReplayTest

#endif
