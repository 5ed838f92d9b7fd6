#ifndef REPLAYMANAGER_MONOTONICCLOCK_H
#define REPLAYMANAGER_MONOTONICCLOCK_H

#include <time.h>

namespace ReplayCore {

// Reads the monotonic clock, or the clock source a test installed with
// SetClockSourceForTesting. False when the clock cannot be read.
bool ReadMonotonicClock(timespec& now);

}  // namespace ReplayCore

#endif
