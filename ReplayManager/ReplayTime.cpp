#include "libreplay/ReplayCore.h"

#include <time.h>

#include <atomic>
#include <cstdio>

#include "ReplayManager/MonotonicClock.h"
#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"

namespace ReplayCore {

namespace {

std::atomic<ClockSourceFunction> g_clockSource{nullptr};

// The millisecond count wraps to 0 after this many seconds (365 days) of
// uptime, keeping record times short.
constexpr int64_t kClockWrapSeconds = 31536000;
constexpr int64_t kMillisecondsPerSecond = 1000;
constexpr int64_t kNanosecondsPerMillisecond = 1000000;
constexpr unsigned int kMillisecondsPerSlot = 100;
// A time past this much into its slot rounds up to the next slot.
constexpr int kSlotRoundingMilliseconds = 50;

const char* const kSourceFile = "ReplayManager/ReplayCore";

}  // namespace

bool ReadMonotonicClock(timespec& now) {
    const ClockSourceFunction source = g_clockSource.load(std::memory_order_relaxed);
    if (source == nullptr) {
        return clock_gettime(CLOCK_MONOTONIC, &now) == 0;
    }
    const int64_t milliseconds = source();
    if (milliseconds < 0) {
        return false;
    }
    now.tv_sec = static_cast<time_t>(milliseconds / kMillisecondsPerSecond);
    now.tv_nsec =
        static_cast<long>((milliseconds % kMillisecondsPerSecond) * kNanosecondsPerMillisecond);
    return true;
}

void SetClockSourceForTesting(ClockSourceFunction source) {
    g_clockSource.store(source, std::memory_order_relaxed);
}

MSTime::MSTimeStruct MSTime::MSTimeStruct::GetCurrentTimeMS() {
    MSTimeStruct currentTime;
    timespec now;
    if (!ReadMonotonicClock(now)) {
        if (DebugOutputAttached()) {
            dbgError("%s::%s: Error Returned by clock_gettime\n", DebugAppName(),
                     "libReplay::MSTime::MSTimeStruct");
        }
        return currentTime;
    }
    currentTime.m_timeMilliseconds =
        (static_cast<int64_t>(now.tv_sec) % kClockWrapSeconds) * kMillisecondsPerSecond +
        now.tv_nsec / kNanosecondsPerMillisecond;
    // Recording the failure stamps it with the clock, which reads 0 again:
    // report only the outer reading.
    static thread_local bool reportingZeroTime = false;
    if (currentTime.m_timeMilliseconds <= 0 && !reportingZeroTime) {
        reportingZeroTime = true;
        FileLogger::LogAssertion(283, kSourceFile, "currentTime.m_timeMilliseconds > 0");
        reportingZeroTime = false;
    }
    return currentTime;
}

std::string MSTime::MSTimeStruct::ToString() const {
    const int64_t seconds = m_timeMilliseconds / kMillisecondsPerSecond;
    const int64_t milliseconds = m_timeMilliseconds - seconds * kMillisecondsPerSecond;
    // Truncating division gives both parts the same sign; a mixed sign would
    // print a wrong time.
    if ((seconds < 0 && milliseconds > 0) || (seconds > 0 && milliseconds < 0)) {
        FileLogger::LogAssertion(323, kSourceFile, "(seconds * milliseconds) >= 0");
    }
    // A time too long for the buffer is cut, never grown.
    char text[20];
    if (std::snprintf(text, sizeof text, "%lld.%03lld", static_cast<long long>(seconds),
                      static_cast<long long>(milliseconds < 0 ? -milliseconds : milliseconds)) <
        0) {
        return std::string();
    }
    return text;
}

// The digits after the point are read as a whole number of milliseconds, so
// "7.25" is 7025 ms: the text is expected as ToString writes it, with exactly
// three digits.
MSTime::MSTimeStruct::MSTimeStruct(const std::string& text) {
    int seconds = 0;
    int milliseconds = 0;
    const size_t point = text.find('.');
    if (point == std::string::npos) {
        std::sscanf(text.c_str(), "%d", &seconds);
    } else if (point + 1 == text.size()) {
        std::sscanf(text.c_str(), "%d.", &seconds);
    } else {
        std::sscanf(text.c_str(), "%d.%d", &seconds, &milliseconds);
    }
    if (milliseconds < 0) {
        milliseconds = 0;
    }
    m_timeSeconds = seconds;
    m_timeMilliseconds = static_cast<int64_t>(seconds) * kMillisecondsPerSecond + milliseconds;
}

MSTime::MSTime(const MSTime& other) {
    *this = other;
}

MSTime& MSTime::operator=(const MSTime& other) {
    m_startSeconds.store(other.m_startSeconds.load(std::memory_order_relaxed),
                         std::memory_order_relaxed);
    m_startMilliseconds.store(other.m_startMilliseconds.load(std::memory_order_relaxed),
                              std::memory_order_relaxed);
    m_offsetMilliseconds.store(other.m_offsetMilliseconds.load(std::memory_order_relaxed),
                               std::memory_order_relaxed);
    return *this;
}

void MSTime::SetStartTime(MSTimeStruct start) {
    const MSTimeStruct now = MSTimeStruct::GetCurrentTimeMS();
    const MSTimeStruct offset(0, now.m_timeMilliseconds - start.m_timeMilliseconds);
    m_offsetMilliseconds.store(offset.m_timeMilliseconds, std::memory_order_relaxed);
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: Current Time=%s; Raw Seconds = %lld; Start Time=%s; Offset Time = %s\n",
                   DebugAppName(), "libReplay::MSTime::SetStartTime", now.ToString().c_str(),
                   static_cast<long long>(now.m_timeSeconds), start.ToString().c_str(),
                   offset.ToString().c_str());
    }
    m_startSeconds.store(start.m_timeSeconds, std::memory_order_relaxed);
    m_startMilliseconds.store(start.m_timeMilliseconds, std::memory_order_relaxed);
}

