#ifndef LIBREPLAY_SERVER_CLIENTDATALIST_H
#define LIBREPLAY_SERVER_CLIENTDATALIST_H

// The replay server's table of clients: one ClientData per client process
// that has sent a datagram, with its identity, traffic counts and a health
// status derived from how long it has been silent. One process-wide mutex
// guards every table; ClientDataLock is its scoped guard.

#include <cstdint>
#include <string>
#include <vector>

#include "libreplay/ReplayCore.h"
#include "libreplay/server/ReplayError.h"
#include "libreplay/ReplayExport.h"

class CMutex;
struct sockaddr_in;

class REPLAY_API ClientData {
  public:
    enum ClientStatus : int32_t {
        Idle = 0,
        Running = 1,
        ShutDown = 2,
        Failed = 3,
        Error = 4,
        Disabled = 5,
    };

    // Broadcast selects receivers by protocol. Every client starts with
    // eProtocolDefault; the server process assigns its own further values.
    enum ClientProtocol : int32_t {
        eProtocolDefault = 1,
    };

    // A client silent for less than this is Running (once it has spoken).
    static constexpr int64_t kRunningSilenceLimitMs = 6000;
    // A client silent for longer than this has Failed.
    static constexpr int64_t kFailedSilenceLimitMs = 18000;

    explicit ClientData(const sockaddr_in& address);

    // Name equality, exact and case-sensitive.
    bool operator==(const std::string& name) const { return m_clientName == name; }
    // The same client process: clients share one host, so the UDP source port
    // alone identifies a process; the IP address is not compared.
    bool SameClient(const sockaddr_in& address) const;

    // Names the client; renaming a named client raises a warning.
    void SetClientName(const std::string& name);
    // Stamps a received datagram: last message time = now, one more message.
    void LogMessageReceived();
    // Stamps a datagram sent to the client.
    void LogReplayMessage();
    // Seconds 0, milliseconds since the last message received.
    ReplayCore::MSTime::MSTimeStruct IdleTime() const;
    // Re-derives the status from the silence since the last message; Error
    // and Disabled are kept until changed explicitly.
    void UpdateClientStatus();
    // Records the client's next block sequence number: 1 when it follows the
    // previous one, otherwise the distance (0 for a repeat). Gaps add to the
    // dropped count; a sequence that starts again (0 or 1) clears it.
    int SetPacketSequenceNumber(int sequenceNumber);
    std::string GetClientStatusString() const;
    // "Client port=<port>; Name = <name>".
    std::string ToString() const;

    // Idle, Running and Disabled clients may be sent to; all others are sick.
    static bool IsSickStatus(ClientStatus status);
    bool IsSick() const { return IsSickStatus(m_status); }

    const std::string& GetClientName() const { return m_clientName; }
    const sockaddr_in& GetAddress() const;
    // The UDP port in host order.
    int GetPort() const;
    ClientProtocol GetProtocol() const { return m_protocol; }
    void SetProtocol(ClientProtocol protocol) { m_protocol = protocol; }
    ClientStatus GetStatus() const { return m_status; }
    void SetStatus(ClientStatus status) { m_status = status; }
    uint32_t GetPacketsSent() const { return m_packetsSent; }
    void IncrementPacketsSent() { ++m_packetsSent; }
    uint32_t GetMessagesReceived() const { return m_messagesReceived; }
    uint32_t GetPacketsKept() const { return m_packetsKept; }
    void IncrementPacketsKept() { ++m_packetsKept; }
    int32_t GetDroppedPackets() const { return m_droppedPackets; }
    int32_t GetLastSequenceNumber() const { return m_lastSequenceNumber; }
    const std::string& GetAuxiliaryText() const { return m_auxiliaryText; }
    void SetAuxiliaryText(const std::string& text) { m_auxiliaryText = text; }
    const ReplayCore::MSTime::MSTimeStruct& GetLastMessageReceived() const {
        return m_lastMessageReceived;
    }
    const ReplayCore::MSTime::MSTimeStruct& GetLastReplayMessage() const {
        return m_lastReplayMessage;
    }
    const ReplayCore::MSTime::MSTimeStruct& GetWaitTime() const { return m_waitTime; }

  private:
    std::string m_clientName;
    // The sender's sockaddr_in, held as bytes so that this header needs no
    // socket headers; the library checks that size and alignment fit.
    struct AddressStorage {
        alignas(4) unsigned char bytes[16];
    };
    AddressStorage m_address;
    ClientProtocol m_protocol = eProtocolDefault;
    uint32_t m_packetsSent = 0;
    uint32_t m_messagesReceived = 0;
    uint32_t m_packetsKept = 0;
    int32_t m_droppedPackets = 0;
    int32_t m_lastSequenceNumber = 0;
    // Free for the server process; copied with the record.
    std::string m_auxiliaryText;
    ReplayCore::MSTime::MSTimeStruct m_lastMessageReceived;
    ReplayCore::MSTime::MSTimeStruct m_lastReplayMessage;
    ReplayCore::MSTime::MSTimeStruct m_waitTime;
    ClientStatus m_status = Idle;
};

// The table in arrival order. Every operation taking `lock` guards itself
// with ClientDataLock(lock): a caller that already holds the table lock
// passes false (the mutex is not recursive). The look-up and edit helpers
// without a `lock` argument expect the caller to hold the lock.
class REPLAY_API ClientDataList {
  public:
    void UpdateClientStatus(bool lock);
    // Clients that are not sick (Disabled counts as valid).
    int NumValidClients(bool lock) const;
    // Disabled clients become Running.
    void ClearDisabledClients(bool lock);
    // Dropped counts and last sequence numbers back to 0.
    void ClearDroppedPacketCounts(bool lock);
    void Clear(bool lock);
    // One more packet logged for the named client; an error for an unknown
    // name, which changes nothing.
    ReplayError IncrementPacketsKept(const std::string& name, bool lock);
    size_t Size(bool lock) const;
    // A copy of every record, for reports and tests.
    std::vector<ClientData> Snapshot(bool lock) const;

    // Caller holds the lock; pointers stay valid until the table changes.
    ClientData* FindByName(const std::string& name);
    ClientData* FindByAddress(const sockaddr_in& address);
    ClientData& Append(const ClientData& client);
    // Removes the record at `client` (a pointer from a Find); false when it
    // is not in this table.
    bool Remove(const ClientData* client);
    std::vector<ClientData>& Clients() { return m_clients; }

    // The one mutex of all client tables in the process. It is never
    // destroyed, so a server thread still running during static destruction
    // cannot lock a dead mutex.
    static CMutex& m_clientDataMutex;

  private:
    std::vector<ClientData> m_clients;
};

// Holds the client-table mutex for its lifetime when constructed with true;
// does nothing with false.
class REPLAY_API ClientDataLock {
  public:
    explicit ClientDataLock(bool lock);
    ~ClientDataLock();
    ClientDataLock(const ClientDataLock&) = delete;
    ClientDataLock& operator=(const ClientDataLock&) = delete;

  private:
    bool m_locked;
};

#endif
