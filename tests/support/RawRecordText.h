#ifndef TESTS_SUPPORT_RAWRECORDTEXT_H
#define TESTS_SUPPORT_RAWRECORDTEXT_H

// Raw record text for tests that speak UDP without the library.

#include <netinet/in.h>

#include <string>

namespace ReplayTest {

// `body` followed by its checksum field ("%8x\n" of the signed byte sum);
// with `damage` the checksum is off by one.
std::string WithChecksum(const std::string& body, bool damage = false);

sockaddr_in LoopbackAddress(const std::string& dotted, int port);

}  // namespace ReplayTest

#endif
