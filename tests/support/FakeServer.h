#ifndef TESTS_SUPPORT_FAKESERVER_H
#define TESTS_SUPPORT_FAKESERVER_H

// A stand-in replay server for client tests on a random loopback address of
// its own, so that parallel tests never share an endpoint. A thread records
// every datagram with its arrival and sender.

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

    // With `startReceiving` false nothing is read until Start(), so that a
    // test can fork client processes before any thread exists.
    explicit FakeServer(bool startReceiving = true, int port = kReplayPort);
    ~FakeServer();
    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;

    bool IsBound() const { return m_socket >= 0; }
    const std::string& Address() const { return m_address; }

    void Start();

    std::vector<Datagram> Datagrams() const;
    size_t Count() const;
    bool WaitForDatagrams(size_t count, std::chrono::milliseconds deadline) const;
    void Clear();

    // True when the whole datagram went out.
    bool SendTo(const sockaddr_in& destination, const std::string& bytes) const;
    bool Reply(const Datagram& to, const std::string& bytes) const {
        return SendTo(to.sender, bytes);
    }

  private:
    void ReceiveLoop();

    int m_socket = -1;
    std::atomic<bool> m_stopping{false};
    std::string m_address;
    std::thread m_thread;

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_arrived;
    std::vector<Datagram> m_datagrams;
};

}  // namespace ReplayTest

#endif
