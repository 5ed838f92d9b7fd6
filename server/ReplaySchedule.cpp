#include "server/ReplaySchedule.h"

#include <cmath>

namespace ReplayServer {

namespace {

// Rounds towards minus infinity (integer division rounds towards zero).
int64_t FloorDivide(int64_t numerator, int64_t denominator) {
    const int64_t quotient = numerator / denominator;
    return quotient * denominator > numerator ? quotient - 1 : quotient;
}

}  // namespace

ReplaySchedule::ReplaySchedule(int64_t startLogMs, int64_t nowMs)
    : m_anchorLogMs(startLogMs), m_anchorNowMs(nowMs) {}

int64_t ReplaySchedule::LogTimeAt(int64_t nowMs) const {
    // Before its anchor (a line that starts once the clients are ready) the
    // schedule stands at the anchor.
    if (m_paused || nowMs <= m_anchorNowMs) {
        return m_anchorLogMs;
    }
    return m_anchorLogMs + FloorDivide((nowMs - m_anchorNowMs) * m_rateThousandths, 1000);
}

int64_t ReplaySchedule::DueAt(int64_t logMs) const {
    if (m_paused) {
        return kNever;
    }
    // Rounded up: never early.
    return m_anchorNowMs - FloorDivide(-(logMs - m_anchorLogMs) * 1000, m_rateThousandths);
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
    m_rateThousandths = std::llround(rate * 1000);
    return true;
}

void ReplaySchedule::Seek(int64_t logMs, int64_t nowMs) {
    m_anchorLogMs = logMs;
    m_anchorNowMs = nowMs;
}

}  // namespace ReplayServer
