#ifndef TESTS_SUPPORT_HOSTILETRAFFIC_H
#define TESTS_SUPPORT_HOSTILETRAFFIC_H

// Raw record text for tests that speak to the server or a client over UDP
// without the library: the checksum field, and loopback endpoints.

#include <netinet/in.h>

#include <string>

namespace ReplayTest {

// `body` followed by its checksum field ("%8x\n" of the signed byte sum);
// with `damage` the checksum is off by one.
std::string WithChecksum(const std::string& body, bool damage = false);

// The IPv4 address `dotted`:`port`.
sockaddr_in LoopbackAddress(const std::string& dotted, int port);

}  // namespace ReplayTest

#endif
