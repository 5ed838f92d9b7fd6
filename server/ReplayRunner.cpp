#include "server/ReplayRunner.h"

#include <algorithm>
#include <cstdio>

#include "libreplay/FileLogger.h"

using ReplayCore::MSTime;

namespace ReplayServer {

namespace {

constexpr int kClientPollMs = 50;

}  // namespace

ReplayRunner::ReplayRunner(ReplayServer& server, const ReplayPlan& plan,
                           const ReplaySettings& settings)
    : m_server(server), m_plan(plan), m_settings(settings) {}

void ReplayRunner::Cancel() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_cancelled = true;
    m_wake.notify_all();
    m_server.Deliveries().Wake();
}

bool ReplayRunner::WaitUntil(std::chrono::steady_clock::time_point when) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_wake.wait_until(lock, when, [this] { return m_cancelled; });
    return !m_cancelled;
}

bool ReplayRunner::WaitForClients(ReplayResult& result) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(m_settings.clientWaitMs);
    for (;;) {
        result.missingClients.clear();
        const std::vector<ClientData> clients = m_server.Clients();
        for (const std::string& name : m_plan.clients) {
            const bool present =
                std::any_of(clients.begin(), clients.end(), [&name](const ClientData& client) {
                    return client.GetClientName() == name && !client.IsSick();
                });
            if (!present) {
                result.missingClients.push_back(name);
            }
        }
        if (result.missingClients.empty()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            std::string names;
            for (const std::string& name : result.missingClients) {
                names += (names.empty() ? "" : ", ") + name;
            }
            char waited[32];
            std::snprintf(waited, sizeof waited, "%g s", m_settings.clientWaitMs / 1000.0);
            result.error =
                "recorded clients not connected after " + std::string(waited) + ": " + names;
            return false;
        }
        if (!WaitUntil(std::chrono::steady_clock::now() +
                       std::chrono::milliseconds(kClientPollMs))) {
            return false;
        }
    }
}

void ReplayRunner::StopClients() {
    for (const std::string& name : m_plan.clients) {
        m_server.CommandClient(name, ReplayCore::eStateStopped);
    }
}

ReplayResult ReplayRunner::Run() {
    ReplayResult result;
    m_server.SetReplaying(true);
    if (!WaitForClients(result)) {
        result.cancelled = result.error.empty();
        m_server.SetReplaying(false);
        return result;
    }

    // Into the replay state first: a client takes replayed records only there.
    for (const std::string& name : m_plan.clients) {
        m_server.CommandClient(name, ReplayCore::eStateReplay);
    }

    // A client's replay time is its clock plus its latency: starting the
    // clock at origin - latency makes it read the log time when the anchor's
    // offset does. The origin lies a lead time before the start, so that
    // every client takes its first item up well ahead of its moment and
    // waits for it, instead of handing it over at once, early.
    const int64_t originMs = m_plan.startMs - m_settings.serverLeadTimeMs;
    const std::string clock =
        "l=" + MSTime::MSTimeStruct(0, originMs - m_settings.networkingLatencyMs).ToString();
    const auto anchor = std::chrono::steady_clock::now();
    for (const std::string& name : m_plan.clients) {
        m_server.CommandClient(name, ReplayCore::eStateReplay, clock);
    }
    // After the clock, so that a client hands these over at once: their
    // times lie before the start.
    for (const std::vector<PlannedRecord>* group : {&m_plan.initialisation, &m_plan.state}) {
        for (const PlannedRecord& record : *group) {
            if (m_server.SendRecord(record.client, record.record, static_cast<int>(record.sequence))
                    .IsError()) {
                ++result.sendFailures;
            } else {
                ++(group == &m_plan.state ? result.stateSent : result.initialisationSent);
            }
        }
    }
    PacingSettings pacing = m_settings.pacing;
    pacing.serverLeadTimeMs = m_settings.serverLeadTimeMs;
    ReplayPacer pacer(m_server.Deliveries(), pacing);
    ReplayCore::FileLogger::LogToFile(ReplayCore::FileLogger::eSeverityInfo,
                                      "ReplayManager: replay of %zu records started",
                                      m_plan.records.size());

    ReplayProgress progress;
    progress.total = m_plan.records.size();
    progress.durationMs = m_plan.DurationMs();
    auto nextProgress = anchor;
    bool cancelled = false;
    for (const PlannedRecord& record : m_plan.records) {
        const auto due = anchor + std::chrono::microseconds((record.timeMs - originMs) * 1000 -
                                                            pacer.LeadUs(record));
        if (!WaitUntil(due) || (!pacer.WaitForRoom(record.client) &&
                                !WaitUntil(std::chrono::steady_clock::time_point::min()))) {
            cancelled = true;
            break;
        }
        const auto now = std::chrono::steady_clock::now();
        // Records due within the lead time of the start go out at once.
        result.maxSendLatenessMs = std::max<int64_t>(
            result.maxSendLatenessMs,
            std::chrono::duration_cast<std::chrono::milliseconds>(now - std::max(due, anchor))
                .count());
        if (m_server.SendRecord(record.client, record.record, static_cast<int>(record.sequence))
                .IsError()) {
            ++result.sendFailures;
        } else {
            ++result.recordsSent;
        }
        ++progress.sent;
        if (m_settings.progress && now >= nextProgress) {
            progress.replayMs = record.timeMs - m_plan.startMs;
            m_settings.progress(progress);
            nextProgress = now + std::chrono::milliseconds(m_settings.progressIntervalMs);
        }
    }
    if (!cancelled) {
        const auto end = anchor + std::chrono::milliseconds(m_plan.endMs - originMs +
                                                            m_settings.networkingLatencyMs +
                                                            m_settings.endGraceMs);
        cancelled = !WaitUntil(end);
    }
    if (!cancelled) {
        // A burst can still be on its way: the clients' reports say when
        // they have handed it over.
        result.deliveredAll =
            pacer.WaitForDelivered(std::chrono::steady_clock::now() +
                                   std::chrono::milliseconds(m_settings.deliveryWaitMs));
        cancelled = !WaitUntil(std::chrono::steady_clock::time_point::min());
    }
    result.pacingStalls = pacer.Stalls();
    if (m_settings.progress) {
        progress.replayMs = m_plan.DurationMs();
        m_settings.progress(progress);
    }
    StopClients();
    m_server.SetReplaying(false);
    result.cancelled = cancelled;
    result.completed = !cancelled;
    return result;
}

}  // namespace ReplayServer
