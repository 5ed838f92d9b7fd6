#include "libreplay/server/UDPSockets.h"

#include <netdb.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "libreplay/server/FileLogger.h"
#include "ReplayManager/MemoryBuffer.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/server/ReplayDebug.h"
#include "libreplay/server/ReplayError.h"
#include "libreplay/server/ReplayRuntimeOptions.h"
#include "ReplayManager/SocketOptions.h"

namespace {

const char* const kSourceFile = "ReplayManager/UDPSockets";

// Source lines under which failures of this file are recorded.
constexpr int kLineSocketFailed = 186;
constexpr int kLineAddressFailed = 198;
constexpr int kLineConnectFailed = 209;
constexpr int kLineSendAssertion = 241;
constexpr int kLineSendFailed = 254;
constexpr int kLineBufferAssertion = 309;
constexpr int kLineOutOfMemory = 323;

// The largest datagram io_handler takes.
constexpr unsigned int kReceiveLimit = 65535;

constexpr size_t kErrorTextSize = 128;

void LogSocketError(int line, const char* text) {
    ReplayErrorManager::Get().LogError(
        ReplayError(line, kSourceFile, text, ReplayError::eErrorSevere));
}

// The address lists of successful look-ups are never released (one per
// connection attempt); they are kept here so that they stay reachable.
void KeepAddressList(addrinfo* list) {
    static std::mutex* const lock = new std::mutex;
    static std::vector<addrinfo*>* const kept = new std::vector<addrinfo*>;
    std::lock_guard<std::mutex> guard(*lock);
    kept->push_back(list);
}

}  // namespace

namespace ReplaySockets {

int EnlargeReceiveBuffer(int socket, int wanted) {
    // Linux caps SO_RCVBUF at rmem_max; SO_RCVBUFFORCE passes the cap when
    // the process may, so it is tried first.
    if (setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &wanted, sizeof wanted) != 0) {
        (void)setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof wanted);
    }
    int inForce = 0;
    socklen_t size = sizeof inForce;
    if (getsockopt(socket, SOL_SOCKET, SO_RCVBUF, &inForce, &size) != 0) {
        return 0;
    }
    return inForce;
}

void StopReceiving(int socket) {
    (void)::shutdown(socket, SHUT_RD);
}

}  // namespace ReplaySockets

UDPSocket::~UDPSocket() {
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Destroying UDPSocket %d\n", DebugAppName(),
                   "libReplay::UDPSocket::dtor", Socket());
    }
    close();
}

int UDPSocket::makeSocket(int domain, int type, int protocol) {
    return ::socket(domain, type | SOCK_CLOEXEC, protocol);
}

int UDPSocket::closeSocket(int fd) {
    if (DebugOutputAttached()) {
        dbgWarning("%s::%s: Closing Socket %d\n", DebugAppName(),
                   "libReplay::UDPSocket::CloseSocket", fd);
    }
    return ::close(fd);
}

int UDPSocket::close() {
    const int fd = m_socket.exchange(INVALID_SOCKET, std::memory_order_relaxed);
    if (fd == INVALID_SOCKET) {
        return 0;
    }
    return closeSocket(fd);
}

int UDPSocket::Receive(void* buffer, unsigned int length) {
    return static_cast<int>(::recv(Socket(), buffer, length, 0));
}

int UDPSocket::Listen(timeval* timeout) {
    const int fd = Socket();
    if (fd == INVALID_SOCKET) {
        return -1;
    }
    if (fd < FD_SETSIZE) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(fd, &readSet);
        return ::select(fd + 1, &readSet, nullptr, nullptr, timeout);
    }
    // A host application with many open files can hand us a descriptor that
    // an fd_set cannot hold; poll answers the same question for it.
    pollfd entry{fd, POLLIN, 0};
    const int milliseconds =
        timeout == nullptr
            ? -1
            : static_cast<int>(timeout->tv_sec * 1000 + (timeout->tv_usec + 999) / 1000);
    return ::poll(&entry, 1, milliseconds);
}

