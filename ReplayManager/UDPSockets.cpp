#include "libreplay/UDPSockets.h"

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

#include "libreplay/FileLogger.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/ReplayDebug.h"
#include "libreplay/ReplayError.h"
#include "libreplay/ReplayRuntimeOptions.h"

namespace {

const char* const kSourceFile = "ReplayManager/UDPSockets";

// Source lines under which failures of this file are recorded.
constexpr int kLineSocketAssertion = 185;
constexpr int kLineSocketFailed = 186;
constexpr int kLineAddressFailed = 198;
constexpr int kLineConnectFailed = 209;
constexpr int kLineSendAssertion = 241;
constexpr int kLineSendFailed = 254;

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

UDPSocket::~UDPSocket() {
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Destroying UDPSocket %d\n", DebugAppName(),
                   "libReplay::UDPSocket::dtor", m_socket);
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
    if (m_socket == INVALID_SOCKET) {
        return 0;
    }
    const int result = closeSocket(m_socket);
    m_socket = INVALID_SOCKET;
    return result;
}

int UDPSocket::Receive(void* buffer, unsigned int length) {
    return static_cast<int>(::recv(m_socket, buffer, length, 0));
}

int UDPSocket::Listen(timeval* timeout) {
    if (m_socket == INVALID_SOCKET) {
        return -1;
    }
    if (m_socket < FD_SETSIZE) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(m_socket, &readSet);
        return ::select(m_socket + 1, &readSet, nullptr, nullptr, timeout);
    }
    // A host application with many open files can hand us a descriptor that
    // an fd_set cannot hold; poll answers the same question for it.
    pollfd entry{m_socket, POLLIN, 0};
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
        ReplayCore::FileLogger::LogAssertion(kLineSocketAssertion, kSourceFile,
                                             "INVALID_SOCKET != newSocket");
        errno = error;
        LogSocketError(kLineSocketFailed, nullptr);
        errno = error;
        return -1;
    }
    if (DebugOutputAttached()) {
        dbgWarning("%s::%s: Constructing Synchronous Client Socket\n", DebugAppName(), kTag);
    }
    m_socket = newSocket;

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
    if (::connect(m_socket, addresses->ai_addr, addresses->ai_addrlen) != 0) {
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
                   portText, shownName, m_socket);
    }
    return m_socket;
}

int UDPSocketClient::Send(const void* data, unsigned int length) {
    static const char* const kTag = "libReplay::UDPSocketClient::Send";
    if (m_socket < 1) {
        ReplayCore::FileLogger::LogAssertion(kLineSendAssertion, kSourceFile, "m_socket > 0");
        if (m_socket < 0) {
            if (DebugOutputAttached()) {
                dbgError("%s::%s: m_socket=%d\n", DebugAppName(), kTag, m_socket);
            }
            return -1;
        }
    }
    // MSG_NOSIGNAL: a failed send must never raise SIGPIPE in the host.
    const int sent = static_cast<int>(::send(m_socket, data, length, MSG_NOSIGNAL));
    if (sent < 0) {
        const int error = errno;
        char text[kErrorTextSize];
        std::snprintf(text, sizeof text, "Send Failed to Server %s; socket=%d; nbytes=%d; Error=%s",
                      m_serverName.c_str(), m_socket, static_cast<int>(length),
                      std::strerror(error));
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
    if (m_socket <= 0) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Invalid Socket\n", DebugAppName(), kTag);
        }
        return -1;
    }
    const int received = static_cast<int>(::recv(m_socket, buffer, length, 0));
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