MSTime::MSTimeStruct MSTime::ExecutionTimeMS() const {
    const int64_t adjustedTime = MSTimeStruct::GetCurrentTimeMS().m_timeMilliseconds -
                                 m_offsetMilliseconds.load(std::memory_order_relaxed);
    if (adjustedTime <= 0) {
        FileLogger::LogAssertion(344, kSourceFile, "adjustedTime > 0");
    }
    return MSTimeStruct(0, adjustedTime);
}

MSTime::MSTimeStruct MSTime::GetStartTime() const {
    return MSTimeStruct(m_startSeconds.load(std::memory_order_relaxed),
                        m_startMilliseconds.load(std::memory_order_relaxed));
}

MSTime::MSTimeStruct MSTime::GetOffsetTime() const {
    return MSTimeStruct(0, m_offsetMilliseconds.load(std::memory_order_relaxed));
}

// Slots are rounded to the nearest tenth, so .951 to .999 give slot 10 rather
// than slot 0 of the next second; clients and server agree on this.
unsigned int GetTimeSlotFromTime(MSTime::MSTimeStruct time) {
    const int32_t milliseconds =
        static_cast<int32_t>(static_cast<uint32_t>(time.m_timeMilliseconds & 0xffffffff));
    if (milliseconds < 0) {
        FileLogger::LogAssertion(370, kSourceFile, "milliseconds >= 0");
    }
    int slot = (milliseconds % 1000) / static_cast<int>(kMillisecondsPerSlot);
    if (milliseconds % static_cast<int>(kMillisecondsPerSlot) > kSlotRoundingMilliseconds) {
        ++slot;
    }
    return static_cast<unsigned int>(slot);
}

unsigned int GetTimeSlotFromCurrentTime() {
    return GetTimeSlotFromTime(MSTime::MSTimeStruct::GetCurrentTimeMS());
}

}  // namespace ReplayCore