std::atomic<UDPSocketClient::MessageReceivedHandler> UDPSocketClient::m_messageRecievedHandler{
    nullptr};

UDPSocketClient& UDPSocketClient::Get() {
    static UDPSocketClient client(nullptr);
    return client;
}

UDPSocketClient::UDPSocketClient(const char* /*unused*/)
    : m_serverName(ReplayCore::SpecialStrings::kLocalHost) {}

void UDPSocketClient::SetServerName(const char* name) {
    if (name == nullptr) {
        return;
    }
    m_serverName = name;
    m_isLocalHost = m_serverName == ReplayCore::SpecialStrings::kLocalHost ? 1 : 0;
}

int UDPSocketClient::Open(const char* serverName, int port) {
    static const char* const kTag = "libReplay::UDPSocketClient::Open";
    // A socket left from an earlier connection would leak when replaced.
    close();
    m_addressFamily = AF_INET;

    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    if (serverName == nullptr) {
        hints.ai_flags = AI_PASSIVE;
    }

    if (serverName != nullptr) {
        SetServerName(serverName);
        if (!IsLocalHost()) {
            // A remote server is reachable only once the vehicle's network
            // has come up; until then the caller retries later.
            const int64_t now = ReplayCore::MSTime::CurrentTimeMS().m_timeMilliseconds;
            const int64_t wait = static_cast<int64_t>(ReplayRuntimeOptions::Get().GetIntegerValue(
                                     eExternalConnectWait)) *
                                 1000;
            if (now < wait) {
                if (DebugOutputAttached()) {
                    dbgWarning("%s::%s: Waiting for External Connection\n", DebugAppName(), kTag);
                }
                return -1;
            }
        }
    }

    const int newSocket = makeSocket(AF_INET, SOCK_DGRAM, 0);
    if (newSocket == INVALID_SOCKET) {
        const int error = errno;
        // No fixed line is known for this assertion: it names where it stands.
        ReplayCore::FileLogger::LogAssertion(__LINE__, kSourceFile, "INVALID_SOCKET != newSocket");
        errno = error;
        LogSocketError(kLineSocketFailed, nullptr);
        errno = error;
        return -1;
    }
    if (DebugOutputAttached()) {
        dbgWarning("%s::%s: Constructing Synchronous Client Socket\n", DebugAppName(), kTag);
    }
    m_socket.store(newSocket, std::memory_order_relaxed);

    char portText[16];
    std::snprintf(portText, sizeof portText, "%d", port);
    const char* const shownName = serverName != nullptr ? serverName : "(any)";
    if (DebugOutputAttached()) {
        dbgWarning("%s::%s: Connecting to Port %s on Server %s\n", DebugAppName(), kTag, portText,
                   shownName);
    }

    addrinfo* addresses = nullptr;
    const int lookup = ::getaddrinfo(serverName, portText, &hints, &addresses);
    if (lookup != 0) {
        const int error = errno;
        char text[kErrorTextSize];
        std::snprintf(text, sizeof text, "getaddrinfo error %s", ::gai_strerror(lookup));
        LogSocketError(kLineAddressFailed, text);
        if (DebugOutputAttached()) {
            dbgError("%s::%s: %s\n", DebugAppName(), kTag, text);
        }
        close();
        errno = error;
        return -1;
    }
    KeepAddressList(addresses);

    // Only the first address is tried. A UDP connect only fixes the peer; it
    // does not reach the server.
    if (::connect(newSocket, addresses->ai_addr, addresses->ai_addrlen) != 0) {
        const int error = errno;
        char text[kErrorTextSize];
        std::snprintf(text, sizeof text, "Failed to Connect to Server %s", shownName);
        LogSocketError(kLineConnectFailed, text);
        if (DebugOutputAttached()) {
            dbgError("%s::%s: %s\n", DebugAppName(), kTag, text);
        }
        close();
        errno = error;
        return -1;
    }
    if (DebugOutputAttached()) {
        dbgWarning("%s::%s: Connected to Port %s on Server %s; socket = %d\n", DebugAppName(), kTag,
                   portText, shownName, newSocket);
    }
    return newSocket;
}

