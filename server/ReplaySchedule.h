#ifndef SERVER_REPLAYSCHEDULE_H
#define SERVER_REPLAYSCHEDULE_H

// Maps log time to the moment it is due under the operator's control: pause,
// resume, seek and a rate. Pure arithmetic on injected times (milliseconds of
// a monotonic clock), so that every rule is testable without sleeping.
//
// The schedule is one straight line through an anchor: at `anchorNowMs` the
// replay stands at `anchorLogMs`, and log time runs `rate` times as fast as
// the clock. Every change re-anchors at the current position, so a change
// never moves what has already been played. The rate is kept in thousandths
// and the arithmetic in integers, so that DueAt and LogTimeAt are exact
// inverses: a log time is never due before the schedule has reached it.

#include <cstdint>

namespace ReplayServer {

class ReplaySchedule {
  public:
    static constexpr double kMinimumRate = 0.1;
    static constexpr double kMaximumRate = 10.0;
    // DueAt while paused: never.
    static constexpr int64_t kNever = INT64_MAX;

    // Playing at rate 1 from `startLogMs` at `nowMs`.
    ReplaySchedule(int64_t startLogMs, int64_t nowMs);

    // The log time the replay has reached at `nowMs` (frozen while paused,
    // and the anchor's before the anchor).
    int64_t LogTimeAt(int64_t nowMs) const;
    // The moment at which `logMs` is due; kNever while paused. Log times
    // already passed are due in the past.
    int64_t DueAt(int64_t logMs) const;

    bool Paused() const { return m_paused; }
    double Rate() const { return static_cast<double>(m_rateThousandths) / 1000.0; }
    // Where the last change anchored the line, for a client clock that runs
    // at rate 1 from that point.
    int64_t AnchorLogMs() const { return m_anchorLogMs; }
    int64_t AnchorNowMs() const { return m_anchorNowMs; }

    // Each returns false (and changes nothing) when it does not apply:
    // pausing a paused schedule, resuming a playing one, a rate outside
    // kMinimumRate..kMaximumRate. The rate is rounded to thousandths.
    bool Pause(int64_t nowMs);
    bool Resume(int64_t nowMs);
    bool SetRate(double rate, int64_t nowMs);
    // Moves the position to `logMs`; a paused schedule stays paused there.
    void Seek(int64_t logMs, int64_t nowMs);

  private:
    int64_t m_anchorLogMs;
    int64_t m_anchorNowMs;
    int64_t m_rateThousandths = 1000;
    bool m_paused = false;
};

}  // namespace ReplayServer

#endif
