#ifndef TESTS_SERVER_LOOPBACKSERVER_H
#define TESTS_SERVER_LOOPBACKSERVER_H

// A replay server on port 4400 of a loopback address of its own (so tests
// running side by side never share an endpoint), and fake clients: UDP
// sockets that register with it and record what it sends them.

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <random>
#include <string>

#include "server/ReplayServer.h"
#include "tests/ReplayManager/ServerTestSupport.h"
#include "tests/support/FakeServer.h"

namespace ServerTest {

inline std::unique_ptr<ReplayServer::ReplayServer> StartLoopbackServer(
    ReplayServer::ServerSettings settings, std::string& ip) {
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> part(1, 254);
    for (int attempt = 0; attempt < 50; ++attempt) {
        ip = "127." + std::to_string(part(random)) + "." + std::to_string(part(random)) + "." +
             std::to_string(part(random));
        settings.bindAddress = ip;
        settings.port = 4400;
        std::unique_ptr<ReplayServer::ReplayServer> server(
            new ReplayServer::ReplayServer(settings));
        if (server->Start().IsOk()) {
            return server;
        }
    }
    return nullptr;
}

// A client process as the server sees it: a socket on a loopback address and
// ephemeral port of its own.
class FakeClient {
  public:
    explicit FakeClient(const std::string& serverIp) : m_server(Address(serverIp, 4400)) {}

    // Announces `name` and waits for the server's answer (its slot), which is
    // then forgotten; false when none came.
    bool Register(const std::string& name) {
        Send(StatusRecord(name, 1000, ""));
        const bool answered = m_socket.WaitForDatagrams(1, std::chrono::seconds(10));
        m_socket.Clear();
        return answered;
    }
    bool Send(const std::string& bytes) const { return m_socket.SendTo(m_server, bytes); }
    std::vector<ReplayTest::Datagram> Received() const { return m_socket.Datagrams(); }
    bool WaitFor(size_t count, std::chrono::milliseconds deadline) const {
        return m_socket.WaitForDatagrams(count, deadline);
    }
    const std::string& Ip() const { return m_socket.Address(); }

  private:
    sockaddr_in m_server;
    ReplayTest::FakeServer m_socket{true, 0};
};

// A bare UDP socket on a chosen loopback address and port (0: any free one).
class UdpPeer {
  public:
    UdpPeer(const std::string& ip, int port) {
        m_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in local = Address(ip, port);
        m_bound = bind(m_fd, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
    }
    ~UdpPeer() { close(m_fd); }
    UdpPeer(const UdpPeer&) = delete;
    UdpPeer& operator=(const UdpPeer&) = delete;

    bool Bound() const { return m_bound; }
    int Port() const {
        sockaddr_in local{};
        socklen_t length = sizeof local;
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&local), &length);
        return ntohs(local.sin_port);
    }
    void Send(const std::string& ip, const std::string& text) const {
        const sockaddr_in to = Address(ip, 4400);
        sendto(m_fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to),
               sizeof to);
    }
    // The next datagram, or "" after `timeoutMs`.
    std::string Receive(int timeoutMs = 5000) const {
        pollfd waiting{m_fd, POLLIN, 0};
        if (poll(&waiting, 1, timeoutMs) != 1) {
            return "";
        }
        char buffer[4096];
        const ssize_t got = recv(m_fd, buffer, sizeof buffer, 0);
        return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : "";
    }

  private:
    int m_fd = -1;
    bool m_bound = false;
};

}  // namespace ServerTest

#endif
