#ifndef REPLAYMANAGER_UDPSERVERREADTHREAD_H
#define REPLAYMANAGER_UDPSERVERREADTHREAD_H

// The server socket's read thread: waits for datagrams, identifies their
// sender in the client table and hands them to the server's handler. Kept
// out of the installed server header because it derives from the platform
// layer's thread class.

#include <netinet/in.h>

#include <atomic>

#include "ReplayManager/MemoryBuffer.h"
#include "reference/src/operating_system.h"

class UDPSocketServer;

class UDPServerReadThread : public CThread {
  public:
    // Longest datagram taken; longer ones are cut by the socket.
    static constexpr unsigned int kMaximumDatagramSize = 2048;
    // How long one wait for a datagram lasts before the idle work runs.
    static constexpr int kReceiveTimeoutSeconds = 5;

    UDPServerReadThread();
    // Stops and joins the thread (see Stop).
    ~UDPServerReadThread() override;

    void SetServer(UDPSocketServer* server) { m_server.store(server, std::memory_order_release); }

    // Waits up to 5 s for a datagram and receives it into `buffer`: its
    // length, 0 on time-out, negative on failure.
    int ReadClientMessage(sockaddr* from, void* buffer, unsigned int size);

    // The receive loop serves for as long as its server exists. Stop ends it:
    // it marks the loop to end, wakes a wait in progress by shutting the
    // socket's receive side, and joins the thread, so that no datagram is
    // handled once the server starts to go away.
    void Stop();

    // 1 while the read thread is handling a datagram (it holds the table lock
    // then); a failed receive from an unknown port leaves it at 1 until the
    // next datagram has been handled.
    static std::atomic<int> m_clientDataLocked;

  protected:
    void execute() override;

  private:
    void HandleDatagram(UDPSocketServer& server, const sockaddr_in& from, const char* data,
                        int length);

    std::atomic<UDPSocketServer*> m_server{nullptr};
    ReplayCore::MemoryBuffer m_receiveBuffer;
    std::atomic<bool> m_stopRequested{false};
};

#endif
