#include "libreplay/server/UDPSocketServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
// The server side of the UDP socket: binds, receives and sends itself.
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "libreplay/server/FileLogger.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/server/ReplayDebug.h"
#include "ReplayManager/UDPServerReadThread.h"

using ReplayCore::FileLogger;

namespace {

// The server socket's errors and assertions are located in the socket
// source, like those of the client socket.
const char* const kSocketSourceLocation = "ReplayManager/UDPSockets";
constexpr size_t kTextLimit = 128;
constexpr size_t kShortTextLimit = 64;
// The receive buffer may grow to this, though datagrams are cut at 2048.
constexpr unsigned int kReceiveBufferLimit = 65535;
// Stack asked for the read thread; below the platform minimum the system
// default is used instead.
constexpr int kReadThreadStackSize = 8192;
constexpr int kReadThreadPriority = 10;

ReplayError LogSevere(const char* text) {
    return ReplayErrorManager::Get().LogError(ReplayError(text, -1, ReplayError::eErrorSevere));
}

ReplayError LogErrno(int line) {
    return ReplayErrorManager::Get().LogError(
        ReplayError(line, kSocketSourceLocation, nullptr, ReplayError::eErrorSevere));
}

std::string DottedAddress(const sockaddr_in& address) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return text;
}

}  // namespace

std::atomic<int> UDPServerReadThread::m_clientDataLocked{0};

UDPServerReadThread::UDPServerReadThread()
    : CThread(kReadThreadStackSize, kReadThreadPriority, nullptr),
      m_receiveBuffer("UDPSocketServer::io_handler", 0, kReceiveBufferLimit) {}

UDPServerReadThread::~UDPServerReadThread() {
    Stop();
}

void UDPServerReadThread::Stop() {
    m_stopRequested.store(true, std::memory_order_release);
    UDPSocketServer* server = m_server.load(std::memory_order_acquire);
    if (server != nullptr && server->Socket() >= 0) {
        // Shutting the receive side wakes a select in progress at once, even
        // on an unconnected datagram socket; without it the loop would notice
        // the request only at its next 5 s time-out.
        shutdown(server->Socket(), SHUT_RD);
    }
    join();
}

int UDPServerReadThread::ReadClientMessage(sockaddr* from, void* buffer, unsigned int size) {
    static const char* const kTag = "libReplay::UDPServerReadThread::ReadClientMessage";
    UDPSocketServer* server = m_server.load(std::memory_order_acquire);
    if (server == nullptr) {
        char text[kShortTextLimit];
        std::snprintf(text, sizeof text, "UDPServerReadThread::Socket Server Not Valid");
        LogSevere(text);
        FileLogger::LogToFile(FileLogger::eSeverityError, "%s", text);
        return -1;
    }
    const int socket = server->Socket();
    if (socket < 1) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Invalid Socket\n", DebugAppName(), kTag);
        }
        ReplayErrorManager::Get().LogError(
            ReplayError(484, kSocketSourceLocation, "Invalid Socket", ReplayError::eErrorSevere));
        FileLogger::LogToFile(FileLogger::eSeverityError, "Invalid Socket");
        return -1;
    }

    timeval timeout;
    timeout.tv_sec = kReceiveTimeoutSeconds;
    timeout.tv_usec = 0;
    const int ready = server->Listen(&timeout);
    if (ready < 0) {
        const int error = errno;
        char text[kTextLimit];
        std::snprintf(text, sizeof text, "Error returned by select: errno=%d; text=%s", error,
                      std::strerror(error));
        LogSevere(text);
        FileLogger::LogToFile(FileLogger::eSeverityError, "%s", text);
        errno = error;
        LogErrno(502);
        return ready;
    }
    if (ready == 0) {
        return 0;
    }

    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Processing Incoming Message\n", DebugAppName(), kTag);
    }
    socklen_t fromLength = sizeof(sockaddr_in);
    const int received = static_cast<int>(recvfrom(socket, buffer, size, 0, from, &fromLength));
    if (received < 0) {
        const int error = errno;
        const sockaddr_in* sender = reinterpret_cast<const sockaddr_in*>(from);
        char text[kTextLimit];
        std::snprintf(
            text, sizeof text, "Error returned by recvfrom; client=%s, port=%d, errno=%d, error=%s",
            DottedAddress(*sender).c_str(), ntohs(sender->sin_port), error, std::strerror(error));
        LogSevere(text);
        FileLogger::LogToFile(FileLogger::eSeverityError, "%s", text);
        errno = error;
        LogErrno(528);
    }
    return received;
}

