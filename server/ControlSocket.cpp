#include "server/ControlSocket.h"

#include <poll.h>
#include <pwd.h>
// The control channel is a local socket of its own, with its peer checks.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>  // geteuid, unlink and close of the socket

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <vector>

#include "libreplay/server/FileLogger.h"

namespace ReplayServer {

namespace {

using ReplayPlatform::Status;

constexpr int kPollMs = 200;
constexpr int kBacklog = 8;
constexpr size_t kMaxCommandLength = 4096;
constexpr size_t kMaxConnections = 16;
constexpr std::chrono::seconds kCommandTimeout(10);

Status FillAddress(const std::string& path, sockaddr_un& address) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return Status::Failure("control socket path too long: " + path);
    }
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return Status::Ok();
}

// "name (uid N)" for messages; the number alone when the user has no name.
std::string DescribeUser(uid_t uid) {
    std::vector<char> buffer(4096);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        return std::string(found->pw_name) + " (uid " + std::to_string(uid) + ")";
    }
    return "uid " + std::to_string(uid);
}

// Only this process's own user and root may be trusted at either end of the
// control socket.
bool Trusted(uid_t uid) {
    return uid == geteuid() || uid == 0;
}

bool PeerCredentials(int connection, ucred& peer) {
    socklen_t length = sizeof peer;
    return getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0;
}

// The user at the other end must be the server's own user or root. The
// file mode already keeps others out; this also holds when the socket file's
// directory or mode has been opened up by hand.
bool PeerMayControl(int connection, std::string& refusal) {
    ucred peer{};
    if (!PeerCredentials(connection, peer)) {
        refusal = "error: permission denied (the caller's credentials are unknown)\n";
        return false;
    }
    if (Trusted(peer.uid)) {
        return true;
    }
    refusal = "error: permission denied: user " + std::to_string(peer.uid) +
              " may not control this server\n";
    ReplayCore::FileLogger::LogToFile(ReplayCore::FileLogger::eSeverityWarning,
                                      "Control socket: refused user %u (pid %d)",
                                      static_cast<unsigned int>(peer.uid), peer.pid);
    return false;
}

// The directory that holds the socket decides who can put a file of their
// own at its path. It must belong to this user or root, and a directory
// that others may write to must be sticky (as /tmp is), so that nobody else
// can remove or replace the socket once it exists. A socket that someone
// else placed first is caught by the ownership checks of Start and Send.
Status DirectoryIsSafe(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string directory =
        slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    struct stat status;
    if (stat(directory.c_str(), &status) != 0) {
        return Status::SystemFailure("cannot examine the directory " + directory, errno);
    }
    if (!S_ISDIR(status.st_mode)) {
        return Status::Failure(directory + " is not a directory");
    }
    if (!Trusted(status.st_uid)) {
        return Status::Failure("the directory " + directory + " of the control socket belongs to " +
                               DescribeUser(status.st_uid) +
                               "; it must belong to this user or root");
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (status.st_mode & S_ISVTX) == 0) {
        return Status::Failure(
            "the directory " + directory +
            " of the control socket may be written by other users and is not sticky");
    }
    return Status::Ok();
}

// Makes room at `path` for the new socket. Only a socket file that nobody
// listens on is removed: a live one belongs to a running server, and any
// other file is not ours to delete.
Status ClearStaleSocket(const std::string& path, const sockaddr_un& address) {
    struct stat existing;
    if (lstat(path.c_str(), &existing) != 0) {
        if (errno == ENOENT) {
            return Status::Ok();
        }
        return Status::SystemFailure("cannot examine " + path, errno);
    }
    if (!S_ISSOCK(existing.st_mode)) {
        return Status::Failure(path + " exists and is not a socket; it is left alone");
    }
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe < 0) {
        return Status::SystemFailure("socket", errno);
    }
    const int connected =
        connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int connectError = errno;
    if (connected == 0) {
        ucred peer{};
        const bool known = PeerCredentials(probe, peer);
        close(probe);
        std::string error = "another server is listening on " + path + " (socket file owned by " +
                            DescribeUser(existing.st_uid);
        if (known) {
            error +=
                "; listening process " + std::to_string(peer.pid) + " of " + DescribeUser(peer.uid);
        }
        error += ")";
        if (!Trusted(existing.st_uid) || (known && !Trusted(peer.uid))) {
            error += ": not this user's; remove it or choose another --control path";
        }
        return Status::Failure(error);
    }
    close(probe);
    if (connectError != ECONNREFUSED) {
        return Status::SystemFailure("cannot examine " + path, connectError);
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        return Status::SystemFailure("cannot remove the stale socket " + path + " (owned by " +
                                         DescribeUser(existing.st_uid) + ")",
                                     errno);
    }
    return Status::Ok();
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

