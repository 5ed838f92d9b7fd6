#include "server/ControlSocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ReplayServer {

namespace {

constexpr int kPollMs = 200;
constexpr size_t kMaxCommandLength = 4096;

bool FillAddress(const std::string& path, sockaddr_un& address, std::string& error) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        error = "control socket path too long: " + path;
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return true;
}

bool WriteAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

ControlSocket::ControlSocket(Handler handler) : m_handler(std::move(handler)) {}

ControlSocket::~ControlSocket() {
    Stop();
}

bool ControlSocket::Start(const std::string& path, std::string& error) {
    sockaddr_un address;
    if (!FillAddress(path, address, error)) {
        return false;
    }
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0) {
        error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    unlink(path.c_str());
    // Nobody else may steer the server: the file is private from its creation.
    const mode_t previous = umask(0077);
    const int bound = bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    umask(previous);
    if (bound != 0 || chmod(path.c_str(), 0600) != 0 || listen(m_fd, 8) != 0) {
        error = "cannot listen on " + path + ": " + std::strerror(errno);
        close(m_fd);
        m_fd = -1;
        return false;
    }
    m_path = path;
    m_stop.store(false);
    m_acceptThread = std::thread(&ControlSocket::AcceptLoop, this);
    return true;
}

void ControlSocket::Stop() {
    m_stop.store(true);
    if (m_acceptThread.joinable()) {
        m_acceptThread.join();
    }
    std::list<std::thread> connections;
    {
        std::lock_guard<std::mutex> lock(m_connectionsMutex);
        connections.swap(m_connections);
    }
    for (std::thread& connection : connections) {
        connection.join();
    }
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
        unlink(m_path.c_str());
    }
}

void ControlSocket::AcceptLoop() {
    while (!m_stop.load()) {
        pollfd wait = {m_fd, POLLIN, 0};
        if (poll(&wait, 1, kPollMs) <= 0) {
            continue;
        }
        const int connection = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) {
            continue;
        }
        std::lock_guard<std::mutex> lock(m_connectionsMutex);
        m_connections.emplace_back(&ControlSocket::Serve, this, connection);
    }
}

void ControlSocket::Serve(int connection) {
    std::string line;
    char buffer[512];
    while (line.size() < kMaxCommandLength && line.find('\n') == std::string::npos) {
        pollfd wait = {connection, POLLIN, 0};
        if (m_stop.load() || poll(&wait, 1, kPollMs) < 0) {
            break;
        }
        if ((wait.revents & (POLLIN | POLLHUP)) == 0) {
            continue;
        }
        const ssize_t n = recv(connection, buffer, sizeof buffer, 0);
        if (n <= 0) {
            break;
        }
        line.append(buffer, static_cast<size_t>(n));
    }
    const size_t end = line.find('\n');
    if (end != std::string::npos) {
        line.resize(end);
    }
    if (!line.empty()) {
        WriteAll(connection, m_handler(line));
    }
    close(connection);
}

bool ControlSocket::Send(const std::string& path, const std::string& command, std::string& reply,
                         std::string& error) {
    sockaddr_un address;
    if (!FillAddress(path, address, error)) {
        return false;
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        error = "cannot reach the server at " + path + ": " + std::strerror(errno);
        if (fd >= 0) {
            close(fd);
        }
        return false;
    }
    if (!WriteAll(fd, command + "\n")) {
        error = std::string("cannot send the command: ") + std::strerror(errno);
        close(fd);
        return false;
    }
    reply.clear();
    char buffer[4096];
    for (;;) {
        const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        reply.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return true;
}

}  // namespace ReplayServer
