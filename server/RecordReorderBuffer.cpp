#include "server/RecordReorderBuffer.h"

#include <algorithm>

namespace ReplayServer {

namespace {

// How often the thread looks for due records when nothing wakes it sooner.
constexpr std::chrono::milliseconds kTick(20);

}  // namespace

RecordReorderBuffer::RecordReorderBuffer(int holdMs, size_t byteLimit, Sink sink)
    : m_hold(holdMs > 0 ? holdMs : 0),
      m_byteLimit(byteLimit),
      m_highWater(byteLimit / 4 * 3),
      m_sink(std::move(sink)) {}

RecordReorderBuffer::~RecordReorderBuffer() {
    Stop();
}

void RecordReorderBuffer::Start() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_thread.joinable()) {
        return;
    }
    m_stop = false;
    m_thread = std::thread(&RecordReorderBuffer::Run, this);
}

void RecordReorderBuffer::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    Drain();
}

bool RecordReorderBuffer::Add(int64_t recordTimeMs, const char* data, size_t size,
                              Clock::time_point arrival) {
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_heldBytes + size > m_byteLimit) {
            m_refused.fetch_add(1, std::memory_order_relaxed);
            return false;
        }
        m_held.push_back({recordTimeMs, m_arrivals++, arrival + m_hold, std::string(data, size)});
        std::push_heap(m_held.begin(), m_held.end(), Later());
        m_heldBytes += size;
        wake = m_heldBytes > m_highWater;
    }
    if (wake) {
        m_wake.notify_all();
    }
    return true;
}

void RecordReorderBuffer::Drain() {
    std::lock_guard<std::mutex> pass(m_passMutex);
    std::vector<Held> records = TakeDue(true, Clock::now());
    Pass(records);
}

void RecordReorderBuffer::Freeze(bool frozen) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_frozen = frozen;
}

void RecordReorderBuffer::ReleaseDue(Clock::time_point now) {
    std::lock_guard<std::mutex> pass(m_passMutex);
    std::vector<Held> records = TakeDue(false, now);
    Pass(records);
}

size_t RecordReorderBuffer::HeldRecords() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_held.size();
}

void RecordReorderBuffer::Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop) {
        m_wake.wait_for(lock, kTick);
        if (m_stop) {
            break;
        }
        lock.unlock();
        ReleaseDue(Clock::now());
        lock.lock();
    }
}

std::vector<RecordReorderBuffer::Held> RecordReorderBuffer::TakeDue(bool all,
                                                                    Clock::time_point now) {
    std::vector<Held> due;
    std::lock_guard<std::mutex> lock(m_mutex);
    // Oldest record time first. A young record at the front holds back the
    // older arrivals behind it: they wait at most one hold longer and stay
    // in order.
    while (!m_held.empty() &&
           (all || (!m_frozen && m_held.front().due <= now) || m_heldBytes > m_highWater)) {
        if (!all && (m_frozen || m_held.front().due > now)) {
            m_releasedEarly.fetch_add(1, std::memory_order_relaxed);
        }
        std::pop_heap(m_held.begin(), m_held.end(), Later());
        m_heldBytes -= m_held.back().bytes.size();
        due.push_back(std::move(m_held.back()));
        m_held.pop_back();
    }
    return due;
}

void RecordReorderBuffer::Pass(std::vector<Held>& records) {
    for (const Held& record : records) {
        if (!m_sink(record.bytes)) {
            m_sinkFailures.fetch_add(1, std::memory_order_relaxed);
        }
    }
}

}  // namespace ReplayServer
