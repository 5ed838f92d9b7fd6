#include "logger/RecordQueue.h"

#include "libreplay/server/ReplayLogReader.h"

namespace MulticoreLogService {

namespace {

// Commits while the writer is busy are appended to the last waiting batch
// up to this size, so a long outage is held in few large batches.
constexpr size_t kMergeLimit = 1024 * 1024;
// Buffers kept for reuse, and the largest one worth keeping.
constexpr size_t kSpareBuffers = 4;
constexpr size_t kLargestSpare = 8 * 1024 * 1024;

}  // namespace

RecordQueue::RecordQueue(size_t capacityBytes, size_t consoleCapacityBytes)
    : m_capacity(capacityBytes), m_consoleCapacity(consoleCapacityBytes) {}

bool RecordQueue::FitsOpenBatch(size_t previousSize) {
    if (HeldBytes() + m_open.stored.size() <= m_capacity) {
        return true;
    }
    m_open.stored.resize(previousSize);
    return false;
}

bool RecordQueue::AddRecord(const char* framed, size_t length) {
    const size_t before = m_open.stored.size();
    ReplayCore::LogFormat::AppendStoredRecord(framed, length, m_open.stored);
    if (!FitsOpenBatch(before)) {
        m_droppedRecords.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    ++m_open.records;
    return true;
}

bool RecordQueue::AddReconnect() {
    const size_t before = m_open.stored.size();
    ReplayCore::LogFormat::AppendReconnectLine(m_open.stored);
    return FitsOpenBatch(before);
}

bool RecordQueue::AddConsoleText(const char* text, size_t length) {
    if (m_consoleHeldBytes.load(std::memory_order_relaxed) + m_openConsole.size() + length >
        m_consoleCapacity) {
        return false;
    }
    m_openConsole.append(text, length);
    return true;
}

void RecordQueue::Commit() {
    if (m_open.stored.empty() && m_openConsole.empty()) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_open.stored.empty()) {
            m_heldBytes.fetch_add(m_open.stored.size(), std::memory_order_relaxed);
            if (!m_committed.empty() && m_committed.back().stored.size() < kMergeLimit) {
                m_committed.back().stored += m_open.stored;
                m_committed.back().records += m_open.records;
                m_open.stored.clear();
            } else {
                m_committed.push_back(std::move(m_open));
                m_open.stored.clear();
                if (!m_spareBuffers.empty()) {
                    m_open.stored.swap(m_spareBuffers.back());
                    m_spareBuffers.pop_back();
                }
            }
            m_open.records = 0;
        }
        if (!m_openConsole.empty()) {
            m_consoleHeldBytes.fetch_add(m_openConsole.size(), std::memory_order_relaxed);
            m_console += m_openConsole;
            m_openConsole.clear();
        }
    }
    m_ready.notify_one();
}

bool RecordQueue::Take(std::deque<RecordBatch>& batches, std::string& console,
                       std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_ready.wait_for(lock, timeout,
                     [this] { return !m_committed.empty() || !m_console.empty() || m_closed; });
    const bool tookNothing = m_committed.empty() && m_console.empty();
    for (RecordBatch& batch : m_committed) {
        batches.push_back(std::move(batch));
    }
    m_committed.clear();
    console += m_console;
    m_console.clear();
    m_consoleHeldBytes.store(0, std::memory_order_relaxed);
    return !(m_closed && tookNothing);
}

void RecordQueue::Release(RecordBatch&& batch) {
    m_heldBytes.fetch_sub(batch.stored.size(), std::memory_order_relaxed);
    if (batch.stored.capacity() > kLargestSpare) {
        return;
    }
    batch.stored.clear();
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_spareBuffers.size() < kSpareBuffers) {
        m_spareBuffers.push_back(std::move(batch.stored));
    }
}

void RecordQueue::Close() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
    }
    m_ready.notify_all();
}

}  // namespace MulticoreLogService