void UDPServerReadThread::execute() {
    static const char* const kTag = "libReplay::UDPServerReadThread::execute";
    UDPSocketServer* server = m_server.load(std::memory_order_acquire);
    if (server == nullptr) {
        LogSevere("UDPServerReadThread::Socket Server Not Valid");
        return;
    }
    ClientDataList& clients = server->GetClientDataList();

    while (!m_stopRequested.load(std::memory_order_acquire)) {
        unsigned char* buffer = m_receiveBuffer.ExpandBuffer(kMaximumDatagramSize, false);
        sockaddr_in from;
        std::memset(&from, 0, sizeof from);
        int length = buffer != nullptr ? ReadClientMessage(reinterpret_cast<sockaddr*>(&from),
                                                           buffer, kMaximumDatagramSize)
                                       : -1;
        if (m_stopRequested.load(std::memory_order_acquire)) {
            break;
        }
        if (length > 0 && !server->AcceptSource(from)) {
            continue;
        }

        ClientDataLock lock(true);
        if (DebugOutputAttached()) {
            dbgMessage("%s::%s: %d Bytes read\n", DebugAppName(), kTag, length);
        }
        if (length < 0) {
            // A failed receive counts as an empty datagram from the sender.
            if (DebugOutputAttached()) {
                dbgError("%s::%s: %d Bytes Received from Client; Port=%d\n", DebugAppName(), kTag,
                         length, ntohs(from.sin_port));
            }
            length = 0;
        } else if (length == 0) {
            clients.UpdateClientStatus(false);
            server->ServerIdleProcess();
            continue;
        }
        HandleDatagram(*server, from, reinterpret_cast<const char*>(buffer), length);
    }
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Client Message Handler Thread Halted\n", DebugAppName(), kTag);
    }
}

// Runs with the client-table lock held.
void UDPServerReadThread::HandleDatagram(UDPSocketServer& server, const sockaddr_in& from,
                                         const char* data, int length) {
    // A step of the read loop: its messages carry the loop's tag.
    static const char* const kTag = "libReplay::UDPServerReadThread::execute";
    ClientDataList& clients = server.GetClientDataList();
    m_clientDataLocked.store(1, std::memory_order_relaxed);
    ClientData candidate(from);
    const int port = ntohs(from.sin_port);
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: %d Bytes received from port=%d\n", DebugAppName(), kTag, length, port);
    }

    ClientData* known = clients.FindByAddress(from);
    if (known == nullptr) {
        if (length == 0) {
            // Nothing to identify; the flag stays set until the next datagram.
            return;
        }
        if (server.ProcessClientMessage(data, length, candidate, true)) {
            ClientData& added = clients.Append(candidate);
            if (DebugOutputAttached()) {
                dbgMessage("%s::%s: Adding New Client: port=%d; name=%s\n", DebugAppName(), kTag,
                           port, added.GetClientName().c_str());
            }
            added.LogMessageReceived();
        } else if (!candidate.GetClientName().empty()) {
            const std::string& name = candidate.GetClientName();
            ClientData* existing = clients.FindByName(name);
            if (existing != nullptr && existing->IsSick()) {
                // The same client restarted in a new process.
                clients.Remove(existing);
                clients.Append(candidate).LogMessageReceived();
                if (DebugOutputAttached()) {
                    dbgMessage("%s::%s: Adding Entry for Restarted Client: port=%d; name=%s\n",
                               DebugAppName(), kTag, port, name.c_str());
                }
            } else if (existing != nullptr) {
                // A second live process uses the name: mark the one we know.
                if (DebugOutputAttached()) {
                    dbgWarning("%s::%s: Multiple Instances of Client %s: port=%d and %d\n",
                               DebugAppName(), kTag, name.c_str(), port, existing->GetPort());
                }
                existing->SetStatus(ClientData::Error);
            } else {
                if (DebugOutputAttached()) {
                    dbgError("%s::%s: Failed to Add Entry for Restarted Client %s\n",
                             DebugAppName(), kTag, name.c_str());
                }
                clients.Append(candidate);
            }
        }
    } else {
        if (length == 0) {
            known->SetStatus(ClientData::Error);
        }
        server.ProcessClientMessage(data, length, *known, false);
        known->LogMessageReceived();
    }
    clients.UpdateClientStatus(false);
    m_clientDataLocked.store(0, std::memory_order_relaxed);
}

UDPSocketServer::UDPSocketServer()
    : m_serverAddress(ReplayCore::SpecialStrings::kLocalHost),
      m_readThread(new UDPServerReadThread) {}

UDPSocketServer::~UDPSocketServer() {
    StopReadThread();
}

void UDPSocketServer::StopReadThread() {
    m_readThread->Stop();
}

int UDPSocketServer::Open(int port, const char* /*ignoredAddress*/, int value) {
    static const char* const kTag = "libReplay::UDPSocketServer::Open";
    if (m_socket != INVALID_SOCKET) {
        FileLogger::LogAssertion(548, kSocketSourceLocation, "INVALID_SOCKET == m_socket");
        return m_socket;
    }
    const int fd = makeSocket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        FileLogger::LogToFile(FileLogger::eSeverityError, "Invalid Socket for Port %d", port);
        return -1;
    }
    m_socket = fd;
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    if (!m_bindAddress.empty()) {
        inet_pton(AF_INET, m_bindAddress.c_str(), &address.sin_addr);
    }
    m_serverAddress = DottedAddress(address);
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_family = AF_INET;

    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int bindError = errno;
        FileLogger::LogToFile(FileLogger::eSeverityError, "Invalid Socket for Port %d", port);
        close();
        errno = bindError;  // for the caller's message: the log and close may change it
        return -1;
    }
    m_serverValue = value;
    m_port = port;
    m_readThread->SetServer(this);
    m_readThread->start();
    if (DebugOutputAttached()) {
        dbgError("%s::%s: UDP Server Constructed at port%d\n", DebugAppName(), kTag, port);
    }
    FileLogger::LogToFile(FileLogger::eSeverityInfo, "Socket %d Constructed for Port %d", fd, port);
    return fd;
}