int UDPSocketClient::Send(const void* data, unsigned int length) {
    static const char* const kTag = "libReplay::UDPSocketClient::Send";
    const int fd = Socket();
    if (fd < 1) {
        ReplayCore::FileLogger::LogAssertion(kLineSendAssertion, kSourceFile, "m_socket > 0");
        if (fd < 0) {
            if (DebugOutputAttached()) {
                dbgError("%s::%s: m_socket=%d\n", DebugAppName(), kTag, fd);
            }
            return -1;
        }
    }
    // MSG_NOSIGNAL: a failed send must never raise SIGPIPE in the host.
    const int sent = static_cast<int>(::send(fd, data, length, MSG_NOSIGNAL));
    if (sent < 0) {
        const int error = errno;
        char text[kErrorTextSize];
        std::snprintf(text, sizeof text, "Send Failed to Server %s; socket=%d; nbytes=%d; Error=%s",
                      m_serverName.c_str(), fd, static_cast<int>(length), std::strerror(error));
        LogSocketError(kLineSendFailed, text);
        if (DebugOutputAttached()) {
            dbgError("%s::%s: %s\n", DebugAppName(), kTag, text);
        }
        errno = error;
    }
    return sent;
}

int UDPSocketClient::Read(void* buffer, unsigned int length) {
    static const char* const kTag = "libReplay::UDPSocketClient::Read";
    const int fd = Socket();
    if (fd <= 0) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Invalid Socket\n", DebugAppName(), kTag);
        }
        return -1;
    }
    const int received = static_cast<int>(::recv(fd, buffer, length, 0));
    if (received <= 0) {
        const int error = errno;
        if (DebugOutputAttached()) {
            dbgError("%s::%s: %d Bytes Returned by recvfrom; Error=%s\n", DebugAppName(), kTag,
                     received, std::strerror(error));
        }
        errno = error;
    }
    return received;
}

void UDPSocketClient::io_handler(int /*unused*/) {
    // Shared by every notification: only one may be handled at a time.
    static ReplayCore::MemoryBuffer buffer("UDPSocketClient::io_handler", 0, kReceiveLimit);
    const int fd = Get().Socket();
    const MessageReceivedHandler handler = m_messageRecievedHandler.load(std::memory_order_relaxed);

    int waiting = 0;
    if (::ioctl(fd, FIONREAD, &waiting) != 0) {
        waiting = 0;
    }
    if (waiting == 0) {
        if (handler != nullptr) {
            handler(nullptr, 0);
        }
        return;
    }
    if (buffer.ExpandBuffer(static_cast<unsigned int>(waiting), true) == nullptr) {
        char text[kErrorTextSize];
        std::snprintf(text, sizeof text,
                      "Error: UDPSocketClient::io_handler: Out of Memory; bytes needed=%d",
                      waiting);
        LogSocketError(kLineOutOfMemory, text);
        errno = ENOMEM;
        if (handler != nullptr) {
            handler(nullptr, -1);
        }
        return;
    }
    const unsigned int bufferSize = buffer.Capacity();
    if (bufferSize == 0) {
        ReplayCore::FileLogger::LogAssertion(kLineBufferAssertion, kSourceFile, "bufferSize > 0");
    }
    // The whole buffer is offered, not just the waiting count.
    sockaddr sender;
    socklen_t senderLength = sizeof sender;
    const int received =
        static_cast<int>(::recvfrom(fd, buffer.Get(), bufferSize, 0, &sender, &senderLength));
    if (handler != nullptr) {
        handler(buffer.Get(), received);
    }
}
