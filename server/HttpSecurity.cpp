#include "server/HttpSecurity.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "reference/src/file_io.h"

namespace ReplayServer {

namespace {

std::string LowerCase(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

}  // namespace

HttpAccessPolicy::HttpAccessPolicy(std::string token, std::string boundAddress, int port)
    : m_token(std::move(token)),
      m_address(std::move(boundAddress)),
      m_port(port),
      m_loopback(IsLoopbackAddress(m_address)) {}

std::string HttpAccessPolicy::GenerateToken() {
    unsigned char bytes[16];
    const int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return "";
    }
    const bool filled = ReplayPlatform::ReadUpTo(fd, bytes, sizeof bytes) == sizeof bytes;
    ReplayPlatform::CloseDescriptor(fd);
    if (!filled) {
        return "";
    }
    static const char kHex[] = "0123456789abcdef";
    std::string token;
    for (unsigned char byte : bytes) {
        token += kHex[byte >> 4];
        token += kHex[byte & 15];
    }
    return token;
}

ReplayPlatform::Status HttpAccessPolicy::WriteTokenFile(const std::string& path,
                                                        const std::string& token) {
    using ReplayPlatform::Status;
    // A fresh file each start: an old one (perhaps made with a wider mode,
    // or a link placed by someone else) is removed first and never followed.
    if (!ReplayPlatform::RemoveFile(path)) {
        return Status::SystemFailure(path, errno);
    }
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return Status::SystemFailure(path, errno);
    }
    const std::string line = token + "\n";
    const bool written =
        fchmod(fd, 0600) == 0 && ReplayPlatform::WriteAll(fd, line.data(), line.size());
    const int writeError = errno;
    ReplayPlatform::CloseDescriptor(fd);
    return written ? Status::Ok() : Status::SystemFailure(path, writeError);
}

bool HttpAccessPolicy::IsLoopbackAddress(const std::string& address) {
    in_addr parsed{};
    if (inet_pton(AF_INET, address.c_str(), &parsed) == 1) {
        return (ntohl(parsed.s_addr) >> 24) == 127;
    }
    return address == "::1" || address == "localhost";
}

bool HttpAccessPolicy::HostAllowed(const std::string& host) const {
    const std::string port = ":" + std::to_string(m_port);
    const std::string lower = LowerCase(host);
    if (lower == m_address + port) {
        return true;
    }
    return m_loopback && lower == "localhost" + port;
}

bool HttpAccessPolicy::OriginAllowed(const std::string& origin) const {
    if (origin.empty()) {
        return true;
    }
    const std::string scheme = "http://";
    const std::string lower = LowerCase(origin);
    return lower.compare(0, scheme.size(), scheme) == 0 && HostAllowed(lower.substr(scheme.size()));
}

bool HttpAccessPolicy::TokenMatches(const std::string& offered) const {
    if (m_token.empty() || offered.size() != m_token.size()) {
        return false;
    }
    unsigned char difference = 0;
    for (size_t i = 0; i < m_token.size(); ++i) {
        difference |= static_cast<unsigned char>(offered[i] ^ m_token[i]);
    }
    return difference == 0;
}

}  // namespace ReplayServer
