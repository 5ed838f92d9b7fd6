#include "server/RecordTimeWindow.h"

#include <cstdlib>

namespace ReplayServer {

bool RecordTimeWindow::Accept(const std::string& name, int64_t recordTimeMs, int64_t serverNowMs) {
    if (m_windowMs <= 0) {
        return true;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_clocks.find(name);
    if (found == m_clocks.end()) {
        if (m_clocks.size() >= kMaximumNames) {
            auto oldest = m_clocks.begin();
            for (auto it = m_clocks.begin(); it != m_clocks.end(); ++it) {
                if (it->second.lastSeenMs < oldest->second.lastSeenMs) {
                    oldest = it;
                }
            }
            m_clocks.erase(oldest);
        }
        m_clocks.emplace(name, ClientClock{recordTimeMs - serverNowMs, serverNowMs});
        return true;
    }
    ClientClock& clock = found->second;
    const int64_t expected = serverNowMs + clock.offsetMs;
    if (std::llabs(recordTimeMs - expected) > m_windowMs) {
        ++m_refused;
        return false;
    }
    // The offset stays as the first record set it: moving it with accepted
    // records would let a series of records each just inside the window
    // walk it as far as they like.
    clock.lastSeenMs = serverNowMs;
    return true;
}

}  // namespace ReplayServer
