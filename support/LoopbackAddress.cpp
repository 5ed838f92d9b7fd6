#include "support/LoopbackAddress.h"

#include <random>

namespace ReplaySupport {

std::string RandomLoopbackAddress(int hostBase, int hosts) {
    static thread_local std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> octet(1, 254);
    const int host = std::uniform_int_distribution<int>(hostBase, 254 - hosts)(random);
    return "127." + std::to_string(octet(random)) + "." + std::to_string(octet(random)) + "." +
           std::to_string(host);
}

}  // namespace ReplaySupport
