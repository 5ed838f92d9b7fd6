#ifndef SERVER_SOURCEALLOWLIST_H
#define SERVER_SOURCEALLOWLIST_H

// The IPv4 networks from which the server takes datagrams. Empty means any
// source, as on the target's private network. A check costs one masked
// comparison per network.

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <vector>

#include "reference/src/status.h"

namespace ReplayServer {

class SourceAllowList {
  public:
    // Reads a comma-separated list of networks, each "a.b.c.d/prefix" or a
    // single address "a.b.c.d" (prefix 32), e.g. "127.0.0.0/8,10.1.0.0/16".
    // Fails on any bad entry, naming it; the list is then left as it was.
    ReplayPlatform::Status Parse(const std::string& text);

    bool Allows(const in_addr& address) const {
        if (m_networks.empty()) {
            return true;
        }
        for (const Network& network : m_networks) {
            if ((address.s_addr & network.mask) == network.address) {
                return true;
            }
        }
        return false;
    }
    bool AllowsAny() const { return m_networks.empty(); }
    // The networks in the form Parse reads; "any" when empty.
    std::string ToString() const;

  private:
    // Both in network byte order, so a datagram's address is used as it is.
    struct Network {
        uint32_t address;
        uint32_t mask;
    };
    std::vector<Network> m_networks;
};

}  // namespace ReplayServer

#endif
