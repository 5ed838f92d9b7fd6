#ifndef TESTS_SUPPORT_HOSTILETRAFFIC_H
#define TESTS_SUPPORT_HOSTILETRAFFIC_H

// Hostile datagrams for robustness tests of the server and of a recording
// client: random bytes, truncated and oversized datagrams, records with wrong
// checksums or invalid names, and commands with absurd arguments. Generated
// from a seed, so that a failing run can be repeated.

#include <netinet/in.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace ReplayTest {

// `body` followed by its checksum field ("%8x\n" of the signed byte sum);
// with `damage` the checksum is off by one.
std::string WithChecksum(const std::string& body, bool damage = false);

class HostileMix {
  public:
    explicit HostileMix(uint32_t seed) : m_random(seed) {}

    // A datagram for the server. Valid records name clients "f<n>" with n
    // below `distinctNames`, so the flood offers that many would-be clients.
    std::string ForServer(unsigned int distinctNames);
    // A datagram from a "server" to a client. Never a quit command: that one
    // legitimately ends a client for good.
    std::string ForClient();

    // A data record of `name` with a valid checksum, random payload bytes
    // (line ends, NULs and item separators among them) and a random time.
    std::string DataRecord(const std::string& name);

    // A bare connect (status) record of `name`, checksum valid.
    static std::string ConnectRecord(const std::string& name);

  private:
    std::string DataRecordBody(const std::string& name);
    std::string RandomBytes(size_t length);
    std::string AbsurdCommand();
    size_t Below(size_t bound) {
        return std::uniform_int_distribution<size_t>(0, bound - 1)(m_random);
    }

    std::mt19937 m_random;
};

// Sends `datagrams` to `destination` round robin over `sourcePorts` distinct
// UDP sockets, opened and closed in groups so that few descriptors are held
// at once. Returns how many were sent whole.
size_t SendFromManyPorts(const sockaddr_in& destination, const std::vector<std::string>& datagrams,
                         size_t sourcePorts);

// The IPv4 address `dotted`:`port`.
sockaddr_in LoopbackAddress(const std::string& dotted, int port);

}  // namespace ReplayTest

#endif
