#ifndef SUPPORT_WAITFOR_H
#define SUPPORT_WAITFOR_H

#include <chrono>
#include <functional>

namespace ReplaySupport {

// Polls `condition` every `poll` until it holds or `deadline` has passed;
// returns its last value (so a condition that comes true at the deadline
// still counts).
bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline,
             std::chrono::milliseconds poll = std::chrono::milliseconds(1));

}  // namespace ReplaySupport

#endif
