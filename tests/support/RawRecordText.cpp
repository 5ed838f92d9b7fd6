#include "tests/support/RawRecordText.h"

#include <cstdint>
#include <cstdio>

namespace ReplayTest {

std::string WithChecksum(const std::string& body, bool damage) {
    uint32_t sum = 0;
    for (const char byte : body) {
        sum += static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(byte)));
    }
    if (damage) {
        ++sum;
    }
    char field[16];
    std::snprintf(field, sizeof field, "%8x\n", sum);
    return body + field;
}

}  // namespace ReplayTest
