#include "server/SourceAllowList.h"

#include <arpa/inet.h>

namespace ReplayServer {

namespace {

std::string Trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return "";
    }
    const size_t last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

// A prefix length of 0 to 32 written in decimal digits only; -1 otherwise.
int PrefixLength(const std::string& text) {
    if (text.empty() || text.size() > 2) {
        return -1;
    }
    int value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return -1;
        }
        value = value * 10 + (c - '0');
    }
    return value <= 32 ? value : -1;
}

}  // namespace

ReplayPlatform::Status SourceAllowList::Parse(const std::string& text) {
    std::vector<Network> networks;
    size_t start = 0;
    for (;;) {
        const size_t comma = text.find(',', start);
        const std::string entry = Trimmed(
            text.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        if (entry.empty()) {
            return ReplayPlatform::Status::Failure("empty network in '" + text + "'");
        }
        const size_t slash = entry.find('/');
        const std::string host = entry.substr(0, slash);
        const int prefix = slash == std::string::npos ? 32 : PrefixLength(entry.substr(slash + 1));
        in_addr address;
        if (prefix < 0 || inet_pton(AF_INET, host.c_str(), &address) != 1) {
            return ReplayPlatform::Status::Failure(
                "'" + entry + "' is not an IPv4 network (a.b.c.d/prefix, prefix 0 to 32)");
        }
        // Shifting a 32-bit value by 32 is undefined: prefix 0 is handled apart.
        const uint32_t hostMask = prefix == 0 ? 0 : ~uint32_t{0} << (32 - prefix);
        const uint32_t mask = htonl(hostMask);
        if ((address.s_addr & ~mask) != 0) {
            // 10.1.2.3/16 is more likely a typing slip than a wish for 10.1/16.
            return ReplayPlatform::Status::Failure("'" + entry +
                                                   "' has bits set beyond its prefix");
        }
        networks.push_back(Network{address.s_addr, mask});
        if (comma == std::string::npos) {
            break;
        }
        start = comma + 1;
    }
    m_networks.swap(networks);
    return ReplayPlatform::Status::Ok();
}

std::string SourceAllowList::ToString() const {
    if (m_networks.empty()) {
        return "any";
    }
    std::string text;
    for (const Network& network : m_networks) {
        char address[INET_ADDRSTRLEN] = {0};
        in_addr value;
        value.s_addr = network.address;
        inet_ntop(AF_INET, &value, address, sizeof address);
        int prefix = 0;
        for (uint32_t mask = ntohl(network.mask); mask != 0; mask <<= 1) {
            ++prefix;
        }
        text += (text.empty() ? "" : ",") + std::string(address) + "/" + std::to_string(prefix);
    }
    return text;
}

}  // namespace ReplayServer
