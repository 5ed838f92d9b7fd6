#ifndef TESTS_SUPPORT_RAWRECORDTEXT_H
#define TESTS_SUPPORT_RAWRECORDTEXT_H

// Raw record text for tests that speak UDP without the library.

#include <string>

namespace ReplayTest {

// `body` followed by its checksum field ("%8x\n" of the signed byte sum);
// with `damage` the checksum is off by one.
std::string WithChecksum(const std::string& body, bool damage = false);

}  // namespace ReplayTest

#endif
