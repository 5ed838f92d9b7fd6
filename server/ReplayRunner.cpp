#include "server/ReplayRunner.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "libreplay/server/FileLogger.h"

using ReplayCore::MSTime;

namespace ReplayServer {

using ReplayPlatform::Status;

namespace {

constexpr int kClientPollMs = 50;
// How often a replay at "max" rate looks for the clients' reports.
constexpr int kReportPollMs = 1;

std::string Seconds(int64_t ms) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f s", static_cast<double>(ms) / 1000.0);
    return text;
}

}  // namespace

ReplayRunner::ReplayRunner(ReplayServer& server, const ReplayPlan& plan,
                           const ReplaySettings& settings)
    : m_server(server), m_plan(plan), m_settings(settings) {}

int64_t ReplayRunner::NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
        .count();
}

int64_t ReplayRunner::NowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
        .count();
}

ReplayRunner::Clock::time_point ReplayRunner::At(int64_t ms) {
    return Clock::time_point(std::chrono::milliseconds(ms));
}

void ReplayRunner::Cancel() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_cancelled = true;
    m_wake.notify_all();
    m_server.Deliveries().Wake();
}

bool ReplayRunner::WaitUntil(Clock::time_point when) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_wake.wait_until(lock, when, [this] { return m_cancelled; });
    return !m_cancelled;
}

bool ReplayRunner::WaitForClients(ReplayResult& result) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(m_settings.clientWaitMs);
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
        if (Clock::now() >= deadline) {
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
        if (!WaitUntil(Clock::now() + std::chrono::milliseconds(kClientPollMs))) {
            return false;
        }
    }
}

bool ReplayRunner::WaitForDelivery(ReplayResult& result) {
    ReplayDeliveryTracker& deliveries = m_server.Deliveries();
    // A client that has never reported (gone, or not replaying) is not
    // waited for; it is named below all the same.
    m_pacer->WaitForDelivered(Clock::now() + std::chrono::milliseconds(m_settings.deliveryWaitMs));
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_cancelled) {
            return false;
        }
    }
    result.undeliveredClients.clear();
    for (const ClientDelivery& client : deliveries.Snapshot()) {
        if (client.recordsReported < client.recordsSent) {
            result.undeliveredClients.push_back(client.name);
        }
    }
    result.deliveredAll = result.undeliveredClients.empty();
    return true;
}

void ReplayRunner::StopClients() {
    for (const std::string& name : m_plan.clients) {
        m_server.CommandClient(name, ReplayCore::eStateStopped);
    }
}

void ReplayRunner::SetClientClocks(int64_t logMs) {
    // A client's replay time is its clock plus its latency.
    const std::string clock =
        "l=" + MSTime::MSTimeStruct(0, logMs - m_settings.networkingLatencyMs).ToString();
    for (const std::string& name : m_plan.clients) {
        m_server.CommandClient(name, ReplayCore::eStateReplay, clock);
    }
}

size_t ReplayRunner::RecordAt(int64_t logMs) const {
    const auto found = std::lower_bound(
        m_plan.records.begin(), m_plan.records.end(), logMs,
        [](const PlannedRecord& record, int64_t time) { return record.timeMs < time; });
    return static_cast<size_t>(found - m_plan.records.begin());
}

void ReplayRunner::NoteSequence(const PlannedRecord& record) {
    unsigned int& highest = m_highestSequence[record.client];
    if (highest != 0 && record.sequence > highest + 1) {
        m_result.skippedBySeek[record.client] += record.sequence - highest - 1;
    }
    highest = std::max(highest, record.sequence);
}

bool ReplayRunner::SendUnscheduled(const PlannedRecord& record, int64_t dueUs) {
    if (m_server
            .SendRecord(record.client, record.record, static_cast<int>(record.sequence), dueUs,
                        record.timeMs)
            .IsError()) {
        ++m_result.sendFailures;
        return false;
    }
    if (record.sequence != 0) {
        NoteSequence(record);
    }
    return true;
}

