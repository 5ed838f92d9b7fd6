#include "server/ReplayDelivery.h"

#include <algorithm>
#include <cstdlib>

#include "libreplay/ReplayCore.h"

using ReplayCore::ReplayStateManager;

namespace ReplayServer {

namespace {

// The text a client sends with a record it dropped for its checksum.
constexpr const char* kChecksumErrorText = "Checksum Error";

// A client's report is "#replay" alone or "#replay k=text;" (one keyed
// argument). Parsed here without the library's command parser, which logs an
// assertion for a command without arguments: every bare report would.
bool SplitReplayReport(const std::string& payload, char& key, std::string& text) {
    const std::string word = std::string("#") + ReplayStateManager::s_replayCmd;
    if (payload.compare(0, word.size(), word) != 0) {
        return false;
    }
    key = 0;
    text.clear();
    const size_t argsStart = word.size() + 1;
    const size_t end = payload.rfind(';');
    if (end == std::string::npos || end < argsStart + 2 || payload[argsStart + 1] != '=') {
        return true;
    }
    key = payload[argsStart];
    text = payload.substr(argsStart + 2, end - argsStart - 2);
    return true;
}

int64_t SteadyNowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

size_t DeliveryTiming::BucketOf(int64_t magnitudeUs) {
    const int64_t fineEndUs = static_cast<int64_t>(kFineBuckets) * kFineBucketUs;
    if (magnitudeUs < fineEndUs) {
        return static_cast<size_t>(magnitudeUs / kFineBucketUs);
    }
    const size_t coarse = static_cast<size_t>((magnitudeUs - fineEndUs) / kCoarseBucketUs);
    return kFineBuckets + std::min(coarse, kCoarseBuckets - 1);
}

int64_t DeliveryTiming::BucketEndUs(size_t bucket) {
    if (bucket < kFineBuckets) {
        return static_cast<int64_t>(bucket + 1) * kFineBucketUs;
    }
    return static_cast<int64_t>(kFineBuckets) * kFineBucketUs +
           static_cast<int64_t>(bucket - kFineBuckets + 1) * kCoarseBucketUs;
}

void DeliveryTiming::Add(int64_t logMs, int64_t errorUs) {
    const int64_t magnitude = std::llabs(errorUs);
    ++items;
    sumAbsUs += magnitude;
    maxAbsUs = std::max(maxAbsUs, magnitude);
    ++histogram[BucketOf(magnitude)];
    recent.emplace_back(logMs, errorUs);
    if (recent.size() > kRecent) {
        recent.pop_front();
    }
}

double DeliveryTiming::PercentileMs(double fraction) const {
    const double wanted = fraction * static_cast<double>(items);
    uint64_t seen = 0;
    for (size_t bucket = 0; bucket < kBuckets; ++bucket) {
        seen += histogram[bucket];
        if (items > 0 && static_cast<double>(seen) >= wanted) {
            // The last bucket has no upper edge: the maximum bounds it.
            return bucket == kBuckets - 1
                       ? MaxMs()
                       : std::min(static_cast<double>(BucketEndUs(bucket)) / 1000.0, MaxMs());
        }
    }
    return MaxMs();
}

void ReplayDeliveryTracker::Reset() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_clients.clear();
    m_unreported.clear();
    m_changed.notify_all();
}

void ReplayDeliveryTracker::NoteSent(const std::string& client, int64_t dueUs, int64_t logMs) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ClientDelivery& entry = m_clients[client];
    entry.name = client;
    ++entry.recordsSent;
    m_unreported[client].push_back({dueUs, logMs});
}

void ReplayDeliveryTracker::NoteReport(const std::string& client, const std::string& payload) {
    char key = 0;
    std::string text;
    if (!SplitReplayReport(payload, key, text)) {
        return;
    }

    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_clients.find(client);
    if (found == m_clients.end()) {
        return;  // nothing was sent to it in this replay
    }
    ClientDelivery& entry = found->second;
    entry.lastReport = key == 0 ? std::string() : std::string(1, key) + "=" + text;
    entry.lastReportAt = std::chrono::steady_clock::now();
    if (key == 'd') {
        // The client's running total; the record's own report follows.
        entry.missed = std::strtoull(text.c_str(), nullptr, 10);
        return;
    }
    if (key == 'w' && text == kChecksumErrorText) {
        ++entry.checksumErrors;
    }
    std::deque<SentRecord>& unreported = m_unreported[client];
    if (unreported.empty()) {
        return;
    }
    const SentRecord oldest = unreported.front();
    // A report with text (a checksum error, an item too far ahead) comes
    // when the record is dropped, not at its moment: counted, not timed.
    if (oldest.dueUs != kUntimed && key == 0) {
        const int64_t errorUs = SteadyNowUs() - oldest.dueUs;
        if (errorUs < -kEarliestReportUs) {
            return;  // a ping while the client waits for the record's moment
        }
        entry.timing.Add(oldest.logMs, errorUs);
    }
    unreported.pop_front();
    ++entry.recordsReported;
    m_changed.notify_all();
}

std::vector<ClientDelivery> ReplayDeliveryTracker::Snapshot() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<ClientDelivery> clients;
    clients.reserve(m_clients.size());
    for (const auto& entry : m_clients) {
        clients.push_back(entry.second);
    }
    return clients;
}

ClientDelivery ReplayDeliveryTracker::Get(const std::string& client) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_clients.find(client);
    if (found != m_clients.end()) {
        return found->second;
    }
    ClientDelivery unknown;
    unknown.name = client;
    return unknown;
}

uint64_t ReplayDeliveryTracker::Outstanding(const std::string& client) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_clients.find(client);
    return found == m_clients.end() ? 0 : found->second.recordsSent - found->second.recordsReported;
}

bool ReplayDeliveryTracker::WaitForReported(const std::string& client, uint64_t count,
                                            std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const uint64_t generation = m_wakeGeneration;
    auto reached = [&] {
        const auto found = m_clients.find(client);
        const uint64_t reported = found == m_clients.end() ? 0 : found->second.recordsReported;
        return reported >= count;
    };
    m_changed.wait_until(lock, deadline,
                         [&] { return reached() || m_wakeGeneration != generation; });
    return reached();
}

void ReplayDeliveryTracker::Wake() {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_wakeGeneration;
    m_changed.notify_all();
}

}  // namespace ReplayServer
