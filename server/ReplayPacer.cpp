#include "server/ReplayPacer.h"

namespace ReplayServer {

ReplayPacer::ReplayPacer(ReplayDeliveryTracker& deliveries, const PacingSettings& settings)
    : m_deliveries(deliveries), m_settings(settings) {}

bool ReplayPacer::WaitForRoom(const std::string& client) {
    const ClientDelivery delivery = m_deliveries.Get(client);
    if (delivery.recordsSent < delivery.recordsReported + m_settings.window) {
        return true;
    }
    const auto unpaced = m_unpaced.find(client);
    if (unpaced != m_unpaced.end()) {
        if (delivery.recordsReported == unpaced->second) {
            return true;  // still silent: not waited for
        }
        m_unpaced.erase(unpaced);
    }
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(m_settings.stallMs);
    if (m_deliveries.WaitForReported(client, delivery.recordsSent - m_settings.window + 1,
                                     deadline)) {
        return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
        ++m_stalls;
        m_unpaced[client] = m_deliveries.Get(client).recordsReported;
    }
    return false;
}

bool ReplayPacer::WaitForDelivered(std::chrono::steady_clock::time_point deadline) {
    for (const ClientDelivery& client : m_deliveries.Snapshot()) {
        if (client.recordsReported > 0 &&
            !m_deliveries.WaitForReported(client.name, client.recordsSent, deadline)) {
            return false;
        }
    }
    return true;
}

}  // namespace ReplayServer
