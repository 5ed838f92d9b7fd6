#include "libreplay/ExecutionTimer.h"

#include <time.h>

#include "ReplayManager/MonotonicClock.h"
#include "libreplay/ReplayDebug.h"

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

ExecutionTimer::~ExecutionTimer() {
    if (m_startTime != 0) {
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
    m_startTime = CurrentTime();
    return m_startTime;
}

// Without a Start the whole clock value is added, as the arithmetic gives.
unsigned int ExecutionTimer::Stop() {
    const unsigned int now = CurrentTime();
    m_totalTime = m_totalTime - m_startTime + now;
    ++m_calls;
    m_startTime = 0;
    return now;
}

void ExecutionTimer::DisplayTime() const {
    if (m_calls == 0 || !DebugOutputAttached()) {
        return;
    }
    const double averageSeconds =
        static_cast<double>(m_totalTime) / (static_cast<double>(m_calls) * kMicrosecondsPerSecond);
    dbgMessage("%s::%s: Timer %s: TotalTime=%lu; Calls=%lu; Average Time: %lf seconds\n",
               DebugAppName(), "libReplay::ExecutionTimer::DisplayTime", m_name.c_str(),
               static_cast<unsigned long>(m_totalTime), static_cast<unsigned long>(m_calls),
               averageSeconds);
}

ExecutionTimerManager& ExecutionTimerManager::Get() {
    static ExecutionTimerManager manager;
    return manager;
}

ExecutionTimer& ExecutionTimerManager::GetTimer(const std::string& name) {
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
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: %d Timers Total\n", DebugAppName(),
                   "libReplay::ExecutionTimerManager::DisplayTimes", static_cast<int>(m_count));
    }
    for (unsigned int i = 0; i < m_count; ++i) {
        m_timers[i].DisplayTime();
    }
}

}  // namespace ReplayCore
