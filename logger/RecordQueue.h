#ifndef LOGGER_RECORDQUEUE_H
#define LOGGER_RECORDQUEUE_H

// The bounded queue between the channel reader and the file writer. The
// reader never waits on it: when the queue is full the item is refused and
// the caller counts it as dropped, so a stalled medium cannot stall the
// processes writing to the channels.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>

namespace MulticoreLogService {

struct QueueItem {
    enum Kind { kRecord, kReconnect, kConsole };
    Kind kind;
    std::string data;  // framed record, or console text line
};

class RecordQueue {
  public:
    RecordQueue(size_t maxItems, size_t maxBytes) : m_maxItems(maxItems), m_maxBytes(maxBytes) {}

    // False when the queue is full or closed; the item is not taken.
    bool Push(QueueItem::Kind kind, const char* data, size_t length);

    // Waits until items are queued, the queue is closed or `timeout` passed,
    // then moves every queued item into `out`. False once closed and empty.
    bool PopAll(std::deque<QueueItem>& out, std::chrono::milliseconds timeout);

    // Wakes the consumer; Push refuses from now on.
    void Close();

  private:
    const size_t m_maxItems;
    const size_t m_maxBytes;
    std::mutex m_mutex;
    std::condition_variable m_ready;
    std::deque<QueueItem> m_items;
    size_t m_bytes = 0;
    bool m_closed = false;
};

}  // namespace MulticoreLogService

#endif
