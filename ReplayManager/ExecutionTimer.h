#ifndef REPLAYMANAGER_EXECUTIONTIMER_H
#define REPLAYMANAGER_EXECUTIONTIMER_H

// Named profiling timers summed over many calls in microseconds, and the
// process-wide table of up to 50 of them. A timer is meant for one thread at a
// time, but the client's threads share the table (one measures while another
// prints), so the counters are relaxed atomics and the table takes a lock.

#include <atomic>
#include <mutex>
#include <string>

#include "libreplay/ReplayExport.h"

namespace ReplayCore {

class REPLAY_API ExecutionTimer {
  public:
    ExecutionTimer() = default;
    explicit ExecutionTimer(const std::string& name);
    ExecutionTimer& operator=(const ExecutionTimer& other);
    ~ExecutionTimer();

    // Microseconds since this timer's base second, in 32 bits (wraps every
    // 4294.967296 s by design).
    unsigned int CurrentTime() const;
    unsigned int Start();
    unsigned int Stop();
    void DisplayTime() const;

    const std::string& GetName() const { return m_name; }
    unsigned int GetTotalTime() const { return m_totalTime.load(std::memory_order_relaxed); }
    unsigned int GetCalls() const { return m_calls.load(std::memory_order_relaxed); }

  private:
    std::string m_name;
    std::atomic<unsigned int> m_startTime{0};
    std::atomic<unsigned int> m_totalTime{0};
    std::atomic<unsigned int> m_calls{0};
    unsigned int m_constructTimeSeconds = 0;
};

class REPLAY_API ExecutionTimerManager {
  public:
    static constexpr unsigned int kMaximumTimers = 50;

    static ExecutionTimerManager& Get();
    // The named timer, created on first use; past 50 names the last entry is
    // shared.
    ExecutionTimer& GetTimer(const std::string& name);
    void DisplayTimes() const;

  private:
    ExecutionTimerManager() = default;

    mutable std::mutex m_mutex;
    ExecutionTimer m_timers[kMaximumTimers];
    unsigned int m_count = 0;
};

}  // namespace ReplayCore

#endif
