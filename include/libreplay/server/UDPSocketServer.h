#ifndef LIBREPLAY_SERVER_UDPSOCKETSERVER_H
#define LIBREPLAY_SERVER_UDPSOCKETSERVER_H

// The replay server's UDP endpoint. UDPSocketServer owns the socket on which
// every client's datagrams arrive, the table of known clients and a read
// thread that identifies the sender of each datagram, keeps the table up to
// date (new, restarted, duplicate and silent clients) and hands the datagram
// to the server process's handler. Sends to clients respect their status:
// sick clients are not sent to, disabled ones can be skipped.

#include <cstdint>
#include <memory>
#include <string>

#include "libreplay/ReplayExport.h"
#include "libreplay/server/ClientDataList.h"
#include "libreplay/server/ReplayError.h"
#include "libreplay/server/UDPSockets.h"

struct sockaddr_in;
// The read thread lives inside the library.
class UDPServerReadThread;

class REPLAY_API UDPSocketServer : public UDPSocket {
  public:
    UDPSocketServer();
    // Stops the read thread before any member goes away. A derived server
    // calls StopReadThread() first in its own destructor, so that no datagram
    // reaches its handler while it is being destroyed.
    ~UDPSocketServer() override;

    // Called by the read thread for every datagram, with the client table
    // locked. For an unknown sender `client` is a fresh record (address set,
    // name empty): the handler names it (ClientData::SetClientName) and sets
    // its protocol, and its result decides whether it is added. For a known
    // sender the result is ignored.
    virtual bool ProcessClientMessage(const char* data, int nBytes, ClientData& client,
                                      bool isNewClient) = 0;
    // Called after each receive time-out, with the table locked.
    virtual bool ServerIdleProcess() { return true; }
    // Called by the read thread for every datagram received, before the
    // client table is locked or anything looks at the datagram: false drops
    // it unseen. The base version takes every source.
    virtual bool AcceptSource(const sockaddr_in& from) {
        (void)from;
        return true;
    }

    // Binds the wildcard address (or the address set with SetBindAddress) on
    // `port` and starts the read thread; the descriptor or -1. The address
    // argument is not used. `value` is kept for the derived server.
    int Open(int port, const char* ignoredAddress, int value);
    // Binds `address` (dotted IPv4) on the next Open instead of the wildcard:
    // for hosts where the server must listen on one interface, and for tests
    // that run side by side on loopback addresses of their own.
    void SetBindAddress(const std::string& address) { m_bindAddress = address; }

    // Sends to one client; the caller holds the table lock or owns `client`.
    // Sick clients are not sent to; the disabled state is not looked at.
    ReplayError SendTo(const char* data, unsigned int nBytes, ClientData& client);
    // Sends to the named client under the table lock. A sequenceNumber of 0
    // or more is checked against the client's previous one.
    ReplayError SendTo(const std::string& clientName, const std::string& data, int sequenceNumber,
                       bool skipDisabled);
    // Sends to every client of `protocol` in table order; the first error
    // (a sick client, a failed send) stops the broadcast.
    ReplayError Broadcast(const char* data, unsigned int nBytes,
                          ClientData::ClientProtocol protocol);
    ReplayError SetClientEnabled(const std::string& clientName, bool enabled);

    // Stops and joins the read thread; safe to call more than once.
    void StopReadThread();

    ClientDataList& GetClientDataList() { return m_clientDataList; }
    const std::string& GetServerAddress() const { return m_serverAddress; }
    int GetPort() const { return m_port; }
    int GetServerValue() const { return m_serverValue; }

  protected:
    // Open's third argument; its meaning is the derived server's.
    int32_t m_serverValue = 0;
    std::string m_serverAddress;
    int32_t m_port = 0;
    ClientDataList m_clientDataList;

  private:
    std::unique_ptr<UDPServerReadThread> m_readThread;
    std::string m_bindAddress;
};

#endif