void ReplayRunner::SendStateBefore(int64_t logMs) {
    const size_t at = RecordAt(logMs);
    std::set<std::string> pending = m_plan.clients;
    for (size_t i = at; i > 0 && !pending.empty(); --i) {
        const PlannedRecord& record = m_plan.records[i - 1];
        if (pending.erase(record.client) != 0) {
            // Its time lies before the clocks' reading: handed over at once.
            SendUnscheduled(record);
        }
    }
    // No item of theirs since the start: the state they had there.
    for (const PlannedRecord& record : m_plan.state) {
        if (pending.count(record.client) != 0) {
            SendUnscheduled(record);
        }
    }
}

void ReplayRunner::SendRecord(size_t index, int64_t dueMs) {
    const PlannedRecord& record = m_plan.records[index];
    const int64_t now = NowMs();
    if (m_maxRate || m_schedule.Rate() != 1.0) {
        // The client's clock runs at the recorded pace: away from it the
        // clock is set to the record's time just before the record, which
        // then goes out at its own moment and is handed over at once.
        m_server.CommandClient(
            record.client, ReplayCore::eStateReplay,
            "l=" +
                MSTime::MSTimeStruct(0, record.timeMs - m_settings.networkingLatencyMs).ToString());
    }
    m_result.maxSendLatenessMs = std::max<int64_t>(m_result.maxSendLatenessMs, now - dueMs);
    // At the highest rate, and for a step while paused, an item has no
    // moment of its own to be held to.
    const int64_t moment =
        m_maxRate || m_schedule.Paused() ? INT64_MAX : m_schedule.DueAt(record.timeMs);
    const int64_t handOverUs =
        moment == INT64_MAX ? ReplayDeliveryTracker::kUntimed : moment * 1000;
    if (SendUnscheduled(record, handOverUs)) {
        ++m_result.recordsSent;
    }
    // Handed over on arrival: the clients are idle from now on.
    m_clientsIdleMs = std::max(m_clientsIdleMs, now);
}