ReplayError UDPSocketServer::SendTo(const char* data, unsigned int nBytes, ClientData& client) {
    static const char* const kTag = "libReplay::UDPSocketServer::SendTo";
    if (client.IsSick()) {
        char text[kTextLimit];
        std::snprintf(text, sizeof text, "Not Sending to Sick Client %s",
                      client.ToString().c_str());
        if (DebugOutputAttached()) {
            dbgMessage("%s::%s: %s\n", DebugAppName(), kTag, text);
        }
        return ReplayError(text, -1, ReplayError::eErrorSevere);
    }
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Sending data to %s; nBytes=%d\n", DebugAppName(), kTag,
                   client.ToString().c_str(), static_cast<int>(nBytes));
    }
    const sockaddr_in& address = client.GetAddress();
    const ssize_t sent = sendto(m_socket, data, nBytes, 0,
                                reinterpret_cast<const sockaddr*>(&address), sizeof address);
    client.LogReplayMessage();
    if (sent < 0) {
        return LogErrno(688);
    }
    client.IncrementPacketsSent();
    return ReplayError();
}

ReplayError UDPSocketServer::SendTo(const std::string& clientName, const std::string& data,
                                    int sequenceNumber, bool skipDisabled) {
    static const char* const kTag = "libReplay::UDPSocketServer::SendTo";
    char text[kTextLimit];
    ClientDataLock lock(true);
    ClientData* client = m_clientDataList.FindByName(clientName);
    if (client == nullptr) {
        std::snprintf(text, sizeof text,
                      "Error UDPSocketServer::SendTo: Attempt to write to non-existent client %s",
                      clientName.c_str());
        return ReplayError(text, -1, ReplayError::eErrorSevere);
    }
    if (client->IsSick()) {
        std::snprintf(text, sizeof text,
                      "Error UDPSocketServer::SendTo: Attempt to write to failed client %s",
                      clientName.c_str());
        return ReplayError(text, -1, ReplayError::eErrorSevere);
    }
    if (skipDisabled && client->GetStatus() == ClientData::Disabled) {
        if (DebugOutputAttached()) {
            dbgMessage("%s::%s:  Client %s Is Disabled\n", DebugAppName(), kTag,
                       clientName.c_str());
        }
        return ReplayError();
    }
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Sending data to %s; nBytes=%d\n", DebugAppName(), kTag,
                   client->ToString().c_str(), static_cast<int>(data.size()));
    }
    const sockaddr_in& address = client->GetAddress();
    const ssize_t sent = sendto(m_socket, data.data(), data.size(), 0,
                                reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (sent < 0) {
        return LogErrno(770);
    }
    client->IncrementPacketsSent();
    if (sequenceNumber >= 0) {
        const int previous = client->GetLastSequenceNumber();
        if (client->SetPacketSequenceNumber(sequenceNumber) != 1) {
            std::snprintf(text, sizeof text, "%s: Sequence Number %d unexpected following %d",
                          clientName.c_str(), sequenceNumber, previous);
            ReplayErrorManager::Get().LogError(
                ReplayError(782, kSocketSourceLocation, text, ReplayError::eErrorWarning));
        }
        client->UpdateClientStatus();
    }
    client->LogReplayMessage();
    return ReplayError();
}

ReplayError UDPSocketServer::Broadcast(const char* data, unsigned int nBytes,
                                       ClientData::ClientProtocol protocol) {
    ClientDataLock lock(true);
    for (ClientData& client : m_clientDataList.Clients()) {
        if (client.GetProtocol() != protocol) {
            continue;
        }
        const ReplayError result = SendTo(data, nBytes, client);
        if (result.GetSeverity() < ReplayError::eErrorWarning) {
            return result;
        }
    }
    return ReplayError();
}

ReplayError UDPSocketServer::SetClientEnabled(const std::string& clientName, bool enabled) {
    char text[kTextLimit];
    ClientDataLock lock(true);
    ClientData* client = m_clientDataList.FindByName(clientName);
    if (client == nullptr) {
        std::snprintf(
            text, sizeof text,
            "Error UDPSocketServer::SetClientEnabled: Attempt to write to non-existent client %s",
            clientName.c_str());
        return ReplayError(text, -1, ReplayError::eErrorSevere);
    }
    if (client->IsSick()) {
        std::snprintf(
            text, sizeof text,
            "Error UDPSocketServer::SetClientEnabled: Attempt to write to failed client %s",
            clientName.c_str());
        return ReplayError(text, -1, ReplayError::eErrorSevere);
    }
    client->SetStatus(enabled ? ClientData::Running : ClientData::Disabled);
    return ReplayError();
}
