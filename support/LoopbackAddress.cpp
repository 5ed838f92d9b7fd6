#include "support/LoopbackAddress.h"

#include <arpa/inet.h>

#include <cstdint>
#include <random>

namespace ReplaySupport {

std::string RandomLoopbackAddress(int hostBase, int hosts) {
    static thread_local std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> octet(1, 254);
    const int host = std::uniform_int_distribution<int>(hostBase, 254 - hosts)(random);
    return "127." + std::to_string(octet(random)) + "." + std::to_string(octet(random)) + "." +
           std::to_string(host);
}

sockaddr_in LoopbackEndpoint(const std::string& dotted, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, dotted.c_str(), &address.sin_addr);
    return address;
}

}  // namespace ReplaySupport