void ReplayRunner::Reanchor(int64_t logMs, int64_t nowMs) {
    // The new clock setting follows the last record sent, which the client
    // hands over on the clock it was sent for.
    const int64_t at = std::max(nowMs, m_clientsIdleMs + 1);
    m_schedule.Seek(logMs, at);
    m_clockDueMs = at;
    m_wake.notify_all();
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
    std::unique_lock<std::mutex> lock(m_mutex);
    m_result = result;
    m_pacer.reset(new ReplayPacer(m_server.Deliveries(), m_settings.pacing));
    // The line starts a lead time before the first item: the clock
    // settings, initialisation and state records reach every client first.
    const int64_t anchor = NowMs();
    const int64_t originMs = m_plan.startMs - m_settings.serverLeadTimeMs;
    m_schedule = ReplaySchedule(originMs, anchor);
    SetClientClocks(originMs);
    // After the clock, so that a client hands these over at once: their
    // times lie before the start.
    for (const PlannedRecord& record : m_plan.initialisation) {
        m_result.initialisationSent += SendUnscheduled(record) ? 1 : 0;
    }
    for (const PlannedRecord& record : m_plan.state) {
        m_result.stateSent += SendUnscheduled(record) ? 1 : 0;
    }
    m_started = true;
    ReplayCore::FileLogger::LogToFile(ReplayCore::FileLogger::eSeverityInfo,
                                      "ReplayManager: replay of %zu records started",
                                      m_plan.records.size());

    ReplayProgress progress;
    progress.total = m_plan.records.size();
    progress.durationMs = m_plan.DurationMs();
    int64_t nextProgress = anchor;
    bool cancelled = false;
    for (;;) {
        if (m_cancelled) {
            cancelled = true;
            break;
        }
        const int64_t now = NowMs();
        if (m_schedule.Paused()) {
            m_wake.wait(lock);
            continue;
        }
        if (m_clockDueMs != INT64_MIN) {
            if (now < m_clockDueMs) {
                m_wake.wait_until(lock, At(m_clockDueMs));
                continue;
            }
            SetClientClocks(m_schedule.LogTimeAt(now));
            m_clockDueMs = INT64_MIN;
        }
        if (m_settings.progress && now >= nextProgress) {
            progress.sent = m_next;
            progress.replayMs = std::min(m_schedule.LogTimeAt(now), m_plan.endMs) - m_plan.startMs;
            m_settings.progress(progress);
            nextProgress = now + m_settings.progressIntervalMs;
        }
        if (m_next < m_plan.records.size()) {
            const PlannedRecord& record = m_plan.records[m_next];
            if (m_maxRate) {
                // One record in flight per client: the next goes when the
                // client has reported the one before.
                if (m_server.Deliveries().Outstanding(record.client) > 0) {
                    m_wake.wait_for(lock, std::chrono::milliseconds(kReportPollMs));
                    continue;
                }
                SendRecord(m_next, now);
                m_schedule.Seek(record.timeMs, now);
                ++m_next;
                continue;
            }
            const int64_t leadUs = m_schedule.Rate() == 1.0 ? m_settings.pacing.sendAheadUs : 0;
            const int64_t dueUs = m_schedule.DueAt(record.timeMs) * 1000 - leadUs;
            if (NowUs() < dueUs) {
                m_wake.wait_until(lock, Clock::time_point(std::chrono::microseconds(dueUs)));
                continue;
            }
            // No more than a window unreported per client, so that its
            // socket never overflows: waited for without the lock, so that
            // control calls are answered meanwhile.
            const size_t index = m_next;
            lock.unlock();
            const bool room = m_pacer->WaitForRoom(record.client);
            lock.lock();
            // Meanwhile a control call may have moved, paused or re-timed
            // the replay: then everything is looked at again.
            if (!room || index != m_next || m_schedule.Paused() || m_cancelled ||
                m_clockDueMs != INT64_MIN ||
                NowUs() < m_schedule.DueAt(record.timeMs) * 1000 - leadUs) {
                continue;
            }
            SendRecord(m_next, std::max(dueUs / 1000, anchor));
            ++m_next;
            continue;
        }
        // Past the last record: start again, or let the clients hand it
        // over before they are stopped. At max rate the last record was due
        // when it went out.
        const int64_t lastDue = m_maxRate ? m_clientsIdleMs : m_schedule.DueAt(m_plan.endMs);
        if (m_loop) {
            if (now < lastDue) {
                m_wake.wait_until(lock, At(lastDue));
                continue;
            }
            ++m_result.loops;
            m_next = 0;
            // Each client starts the next pass from its state at the start.
            SendStateBefore(m_plan.startMs);
            Reanchor(m_plan.startMs, now);
            continue;
        }
        const int64_t done = lastDue + m_settings.networkingLatencyMs + m_settings.endGraceMs;
        if (now < done) {
            m_wake.wait_until(lock, At(done));
            continue;
        }
        break;
    }
    m_ended = true;
    lock.unlock();
    ReplayResult delivery;
    if (!cancelled) {
        cancelled = !WaitForDelivery(delivery);
    }
    lock.lock();
    result = m_result;
    lock.unlock();
    result.undeliveredClients = delivery.undeliveredClients;
    result.deliveredAll = delivery.deliveredAll;
    result.pacingStalls = m_pacer->Stalls();
    if (m_settings.progress) {
        progress.sent = progress.total;
        progress.replayMs = m_plan.DurationMs();
        m_settings.progress(progress);
    }
    StopClients();
    m_server.SetReplaying(false);
    result.cancelled = cancelled;
    result.completed = !cancelled;
    return result;
}

Status ReplayRunner::CheckStarted() const {
    if (m_cancelled || m_ended) {
        return Status::Failure("the replay is ending");
    }
    if (!m_started) {
        return Status::Failure("the replay is still waiting for its clients");
    }
    return Status::Ok();
}

Status ReplayRunner::CheckSteppable(bool atEnd) const {
    Status started = CheckStarted();
    if (!started.IsOk()) {
        return started;
    }
    if (!m_schedule.Paused()) {
        return Status::Failure("step works while paused; pause first");
    }
    if (atEnd) {
        return Status::Failure("at the end of the replay");
    }
    return Status::Ok();
}

Status ReplayRunner::Pause() {
    std::lock_guard<std::mutex> lock(m_mutex);
    Status started = CheckStarted();
    if (!started.IsOk()) {
        return started;
    }
    if (!m_schedule.Pause(NowMs())) {
        return Status::Failure("already paused");
    }
    m_wake.notify_all();
    return Status::Ok();
}

Status ReplayRunner::Resume() {
    std::lock_guard<std::mutex> lock(m_mutex);
    Status started = CheckStarted();
    if (!started.IsOk()) {
        return started;
    }
    const int64_t now = NowMs();
    if (!m_schedule.Resume(now)) {
        return Status::Failure("not paused");
    }
    Reanchor(m_schedule.LogTimeAt(now), now);
    return Status::Ok();
}

