#include "tests/support/FakeServer.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "support/LoopbackAddress.h"
#include "tests/support/RawRecordText.h"
#include "tests/support/TestSupport.h"

namespace ReplayTest {

FakeServer::FakeServer(bool startReceiving, int port) {
    for (int attempt = 0; attempt < 200 && m_socket < 0; ++attempt) {
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            return;
        }
        const std::string address = RandomLoopbackAddress();
        const sockaddr_in local = ReplaySupport::LoopbackEndpoint(address, port);
        if (bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0) {
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
    if (startReceiving) {
        Start();
    }
}

FakeServer::~FakeServer() {
    m_stopping.store(true);
    if (m_thread.joinable()) {
        m_thread.join();
    }
    if (m_socket >= 0) {
        close(m_socket);
    }
}

void FakeServer::Start() {
    if (m_socket >= 0 && !m_thread.joinable()) {
        // How soon the receive loop notices the destructor.
        const timeval wake{0, 20000};
        setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &wake, sizeof wake);
        m_thread = std::thread(&FakeServer::ReceiveLoop, this);
    }
}

void FakeServer::ReceiveLoop() {
    // On the heap: 64 KiB of thread-local storage would be reserved in every
    // thread of the test program and leave no room in small thread stacks.
    std::vector<char> buffer(65536);
    while (!m_stopping.load()) {
        Datagram datagram;
        socklen_t senderLength = sizeof datagram.sender;
        const ssize_t received =
            recvfrom(m_socket, buffer.data(), buffer.size(), 0,
                     reinterpret_cast<sockaddr*>(&datagram.sender), &senderLength);
        if (received < 0) {
            continue;
        }
        datagram.arrival = std::chrono::steady_clock::now();
        datagram.bytes.assign(buffer.data(), static_cast<size_t>(received));
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
