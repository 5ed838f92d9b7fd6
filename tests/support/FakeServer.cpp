#include "tests/support/FakeServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "tests/support/TestSupport.h"

namespace ReplayTest {

FakeServer::FakeServer(bool startReceiving, int port) : m_port(port) {
    for (int attempt = 0; attempt < 200 && m_socket < 0; ++attempt) {
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            return;
        }
        const std::string address = RandomLoopbackAddress();
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, address.c_str(), &local.sin_addr);
        if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0) {
            m_socket = fd;
            m_address = address;
            break;
        }
        const int error = errno;
        close(fd);
        if (error != EADDRINUSE) {
            return;
        }
    }
    if (m_socket >= 0 && pipe2(m_wakePipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        m_wakePipe[0] = m_wakePipe[1] = -1;
    }
    if (startReceiving) {
        Start();
    }
}

FakeServer::~FakeServer() {
    Close();
    for (int& fd : m_wakePipe) {
        if (fd >= 0) {
            close(fd);
            fd = -1;
        }
    }
}

void FakeServer::Start() {
    if (m_socket >= 0 && m_wakePipe[0] >= 0 && !m_thread.joinable()) {
        m_thread = std::thread(&FakeServer::ReceiveLoop, this);
    }
}

void FakeServer::Close() {
    if (m_thread.joinable()) {
        const char wake = 'x';
        (void)!write(m_wakePipe[1], &wake, 1);
        m_thread.join();
    }
    if (m_socket >= 0) {
        close(m_socket);
        m_socket = -1;
    }
}

void FakeServer::ReceiveLoop() {
    // On the heap: 64 KiB of thread-local storage would be reserved in every
    // thread of the test program and leave no room in small thread stacks.
    std::vector<char> storage(65536);
    char* buffer = storage.data();
    pollfd watched[2] = {{m_socket, POLLIN, 0}, {m_wakePipe[0], POLLIN, 0}};
    for (;;) {
        if (poll(watched, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (watched[1].revents != 0) {
            return;
        }
        Datagram datagram;
        socklen_t senderLength = sizeof datagram.sender;
        const ssize_t received =
            recvfrom(m_socket, buffer, storage.size(), MSG_DONTWAIT,
                     reinterpret_cast<sockaddr*>(&datagram.sender), &senderLength);
        if (received < 0) {
            continue;
        }
        datagram.arrival = std::chrono::steady_clock::now();
        datagram.bytes.assign(buffer, static_cast<size_t>(received));
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_datagrams.push_back(std::move(datagram));
        }
        m_arrived.notify_all();
    }
}

std::vector<Datagram> FakeServer::Datagrams() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_datagrams;
}

size_t FakeServer::Count() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_datagrams.size();
}

bool FakeServer::WaitForDatagrams(size_t count, std::chrono::milliseconds deadline) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_arrived.wait_for(lock, deadline, [&] { return m_datagrams.size() >= count; });
}

void FakeServer::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_datagrams.clear();
}

bool FakeServer::SendTo(const sockaddr_in& destination, const std::string& bytes) const {
    if (m_socket < 0) {
        return false;
    }
    const ssize_t sent =
        sendto(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&destination), sizeof destination);
    return sent == static_cast<ssize_t>(bytes.size());
}

}  // namespace ReplayTest