Status ReplayRunner::Seek(int64_t offsetMs) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Status started = CheckStarted();
    if (!started.IsOk()) {
        return started;
    }
    if (offsetMs < 0 || offsetMs > m_plan.DurationMs()) {
        return Status::Failure("the replay lasts " + Seconds(m_plan.DurationMs()) +
                               "; cannot seek to " + Seconds(offsetMs));
    }
    const int64_t target = m_plan.startMs + offsetMs;
    const int64_t now = NowMs();
    m_next = RecordAt(target);
    // The clocks first, then the state records, whose times lie before
    // them: the clients hand those over at once.
    SetClientClocks(target);
    SendStateBefore(target);
    Reanchor(target, now);
    return Status::Ok();
}

Status ReplayRunner::StepRecords(size_t count) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Status steppable = CheckSteppable(m_next >= m_plan.records.size());
    if (!steppable.IsOk()) {
        return steppable;
    }
    const size_t end = std::min(m_plan.records.size(), m_next + count);
    const int64_t last = m_plan.records[end - 1].timeMs;
    SetClientClocks(last);
    const int64_t now = NowMs();
    for (; m_next < end; ++m_next) {
        SendRecord(m_next, now);
    }
    m_schedule.Seek(last, now);
    return Status::Ok();
}

Status ReplayRunner::StepTime(int64_t ms) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Status steppable = CheckSteppable(m_schedule.LogTimeAt(0) >= m_plan.endMs);
    if (!steppable.IsOk()) {
        return steppable;
    }
    const int64_t target = std::min(m_plan.endMs, m_schedule.LogTimeAt(0) + ms);
    SetClientClocks(target);
    const int64_t now = NowMs();
    for (; m_next < m_plan.records.size() && m_plan.records[m_next].timeMs <= target; ++m_next) {
        SendRecord(m_next, now);
    }
    m_schedule.Seek(target, now);
    return Status::Ok();
}

Status ReplayRunner::SetRate(double rate) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Status started = CheckStarted();
    if (!started.IsOk()) {
        return started;
    }
    const int64_t now = NowMs();
    const int64_t position = m_schedule.LogTimeAt(now);
    if (!m_schedule.SetRate(rate, now)) {
        char text[96];
        std::snprintf(text, sizeof text, "the rate goes from %g to %g, or max",
                      ReplaySchedule::kMinimumRate, ReplaySchedule::kMaximumRate);
        return Status::Failure(text);
    }
    const bool wasMax = m_maxRate;
    m_maxRate = false;
    if (!m_schedule.Paused()) {
        Reanchor(wasMax && m_next > 0 ? m_plan.records[m_next - 1].timeMs : position, now);
    }
    return Status::Ok();
}

Status ReplayRunner::SetMaxRate() {
    std::lock_guard<std::mutex> lock(m_mutex);
    Status started = CheckStarted();
    if (!started.IsOk()) {
        return started;
    }
    m_maxRate = true;
    m_wake.notify_all();
    return Status::Ok();
}

void ReplayRunner::SetLoop(bool loop) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_loop = loop;
    m_wake.notify_all();
}

ReplayPosition ReplayRunner::Position() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    ReplayPosition position;
    position.started = m_started;
    position.paused = m_schedule.Paused();
    position.loop = m_loop;
    position.maxRate = m_maxRate;
    position.rate = m_schedule.Rate();
    position.startMs = m_plan.startMs;
    position.endMs = m_plan.endMs;
    position.records = m_plan.records.size();
    position.nextRecord = m_next;
    position.recordsSent = m_result.recordsSent;
    position.loops = m_result.loops;
    position.skippedBySeek = m_result.skippedBySeek;
    if (!m_started) {
        position.logMs = m_plan.startMs;
    } else if (m_maxRate) {
        position.logMs = m_next > 0 ? m_plan.records[m_next - 1].timeMs : m_plan.startMs;
    } else {
        position.logMs =
            std::max(m_plan.startMs, std::min(m_plan.endMs, m_schedule.LogTimeAt(NowMs())));
    }
    return position;
}

}  // namespace ReplayServer
