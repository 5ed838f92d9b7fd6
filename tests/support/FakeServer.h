#ifndef TESTS_SUPPORT_FAKESERVER_H
#define TESTS_SUPPORT_FAKESERVER_H

// A stand-in replay server for client tests: a UDP socket on port 4400 of a
// loopback address of its own (127.x.y.z, chosen at random), so that tests
// running in parallel never share an endpoint. A background thread records
// every datagram with its arrival time and sender; the test can wait for
// datagrams and answer their senders.

#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ReplayTest {

struct Datagram {
    std::string bytes;
    std::chrono::steady_clock::time_point arrival;
    sockaddr_in sender{};
};

class FakeServer {
  public:
    static constexpr int kReplayPort = 4400;

    // Binds a free loopback address on `port`. With `startReceiving` false the
    // socket is bound but nothing is read until Start(): tests that fork
    // client processes do so before any thread exists, then start receiving.
    explicit FakeServer(bool startReceiving = true, int port = kReplayPort);
    ~FakeServer();
    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;

    bool IsBound() const { return m_socket >= 0; }
    // The dotted address ("127.x.y.z") to give clients as serverIP.
    const std::string& Address() const { return m_address; }
    int Port() const { return m_port; }

    void Start();

    std::vector<Datagram> Datagrams() const;
    size_t Count() const;
    // True once at least `count` datagrams have arrived, false at the
    // deadline.
    bool WaitForDatagrams(size_t count, std::chrono::milliseconds deadline) const;
    void Clear();

    // Sends `bytes` from the server's socket; true when the whole datagram
    // went out.
    bool SendTo(const sockaddr_in& destination, const std::string& bytes) const;
    bool Reply(const Datagram& to, const std::string& bytes) const {
        return SendTo(to.sender, bytes);
    }

  private:
    void ReceiveLoop();

    int m_socket = -1;
    std::atomic<bool> m_stopping{false};
    int m_port;
    std::string m_address;
    std::thread m_thread;

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_arrived;
    std::vector<Datagram> m_datagrams;
};

}  // namespace ReplayTest

#endif
