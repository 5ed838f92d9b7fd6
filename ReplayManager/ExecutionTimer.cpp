#include "ReplayManager/ExecutionTimer.h"

#include <time.h>

#include "ReplayManager/MonotonicClock.h"
#include "libreplay/server/ReplayDebug.h"

namespace ReplayCore {

namespace {

constexpr unsigned int kMicrosecondsPerSecond = 1000000;
const char* const kSourceFile = "ReplayManager/ExecutionTimer";

void ReportFailedAssertion(int line, const char* expression) {
    if (DebugOutputAttached()) {
        dbgError("%s::%s: Assert Failed:File %s:Line %d:%s\n", DebugAppName(),
                 "libReplay::ExecutionTimer::CurrentTime", kSourceFile, line, expression);
    }
}

}  // namespace

ExecutionTimer::ExecutionTimer(const std::string& name) : m_name(name) {
    // Taken while the base is still 0, so the 32-bit wrap applies to it too.
    m_constructTimeSeconds = CurrentTime() / kMicrosecondsPerSecond;
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Creating Execution Timer %s \n", DebugAppName(),
                   "libReplay::ExecutionTimer::ctor", m_name.c_str());
    }
}

ExecutionTimer& ExecutionTimer::operator=(const ExecutionTimer& other) {
    m_name = other.m_name;
    m_startTime.store(other.m_startTime.load(std::memory_order_relaxed), std::memory_order_relaxed);
    m_totalTime.store(other.m_totalTime.load(std::memory_order_relaxed), std::memory_order_relaxed);
    m_calls.store(other.m_calls.load(std::memory_order_relaxed), std::memory_order_relaxed);
    m_constructTimeSeconds = other.m_constructTimeSeconds;
    return *this;
}

ExecutionTimer::~ExecutionTimer() {
    if (m_startTime.load(std::memory_order_relaxed) != 0) {
        Stop();
    }
    DisplayTime();
}

// Microseconds in 32 bits: the value wraps about every 71.6 minutes. Intervals
// are taken as unsigned differences, which survive a single wrap.
unsigned int ExecutionTimer::CurrentTime() const {
    timespec timeVal;
    if (!ReadMonotonicClock(timeVal)) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Error Returned by clock_gettime\n", DebugAppName(),
                     "libReplay::ExecutionTimer::CurrentTime");
        }
        return 0;
    }
    if (timeVal.tv_sec < static_cast<time_t>(m_constructTimeSeconds)) {
        ReportFailedAssertion(94, "timeVal.tv_sec >= m_constructTimeSeconds");
    }
    const long long seconds =
        static_cast<long long>(timeVal.tv_sec) - static_cast<long long>(m_constructTimeSeconds);
    const long long usecs = timeVal.tv_nsec / 1000;
    if (seconds < 0) {
        ReportFailedAssertion(99, "seconds >= 0");
    }
    if (usecs < 0) {
        ReportFailedAssertion(100, "usecs >= 0");
    }
    return static_cast<unsigned int>(usecs) +
           kMicrosecondsPerSecond * static_cast<unsigned int>(seconds);
}

unsigned int ExecutionTimer::Start() {
    const unsigned int now = CurrentTime();
    m_startTime.store(now, std::memory_order_relaxed);
    return now;
}

// Without a Start the whole clock value is added, as the arithmetic gives.
unsigned int ExecutionTimer::Stop() {
    const unsigned int now = CurrentTime();
    m_totalTime.fetch_add(now - m_startTime.load(std::memory_order_relaxed),
                          std::memory_order_relaxed);
    m_calls.fetch_add(1, std::memory_order_relaxed);
    m_startTime.store(0, std::memory_order_relaxed);
    return now;
}

void ExecutionTimer::DisplayTime() const {
    const unsigned int calls = GetCalls();
    const unsigned int totalTime = GetTotalTime();
    if (calls == 0 || !DebugOutputAttached()) {
        return;
    }
    const double averageSeconds =
        static_cast<double>(totalTime) / (static_cast<double>(calls) * kMicrosecondsPerSecond);
    dbgMessage("%s::%s: Timer %s: TotalTime=%lu; Calls=%lu; Average Time: %lf seconds\n",
               DebugAppName(), "libReplay::ExecutionTimer::DisplayTime", m_name.c_str(),
               static_cast<unsigned long>(totalTime), static_cast<unsigned long>(calls),
               averageSeconds);
}

ExecutionTimerManager& ExecutionTimerManager::Get() {
    static ExecutionTimerManager manager;
    return manager;
}

ExecutionTimer& ExecutionTimerManager::GetTimer(const std::string& name) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (unsigned int i = 0; i < m_count; ++i) {
        if (m_timers[i].GetName() == name) {
            return m_timers[i];
        }
    }
    if (m_count < kMaximumTimers) {
        m_timers[m_count] = ExecutionTimer(name);
        return m_timers[m_count++];
    }
    if (DebugOutputAttached()) {
        dbgError("%s::%s: Maximum Number of Execution timers Exceeded\n", DebugAppName(),
                 "libReplay::ExecutionTimer::GetTimer");
    }
    return m_timers[kMaximumTimers - 1];
}

void ExecutionTimerManager::DisplayTimes() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: %d Timers Total\n", DebugAppName(),
                   "libReplay::ExecutionTimerManager::DisplayTimes", static_cast<int>(m_count));
    }
    for (unsigned int i = 0; i < m_count; ++i) {
        m_timers[i].DisplayTime();
    }
}

}  // namespace ReplayCore
