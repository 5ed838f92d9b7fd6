#include "support/WaitFor.h"

#include <thread>

namespace ReplaySupport {

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline,
             std::chrono::milliseconds poll) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return condition();
        }
        std::this_thread::sleep_for(poll);
    }
    return true;
}

}  // namespace ReplaySupport
