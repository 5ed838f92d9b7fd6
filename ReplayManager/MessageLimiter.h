#ifndef REPLAYMANAGER_MESSAGELIMITER_H
#define REPLAYMANAGER_MESSAGELIMITER_H

#include <atomic>

namespace ReplayCore {

// Messages that could repeat for every record are produced only for their
// first 29 occurrences in the process. One limiter per message.
class MessageLimiter {
  public:
    static constexpr unsigned int kLimit = 30;

    // Counts the occurrence; true while the count stays below kLimit.
    bool Allow() { return m_count.fetch_add(1, std::memory_order_relaxed) + 1 < kLimit; }
    unsigned int Count() const { return m_count.load(std::memory_order_relaxed); }

  private:
    std::atomic<unsigned int> m_count{0};
};

}  // namespace ReplayCore

#endif
