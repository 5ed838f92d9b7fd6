#ifndef SERVER_RECORDFORWARDER_H
#define SERVER_RECORDFORWARDER_H

// Hands received records to the log writer's pipe from a thread of its own.
//
// The receive path runs with the client-table lock held, and the log writer
// takes that lock for every record it writes out. Were the receive path to
// write into the pipe itself, a full pipe would leave it waiting for a writer
// that waits for the lock: both stop for good. Here the receive path only
// queues the record; the forwarding thread, which holds no lock of the
// table, waits on the pipe instead.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace ReplayServer {

class RecordForwarder {
  public:
    // Writes one record; returns the bytes written (the record's length on
    // success).
    using WriteFunction = std::function<int(const char* record, unsigned int length)>;

    // Holds at most `queueLimitBytes` of records not yet written.
    RecordForwarder(WriteFunction write, size_t queueLimitBytes);
    // Writes what is still queued, then ends the thread.
    ~RecordForwarder();
    RecordForwarder(const RecordForwarder&) = delete;
    RecordForwarder& operator=(const RecordForwarder&) = delete;

    // Queues a copy of the record; false (and counted as dropped) when the
    // queue is full or the forwarder is stopping.
    bool Push(const char* record, unsigned int length);
    // Waits until every record queued before the call has been written (or
    // has failed); false when `timeoutMs` passes first.
    bool WaitUntilWritten(int timeoutMs);

    uint64_t Written() const { return m_written.load(std::memory_order_relaxed); }
    uint64_t Failed() const { return m_failed.load(std::memory_order_relaxed); }
    uint64_t Dropped() const { return m_dropped.load(std::memory_order_relaxed); }

  private:
    void Run();

    WriteFunction m_write;
    const size_t m_queueLimitBytes;
    std::mutex m_mutex;
    std::condition_variable m_queued;
    std::condition_variable m_handled;
    std::deque<std::string> m_queue;  // under m_mutex
    size_t m_queuedBytes = 0;         // under m_mutex
    uint64_t m_pushedCount = 0;       // under m_mutex
    uint64_t m_handledCount = 0;      // under m_mutex
    bool m_stopping = false;          // under m_mutex
    std::atomic<uint64_t> m_written{0};
    std::atomic<uint64_t> m_failed{0};
    std::atomic<uint64_t> m_dropped{0};
    std::thread m_thread;
};

}  // namespace ReplayServer

#endif
