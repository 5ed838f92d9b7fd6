#include "tests/support/RawRecordText.h"

#include <arpa/inet.h>

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

sockaddr_in LoopbackAddress(const std::string& dotted, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, dotted.c_str(), &address.sin_addr);
    return address;
}

}  // namespace ReplayTest
