#include "logger/RecordQueue.h"

namespace MulticoreLogService {

bool RecordQueue::Push(QueueItem::Kind kind, const char* data, size_t length) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_closed || m_items.size() >= m_maxItems || m_bytes + length > m_maxBytes) {
            return false;
        }
        m_items.push_back(QueueItem{kind, std::string(data, length)});
        m_bytes += length;
    }
    m_ready.notify_one();
    return true;
}

bool RecordQueue::PopAll(std::deque<QueueItem>& out, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_ready.wait_for(lock, timeout, [this] { return !m_items.empty() || m_closed; });
    if (m_items.empty()) {
        return !m_closed;
    }
    if (out.empty()) {
        out.swap(m_items);
    } else {
        for (QueueItem& item : m_items) {
            out.push_back(std::move(item));
        }
        m_items.clear();
    }
    m_bytes = 0;
    return true;
}

void RecordQueue::Close() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
    }
    m_ready.notify_all();
}

}  // namespace MulticoreLogService
