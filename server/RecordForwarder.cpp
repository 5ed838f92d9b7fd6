#include "server/RecordForwarder.h"

#include <chrono>

namespace ReplayServer {

RecordForwarder::RecordForwarder(WriteFunction write, size_t queueLimitBytes)
    : m_write(std::move(write)), m_queueLimitBytes(queueLimitBytes) {
    m_thread = std::thread(&RecordForwarder::Run, this);
}

RecordForwarder::~RecordForwarder() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_queued.notify_all();
    m_thread.join();
}

bool RecordForwarder::Push(const char* record, unsigned int length) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping || m_queuedBytes + length > m_queueLimitBytes) {
            m_dropped.fetch_add(1, std::memory_order_relaxed);
            return false;
        }
        m_queue.emplace_back(record, length);
        m_queuedBytes += length;
        ++m_pushedCount;
    }
    m_queued.notify_one();
    return true;
}

bool RecordForwarder::WaitUntilWritten(int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const uint64_t target = m_pushedCount;
    return m_handled.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [this, target] { return m_handledCount >= target; });
}

void RecordForwarder::Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_queued.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
        if (m_queue.empty()) {
            return;  // stopping, and everything queued has been written
        }
        std::string record = std::move(m_queue.front());
        m_queue.pop_front();
        m_queuedBytes -= record.size();
        // The pipe may make this wait; the queue stays open meanwhile.
        lock.unlock();
        const unsigned int length = static_cast<unsigned int>(record.size());
        if (m_write(record.data(), length) == static_cast<int>(length)) {
            m_written.fetch_add(1, std::memory_order_relaxed);
        } else {
            m_failed.fetch_add(1, std::memory_order_relaxed);
        }
        lock.lock();
        ++m_handledCount;
        m_handled.notify_all();
    }
}

}  // namespace ReplayServer
