#include "server/ReplaySchedule.h"

#include <cmath>

namespace ReplayServer {

ReplaySchedule::ReplaySchedule(int64_t startLogMs, int64_t nowMs)
    : m_anchorLogMs(startLogMs), m_anchorNowMs(nowMs) {}

int64_t ReplaySchedule::LogTimeAt(int64_t nowMs) const {
    if (m_paused) {
        return m_anchorLogMs;
    }
    // Rounded down, so that a log time is never reported reached before its
    // due moment.
    return m_anchorLogMs +
           static_cast<int64_t>(std::floor(static_cast<double>(nowMs - m_anchorNowMs) * m_rate));
}

int64_t ReplaySchedule::DueAt(int64_t logMs) const {
    if (m_paused) {
        return kNever;
    }
    // Rounded up: never early.
    return m_anchorNowMs +
           static_cast<int64_t>(std::ceil(static_cast<double>(logMs - m_anchorLogMs) / m_rate));
}

bool ReplaySchedule::Pause(int64_t nowMs) {
    if (m_paused) {
        return false;
    }
    m_anchorLogMs = LogTimeAt(nowMs);
    m_anchorNowMs = nowMs;
    m_paused = true;
    return true;
}

bool ReplaySchedule::Resume(int64_t nowMs) {
    if (!m_paused) {
        return false;
    }
    m_paused = false;
    m_anchorNowMs = nowMs;
    return true;
}

bool ReplaySchedule::SetRate(double rate, int64_t nowMs) {
    if (!(rate >= kMinimumRate && rate <= kMaximumRate)) {
        return false;
    }
    m_anchorLogMs = LogTimeAt(nowMs);
    m_anchorNowMs = nowMs;
    m_rate = rate;
    return true;
}

void ReplaySchedule::Seek(int64_t logMs, int64_t nowMs) {
    m_anchorLogMs = logMs;
    m_anchorNowMs = nowMs;
}

}  // namespace ReplayServer
