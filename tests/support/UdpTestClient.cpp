#include "tests/support/UdpTestClient.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/LoopbackAddress.h"

namespace ReplayTest {

UdpTestClient::UdpTestClient(const std::string& ip, int port) {
    m_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in local = ReplaySupport::LoopbackEndpoint(ip, port);
    if (m_fd < 0 || bind(m_fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        if (m_fd >= 0) {
            close(m_fd);
        }
        m_fd = -1;
        return;
    }
    socklen_t length = sizeof local;
    getsockname(m_fd, reinterpret_cast<sockaddr*>(&local), &length);
    m_port = ntohs(local.sin_port);
}

UdpTestClient::~UdpTestClient() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

bool UdpTestClient::Send(const std::string& ip, int port, const std::string& text) const {
    const sockaddr_in to = ReplaySupport::LoopbackEndpoint(ip, port);
    return sendto(m_fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                  sizeof to) == static_cast<ssize_t>(text.size());
}

std::string UdpTestClient::Receive(int timeoutMs) const {
    pollfd waiting{m_fd, POLLIN, 0};
    if (poll(&waiting, 1, timeoutMs) != 1) {
        return "";
    }
    char buffer[4096];
    const ssize_t got = recv(m_fd, buffer, sizeof buffer, 0);
    return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : "";
}

}  // namespace ReplayTest