Status ControlSocket::Start(const std::string& path) {
    sockaddr_un address;
    Status ready = FillAddress(path, address);
    if (ready.IsOk()) {
        ready = DirectoryIsSafe(path);
    }
    if (ready.IsOk()) {
        ready = ClearStaleSocket(path, address);
    }
    if (!ready.IsOk()) {
        return ready;
    }
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0) {
        return Status::SystemFailure("socket", errno);
    }
    // Nobody else may steer the server: the file is private from its
    // creation. Linux gives the file the socket's own mode; where that cannot
    // be set, a umask around the bind does it (it is process-wide, so only
    // as the fallback).
    int bound;
    if (fchmod(m_fd, 0600) == 0) {
        bound = bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    } else {
        const mode_t previous = umask(0177);
        bound = bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        umask(previous);
    }
    if (bound != 0 || listen(m_fd, kBacklog) != 0) {
        const Status failed = Status::SystemFailure("cannot listen on " + path, errno);
        if (bound == 0) {
            unlink(path.c_str());
        }
        close(m_fd);
        m_fd = -1;
        return failed;
    }
    m_path = path;
    m_stop.store(false);
    m_acceptThread = std::thread(&ControlSocket::AcceptLoop, this);
    return Status::Ok();
}

void ControlSocket::Stop() {
    m_stop.store(true);
    if (m_acceptThread.joinable()) {
        m_acceptThread.join();
    }
    std::list<Connection> connections;
    {
        std::lock_guard<std::mutex> lock(m_connectionsMutex);
        connections.swap(m_connections);
    }
    for (Connection& connection : connections) {
        connection.thread.join();
    }
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
        unlink(m_path.c_str());
    }
}

void ControlSocket::ReapFinishedConnections() {
    for (auto it = m_connections.begin(); it != m_connections.end();) {
        if (it->finished.load()) {
            it->thread.join();
            it = m_connections.erase(it);
        } else {
            ++it;
        }
    }
}

void ControlSocket::AcceptLoop() {
    while (!m_stop.load()) {
        pollfd wait = {m_fd, POLLIN, 0};
        const int ready = poll(&wait, 1, kPollMs);
        std::lock_guard<std::mutex> lock(m_connectionsMutex);
        // A server driven by scripts sees many short connections: each
        // thread is joined once it has ended rather than kept until Stop.
        ReapFinishedConnections();
        if (ready <= 0) {
            continue;
        }
        const int connection = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) {
            continue;
        }
        if (m_connections.size() >= kMaxConnections) {
            WriteAll(connection, "error: busy; too many control connections\n");
            close(connection);
            continue;
        }
        m_connections.emplace_back();
        Connection& added = m_connections.back();
        added.thread =
            std::thread(&ControlSocket::Serve, this, connection, std::ref(added.finished));
    }
}

void ControlSocket::Serve(int connection, std::atomic<bool>& finished) {
    std::string refusal;
    if (!PeerMayControl(connection, refusal)) {
        WriteAll(connection, refusal);
        close(connection);
        finished.store(true);
        return;
    }
    std::string line;
    char buffer[512];
    // A client that never finishes its line does not hold a thread for long.
    const auto deadline = std::chrono::steady_clock::now() + kCommandTimeout;
    while (line.size() < kMaxCommandLength && line.find('\n') == std::string::npos &&
           std::chrono::steady_clock::now() < deadline) {
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
    finished.store(true);
}

Status ControlSocket::Send(const std::string& path, const std::string& command,
                           std::string& reply) {
    sockaddr_un address;
    Status filled = FillAddress(path, address);
    if (!filled.IsOk()) {
        return filled;
    }
    // connect() would follow a link: only a socket at the path itself is
    // used. Whoever listens is checked below, so the lstat needs no lock.
    struct stat file;
    if (lstat(path.c_str(), &file) == 0 && !S_ISSOCK(file.st_mode)) {
        return Status::Failure(
            path + (S_ISLNK(file.st_mode) ? " is a symbolic link" : " is not a socket") +
            "; it is not followed");
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        const Status unreachable =
            Status::SystemFailure("cannot reach the server at " + path, errno);
        if (fd >= 0) {
            close(fd);
        }
        return unreachable;
    }
    // Anyone could have bound the path before the server started: commands
    // go only to a server run by this user or root, and nothing another
    // user answers is believed.
    ucred peer{};
    const bool known = PeerCredentials(fd, peer);
    if (!known || !Trusted(peer.uid)) {
        close(fd);
        return Status::Failure(
            "refusing to use " + path + ": it is served by " +
            (known ? DescribeUser(peer.uid) + ", process " + std::to_string(peer.pid)
                   : std::string("an unknown user")) +
            ", not by this user or root");
    }
    // The server may answer and close before it reads the command (a
    // refusal, or busy): its reply is still worth reading then.
    const bool sent = WriteAll(fd, command + "\n");
    const int sendError = errno;
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
    if (!sent && reply.empty()) {
        return Status::SystemFailure("cannot send the command", sendError);
    }
    return Status::Ok();
}

}  // namespace ReplayServer
