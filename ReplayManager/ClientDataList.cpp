#include "libreplay/server/ClientDataList.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstdlib>
#include <new>

#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"
#include "reference/src/operating_system.h"

using ReplayCore::MSTime;

namespace {

const char* const kSourceFile = "ReplayManager/ClientDataList";
// Texts formatted here are cut at this size.
constexpr size_t kTextLimit = 128;

MSTime::MSTimeStruct Now() {
    return MSTime::CurrentTimeMS();
}

}  // namespace

// Leaked on purpose: see the declaration.
CMutex& ClientDataList::m_clientDataMutex = *new CMutex;

ClientData::ClientData(const sockaddr_in& address) {
    static_assert(sizeof(AddressStorage) == sizeof(sockaddr_in), "address storage size");
    static_assert(alignof(AddressStorage) >= alignof(sockaddr_in), "address storage alignment");
    new (m_address.bytes) sockaddr_in(address);
}

const sockaddr_in& ClientData::GetAddress() const {
    return *std::launder(reinterpret_cast<const sockaddr_in*>(m_address.bytes));
}

bool ClientData::SameClient(const sockaddr_in& address) const {
    return GetAddress().sin_port == address.sin_port;
}

int ClientData::GetPort() const {
    return ntohs(GetAddress().sin_port);
}

void ClientData::SetClientName(const std::string& name) {
    if (name.empty()) {
        ReplayCore::FileLogger::LogAssertion(28, kSourceFile, "!clientName.empty()");
    }
    if (!m_clientName.empty() && m_clientName != name) {
        char text[kTextLimit];
        std::snprintf(text, sizeof text, "Warning: Renaming Client on port %d from %s to %s",
                      GetPort(), m_clientName.c_str(), name.c_str());
        // Constructing the record reports the warning; it is not kept.
        ReplayError warning(text, 0, ReplayError::eErrorWarning);
        (void)warning;
    }
    m_clientName = name;
}

void ClientData::LogMessageReceived() {
    m_lastMessageReceived = Now();
    ++m_messagesReceived;
}

void ClientData::LogReplayMessage() {
    m_lastReplayMessage = Now();
}

MSTime::MSTimeStruct ClientData::IdleTime() const {
    return MSTime::MSTimeStruct(
        0, Now().m_timeMilliseconds - m_lastMessageReceived.m_timeMilliseconds);
}

void ClientData::UpdateClientStatus() {
    m_waitTime = IdleTime();
    const int64_t wait = m_waitTime.m_timeMilliseconds;
    if (m_status == Error || m_status == Disabled) {
        return;
    }
    if (wait > kFailedSilenceLimitMs) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: %s has failed; wait time=%d\n", DebugAppName(),
                     "libReplay::ClientData::UpdateClientStatus", m_clientName.c_str(),
                     static_cast<int>(wait));
        }
        m_status = Failed;
    } else if (wait < kRunningSilenceLimitMs && m_messagesReceived > 0) {
        m_status = Running;
    } else {
        m_status = Idle;
    }
}

int ClientData::SetPacketSequenceNumber(int sequenceNumber) {
    int result = 1;
    if (sequenceNumber < 2) {
        m_droppedPackets = 0;
    } else if (m_lastSequenceNumber >= 1) {
        // A repeat gives 0 and lowers the dropped count by one; kept so.
        result = std::abs(sequenceNumber - m_lastSequenceNumber);
        // Gaps from a hostile or corrupted client can exceed the counter;
        // it wraps rather than overflowing.
        m_droppedPackets = static_cast<int32_t>(static_cast<uint32_t>(m_droppedPackets) +
                                                static_cast<uint32_t>(result - 1));
    }
    m_lastSequenceNumber = sequenceNumber;
    return result;
}

bool ClientData::IsSickStatus(ClientStatus status) {
    return status != Idle && status != Running && status != Disabled;
}

std::string ClientData::GetClientStatusString() const {
    switch (m_status) {
        case Idle:
            return "Idle";
        case Running:
            return "Running";
        case ShutDown:
            return "ShutDown";
        case Failed:
            return "Failed";
        case Error:
            return "Error";
        case Disabled:
            return "Disabled";
    }
    return "Unknown";
}

std::string ClientData::ToString() const {
    char text[kTextLimit];
    std::snprintf(text, sizeof text, "Client port=%d; Name = %s", GetPort(), m_clientName.c_str());
    return text;
}

ClientDataLock::ClientDataLock(bool lock) : m_locked(lock) {
    if (m_locked) {
        ClientDataList::m_clientDataMutex.lock(true);
    }
}

ClientDataLock::~ClientDataLock() {
    if (m_locked) {
        ClientDataList::m_clientDataMutex.unlock();
    }
}

void ClientDataList::UpdateClientStatus(bool lock) {
    ClientDataLock guard(lock);
    for (ClientData& client : m_clients) {
        client.UpdateClientStatus();
    }
}

int ClientDataList::NumValidClients(bool lock) const {
    ClientDataLock guard(lock);
    int count = 0;
    for (const ClientData& client : m_clients) {
        if (!client.IsSick()) {
            ++count;
        }
    }
    return count;
}

void ClientDataList::ClearDisabledClients(bool lock) {
    ClientDataLock guard(lock);
    for (ClientData& client : m_clients) {
        if (client.GetStatus() == ClientData::Disabled) {
            client.SetStatus(ClientData::Running);
        }
    }
}

void ClientDataList::ClearDroppedPacketCounts(bool lock) {
    ClientDataLock guard(lock);
    for (ClientData& client : m_clients) {
        client.SetPacketSequenceNumber(0);
    }
}

void ClientDataList::Clear(bool lock) {
    ClientDataLock guard(lock);
    m_clients.clear();
}

ReplayError ClientDataList::IncrementPacketsKept(const std::string& name, bool lock) {
    ClientDataLock guard(lock);
    ClientData* client = FindByName(name);
    if (client == nullptr) {
        char text[kTextLimit];
        std::snprintf(text, sizeof text,
                      "Error UDPSocketServer::IncrementPacketsKept: Invalid Client %s",
                      name.c_str());
        return ReplayError(text, -1, ReplayError::eErrorSevere);
    }
    client->IncrementPacketsKept();
    return ReplayError();
}

size_t ClientDataList::Size(bool lock) const {
    ClientDataLock guard(lock);
    return m_clients.size();
}

std::vector<ClientData> ClientDataList::Snapshot(bool lock) const {
    ClientDataLock guard(lock);
    return m_clients;
}

ClientData* ClientDataList::FindByName(const std::string& name) {
    for (ClientData& client : m_clients) {
        if (client == name) {
            return &client;
        }
    }
    return nullptr;
}

ClientData* ClientDataList::FindByAddress(const sockaddr_in& address) {
    for (ClientData& client : m_clients) {
        if (client.SameClient(address)) {
            return &client;
        }
    }
    return nullptr;
}

ClientData& ClientDataList::Append(const ClientData& client) {
    m_clients.push_back(client);
    return m_clients.back();
}

bool ClientDataList::Remove(const ClientData* client) {
    for (auto it = m_clients.begin(); it != m_clients.end(); ++it) {
        if (&*it == client) {
            m_clients.erase(it);
            return true;
        }
    }
    return false;
}
