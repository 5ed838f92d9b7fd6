#ifndef LIBREPLAY_SERVER_UDPSOCKETS_H
#define LIBREPLAY_SERVER_UDPSOCKETS_H

// UDP datagram sockets (IPv4) between replay clients and the replay server.
// UDPSocket owns one descriptor; UDPSocketClient is the client's connection
// to the server; the server's socket derives from UDPSocket as well.

#include <atomic>
#include <string>

#include "libreplay/ReplayExport.h"

struct timeval;

class REPLAY_API UDPSocket {
  public:
    static constexpr int INVALID_SOCKET = -1;

    UDPSocket() = default;
    // Copies share the descriptor; only one of them may close it.
    UDPSocket(const UDPSocket& other) : m_socket(other.Socket()) {}
    UDPSocket& operator=(const UDPSocket& other) {
        m_socket.store(other.Socket(), std::memory_order_relaxed);
        return *this;
    }
    virtual ~UDPSocket();

    // socket(2) with SOCK_CLOEXEC added, so the descriptor never leaks into
    // processes the host application starts.
    int makeSocket(int domain, int type, int protocol);
    int closeSocket(int fd);
    // Closes the descriptor once; 0 and nothing else on a closed socket.
    int close();

    // Plain recv(2) on the descriptor.
    int Receive(void* buffer, unsigned int length);
    // Waits until the socket is readable (null timeout: no limit); the
    // select(2) result, or -1 on a closed socket.
    int Listen(timeval* timeout);

    int Socket() const { return m_socket.load(std::memory_order_relaxed); }

  protected:
    // Atomic because a reader thread may look at it while another thread
    // reconnects; pass Socket() (not the atomic) to printf-style calls.
    std::atomic<int> m_socket{INVALID_SOCKET};
};

class REPLAY_API UDPSocketClient : public UDPSocket {
  public:
    // Receives a datagram's bytes and their count (null and 0 when nothing
    // was waiting, null and -1 when it could not be stored).
    typedef void (*MessageReceivedHandler)(const unsigned char* data, int length);

    // The process's one client connection.
    static UDPSocketClient& Get();

    explicit UDPSocketClient(const char* unused = nullptr);

    // Null changes nothing. Only the exact text "127.0.0.1" counts as local.
    void SetServerName(const char* name);
    const std::string& GetServerName() const { return m_serverName; }
    bool IsLocalHost() const { return m_isLocalHost != 0; }
    // 0 until the first Open, then AF_INET.
    int ConnectionType() const { return m_addressFamily; }

    // Connects a new socket to serverName:port (null name: passive wildcard
    // address); the descriptor, or -1 with the socket closed. A remote server
    // is not tried before the clock has run externalConnectWait seconds.
    int Open(const char* serverName, int port);
    // Bytes sent, or -1. errno is that of the failed call.
    int Send(const void* data, unsigned int length);
    // Bytes received; 0 or -1 on failure.
    int Read(void* buffer, unsigned int length);

    // Called when the client socket is readable outside the read thread:
    // reads one datagram into a static buffer and hands it to
    // m_messageRecievedHandler. Not re-entrant.
    static void io_handler(int unused);

    static std::atomic<MessageReceivedHandler> m_messageRecievedHandler;

  private:
    std::string m_serverName;
    int m_isLocalHost = 1;
    int m_addressFamily = 0;
};

namespace ReplaySockets {

// Asks for a receive buffer of `wanted` bytes for `socket` (a server's
// Socket()), past the system's cap where the process may, else up to it;
// returns the size in force (as the kernel counts it, with its bookkeeping),
// or 0 when it cannot be read.
REPLAY_API int EnlargeReceiveBuffer(int socket, int wanted);

}  // namespace ReplaySockets

#endif
