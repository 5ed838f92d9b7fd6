#include "server/ReplayServer.h"

#include <arpa/inet.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "libreplay/server/ClientRecord.h"
#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"
#include "libreplay/server/ReplayLogRecord.h"
#include "server/RecordItems.h"

using ReplayCore::FileLogger;
using ReplayCore::MSTime;
using ReplayCore::ReplayState;
using ReplayCore::ReplayStateManager;

namespace ReplayServer {

namespace {

constexpr int kWriterStackSize = 65536;
constexpr int kWriterPriority = 10;
constexpr size_t kNamedRefusedSources = 5;
constexpr std::chrono::seconds kRefusalReportInterval(60);

bool IsStatusRecord(const char* data, int nBytes) {
    return nBytes > 0 && data[0] == '#';
}

}  // namespace

ReplayServer::ReplayServer(const ServerSettings& settings) : m_settings(settings) {}

ReplayServer::~ReplayServer() {
    Shutdown();
}

ReplayPlatform::Status ReplayServer::Start() {
    using ReplayPlatform::Status;
    if (m_started) {
        return Status::Ok();
    }
    // The writer first: records may arrive as soon as the socket is bound.
    m_writer.reset(new LogWriterThread(m_writerState, kWriterStackSize, kWriterPriority));
    m_writer->SetClientDataList(&GetClientDataList());
    if (!m_writer->start()) {
        m_writer.reset();
        return Status::Failure("cannot start the log writer thread");
    }
    for (int waited = 0; !LogWriterThread::PipeOpen() && waited < 2000; ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (!LogWriterThread::PipeOpen()) {
        m_writer.reset();
        return Status::Failure("the log writer thread did not open its pipe");
    }

    m_reorder.reset(
        new RecordReorderBuffer(m_settings.reorderHoldMs, m_settings.reorderByteLimit,
                                [this](const std::string& record) { return PassOn(record); }));
    m_reorder->Start();
    if (!m_settings.journalPath.empty()) {
        const Status recovered = Recover();
        if (!recovered.IsOk()) {
            // Recording still works; only a crash would cost more.
            std::printf("\nReplayManager: no crash journal: %s\n", recovered.Message().c_str());
            std::fflush(stdout);
            FileLogger::LogToFile(FileLogger::eSeverityError, "ReplayManager: no crash journal: %s",
                                  recovered.Message().c_str());
        }
    }

    if (!m_settings.bindAddress.empty()) {
        SetBindAddress(m_settings.bindAddress);
    }
    if (Open(m_settings.port, nullptr, static_cast<int>(m_settings.clientLimit)) < 0) {
        const int bindError = errno;
        m_reorder.reset();
        m_writer.reset();
        return Status::SystemFailure(
            "cannot bind UDP port " + std::to_string(m_settings.port) + " on " +
                (m_settings.bindAddress.empty() ? "0.0.0.0" : m_settings.bindAddress),
            bindError);
    }
    m_receiveBufferBytes =
        ReplaySockets::EnlargeReceiveBuffer(Socket(), m_settings.receiveBufferBytes);
    FileLogger::LogToFile(FileLogger::eSeverityInfo, "ReplayManager: receive buffer %d bytes",
                          m_receiveBufferBytes);
    m_started = true;
    return Status::Ok();
}

void ReplayServer::Shutdown() {
    if (!m_started) {
        StopReadThread();
        return;
    }
    m_started = false;
    if (GetState() == ReplayCore::eStateRecord) {
        StopRecording(0);
    } else {
        FlushWriteQueue();
    }
    // No datagram may reach the handler once the writer is gone.
    StopReadThread();
    {
        std::lock_guard<std::mutex> lock(m_openerMutex);
        if (!m_openers.empty()) {
            FileLogger::LogToFile(FileLogger::eSeverityWarning,
                                  "ReplayManager: %zu initialisation records not written: no data "
                                  "record followed them",
                                  m_openers.size());
        }
    }
    m_reorder.reset();
    m_writer.reset();
    if (m_journal != nullptr) {
        ReplayLogManager::SetWrittenHook(nullptr, nullptr);
        m_journal.reset();
    }
}

ReplayPlatform::Status ReplayServer::Recover() {
    m_journal.reset(new IngestJournal(m_settings.journalPath));
    std::vector<std::string> unwritten;
    ReplayPlatform::Status opened = m_journal->Open(unwritten);
    if (!opened.IsOk()) {
        m_journal.reset();
        return opened;
    }
    ReplayLogManager::SetWrittenHook(&ReplayServer::RecordWritten, this);
    m_journal->Start();
    if (unwritten.empty()) {
        return ReplayPlatform::Status::Ok();
    }
    // Already journaled: straight into the hold, which orders them, then a
    // flush writes them out as a segment of their own.
    size_t refused = 0;
    for (const std::string& record : unwritten) {
        ReplayCore::LogClientRecord fields;
        if (!ReplayCore::ParseLogClientRecord(record, fields) ||
            !m_reorder->Add(fields.blockTimeMs, record.data(), record.size())) {
            ++refused;
        }
    }
    m_recovered.store(unwritten.size() - refused, std::memory_order_relaxed);
    const bool flushed = FlushWriteQueue();
    char text[256];
    std::snprintf(text, sizeof text,
                  "ReplayManager: recovered %zu records received before the last exit from %s%s%s",
                  unwritten.size() - refused, m_settings.journalPath.c_str(),
                  refused > 0 ? " (some unreadable, skipped)" : "",
                  flushed ? "" : "; the log writer did not take them all");
    std::printf("\n%s\n", text);
    std::fflush(stdout);
    FileLogger::LogToFile(FileLogger::eSeverityWarning, "%s", text);
    if (flushed && refused == 0 && m_journal->WrittenCount() >= unwritten.size()) {
        m_journal->Reset();
    }
    return ReplayPlatform::Status::Ok();
}

void ReplayServer::RecordWritten(void* server, const char* record, size_t length) {
    ReplayServer* self = static_cast<ReplayServer*>(server);
    if (self != nullptr && self->m_journal != nullptr && length > 0 && record[0] != '#') {
        self->m_journal->Written(record, length);
    }
}

std::string ReplayServer::StateCommand(ReplayState state, const std::string& name,
                                       const std::string& extraArguments) {
    std::string arguments = "s=" + std::to_string(SlotOf(name));
    if (state == ReplayCore::eStateRecord) {
        // The client measures its latency against the server's clock.
        arguments += ";t=" + MSTime::CurrentTimeMS().ToString();
    }
    if (!extraArguments.empty()) {
        arguments += ";" + extraArguments;
    }
    return ReplayStateManager::GetCommandFromState(state, arguments);
}

std::string ReplayServer::NoteOf(const std::string& name) {
    std::lock_guard<std::mutex> lock(m_notesMutex);
    const auto found = m_notes.find(name);
    return found == m_notes.end() ? std::string() : found->second;
}

uint64_t ReplayServer::BytesReceivedFrom(const std::string& name) const {
    std::lock_guard<std::mutex> lock(m_progressMutex);
    const auto found = m_progress.find(name);
    return found == m_progress.end() ? 0 : found->second.bytesReceived;
}

unsigned int ReplayServer::SlotOf(const std::string& name) {
    std::lock_guard<std::mutex> lock(m_slotMutex);
    const auto found = m_slots.find(name);
    if (found != m_slots.end()) {
        return found->second;
    }
    // The least used slot, lowest first, so that up to ten clients never share.
    unsigned int uses[kTimeSlots] = {};
    for (const auto& entry : m_slots) {
        ++uses[entry.second % kTimeSlots];
    }
    unsigned int best = 0;
    for (unsigned int slot = 1; slot < kTimeSlots; ++slot) {
        if (uses[slot] < uses[best]) {
            best = slot;
        }
    }
    m_slots[name] = best;
    return best;
}

bool ReplayServer::ProcessClientMessage(const char* data, int nBytes, ClientData& client,
                                        bool isNewClient) {
    static const char* const kTag = "ReplayServer::ReplayServer::ProcessClientMessage";
    if (nBytes <= 0) {
        return false;
    }
    m_datagrams.fetch_add(1, std::memory_order_relaxed);
    StopFileLogAtItsCap();
    if (static_cast<unsigned int>(nBytes) > GetMaximumClientRecordSize()) {
        // Longer than any valid record (or cut by the receive buffer): the
        // writer's read would cut it again and store it damaged.
        m_oversized.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    if (!ReplayCore::CheckSumValid(data, static_cast<unsigned int>(nBytes))) {
        m_checksumFailures.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    const std::string record(data, static_cast<size_t>(nBytes));
    // The quiet parser: the library's record parser times itself with a
    // timer that the log writer thread uses too, so it stays on that thread.
    ReplayCore::LogClientRecord fields;
    if (!ReplayCore::ParseLogClientRecord(record, fields) || fields.clientName.empty()) {
        m_unparsable.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    const std::string& name = fields.clientName;
    const unsigned int sequence = fields.sequenceNumber;
    const size_t payloadStart = fields.payloadStart;
    const size_t payloadLength = fields.payloadLength;
    const bool status = IsStatusRecord(data, nBytes);
    if (!status && !m_recordTimes.Accept(name, fields.blockTimeMs,
                                         MSTime::CurrentTimeMS().m_timeMilliseconds)) {
        return false;  // counted; never reaches the log
    }

    bool accepted = true;
    if (isNewClient) {
        // A process announces itself with a bare status record or its
        // initialisation record (block 0); anything else from an unknown
        // port is a client that lost its entry.
        const bool isConnect = (status && payloadLength == 0) || (!status && sequence == 0);
        accepted = AcceptNewClient(name, record, isConnect, client);
        if (!accepted && client.GetClientName().empty()) {
            return false;
        }
    }
    if (status && payloadLength > 0) {
        // The client's last report (state changes, replay errors) for status.
        client.SetAuxiliaryText(record.substr(payloadStart, payloadLength));
        if (data[payloadStart] != '#' && !client.GetClientName().empty()) {
            std::lock_guard<std::mutex> lock(m_notesMutex);
            m_notes[name] = record.substr(payloadStart, payloadLength);
        }
        if (m_replaying.load(std::memory_order_relaxed) && !client.GetClientName().empty()) {
            m_deliveries.NoteReport(name, record.substr(payloadStart, payloadLength));
        }
    }
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: %s record of %d bytes from %s\n", DebugAppName(), kTag,
                   status ? "status" : "data", nBytes, name.c_str());
    }
    if (!client.GetClientName().empty()) {
        NoteClientProgress(name, status, fields.blockTimeMs, static_cast<size_t>(nBytes));
    }
    if (status) {
        m_statusRecords.fetch_add(1, std::memory_order_relaxed);
    } else if (!m_replaying.load(std::memory_order_relaxed)) {
        Hold(fields, data, static_cast<size_t>(nBytes));
    }
    return accepted;
}

void ReplayServer::Hold(const ReplayCore::LogClientRecord& fields, const char* data, size_t size) {
    const int64_t moment = m_stopMomentMs.load(std::memory_order_relaxed);
    RecordCut cut;
    if (moment != INT64_MAX) {
        // Since a stop the log ends at its moment: items handed over after
        // it are not stored (counted), whole blocks or a block's tail.
        if (!KeepItemsBefore(std::string(data, size), moment, cut)) {
            return;
        }
        m_itemsAfterStop.fetch_add(cut.itemsCut, std::memory_order_relaxed);
        if (cut.itemsKept == 0) {
            m_blocksAfterStop.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        data = cut.record.data();
        size = cut.record.size();
    }
    // Never waits on the writer: this runs under the client table lock,
    // which the writer thread takes too. Journaled before it can reach the
    // writer; what the hold has no room for (counted there) is marked done
    // at once, so that a restart does not bring it back.
    if (m_journal != nullptr) {
        m_journal->Received(data, size);
    }
    if (!m_reorder->Add(fields.blockTimeMs, data, size) && m_journal != nullptr) {
        m_journal->Written(data, size);
    }
}

void ReplayServer::NoteClientProgress(const std::string& name, bool status, int64_t recordTimeMs,
                                      size_t bytes) {
    std::lock_guard<std::mutex> lock(m_progressMutex);
    ClientProgress& progress = m_progress[name];
    progress.bytesReceived += bytes;
    int64_t& newest = status ? progress.newestStatusMs : progress.newestBlockMs;
    newest = std::max(newest, recordTimeMs);
}

bool ReplayServer::ConfirmedSince(const std::string& name, int64_t momentMs) {
    std::lock_guard<std::mutex> lock(m_progressMutex);
    const auto found = m_progress.find(name);
    return found != m_progress.end() &&
           (found->second.newestBlockMs >= momentMs || found->second.newestStatusMs >= momentMs);
}

bool ReplayServer::AcceptSource(const sockaddr_in& from) {
    if (m_settings.allowedSources.Allows(from.sin_addr)) {
        return true;
    }
    m_refusedSources.fetch_add(1, std::memory_order_relaxed);
    ReportRefusedSource(from);
    return false;
}

void ReplayServer::ReportRefusedSource(const sockaddr_in& from) {
    char address[INET_ADDRSTRLEN] = {0};
    inet_ntop(AF_INET, &from.sin_addr, address, sizeof address);
    const bool named = std::find(m_namedRefusedSources.begin(), m_namedRefusedSources.end(),
                                 from.sin_addr.s_addr) != m_namedRefusedSources.end();
    if (!named && m_namedRefusedSources.size() < kNamedRefusedSources) {
        // The first few sources by name: usually a misconfigured client.
        m_namedRefusedSources.push_back(from.sin_addr.s_addr);
        std::printf(
            "\nReplayManager: refusing datagrams from %s (port %d): not in the allowed "
            "networks %s\n",
            address, ntohs(from.sin_port), m_settings.allowedSources.ToString().c_str());
        std::fflush(stdout);
        FileLogger::LogToFile(FileLogger::eSeverityWarning,
                              "Refusing datagrams from %s: not in the allowed networks", address);
        return;
    }
    // Past those a flood from many addresses costs one line a minute.
    const auto now = std::chrono::steady_clock::now();
    if (now - m_lastRefusalReport >= kRefusalReportInterval) {
        m_lastRefusalReport = now;
        const unsigned long long refused = m_refusedSources.load(std::memory_order_relaxed);
        std::printf(
            "\nReplayManager: %llu datagrams refused from sources outside the allowed "
            "networks (latest %s)\n",
            refused, address);
        std::fflush(stdout);
        FileLogger::LogToFile(FileLogger::eSeverityWarning,
                              "%llu datagrams refused from sources outside the allowed networks",
                              refused);
    }
}

bool ReplayServer::AcceptNewClient(const std::string& name, const std::string& /*record*/,
                                   bool isConnect, ClientData& client) {
    ClientDataList& table = GetClientDataList();
    ClientData* existing = table.FindByName(name);
    if (existing == nullptr && table.Size(false) >= m_settings.clientLimit &&
        !MakeRoomFromSilentClient(table, name)) {
        m_refusedClients.fetch_add(1, std::memory_order_relaxed);
        ReportRefusal(name, client.GetPort());
        return false;
    }
    if (client.GetClientName().empty()) {
        client.SetClientName(name);
    }
    client.SetProtocol(ClientData::eProtocolDefault);

    // Tell the newcomer its slot and the state it should be in. A client that
    // joins during replay has nothing recorded to receive: it stays stopped.
    const ReplayState state = GetState() == ReplayCore::eStateRecord ? ReplayCore::eStateRecord
                                                                     : ReplayCore::eStateStopped;
    const std::string command = StateCommand(state, name, "");
    SendTo(command.data(), static_cast<unsigned int>(command.size()), client);

    if (existing == nullptr) {
        return true;
    }
    if (isConnect && !existing->IsSick()) {
        // The same name connecting from a new port: the old process is gone
        // (a process announces itself once). Marking its entry failed lets
        // the table replace it instead of treating the two as duplicates.
        existing->SetStatus(ClientData::Failed);
        std::printf("\nReplayManager: client %s restarted (port %d, was %d)\n", name.c_str(),
                    client.GetPort(), existing->GetPort());
        std::fflush(stdout);
    }
    // The table replaces a sick entry of this name, or marks a duplicate.
    return false;
}

bool ReplayServer::MakeRoomFromSilentClient(ClientDataList& table, const std::string& newName) {
    for (const ClientData& entry : table.Clients()) {
        if (!entry.IsSick()) {
            continue;
        }
        const std::string gone = entry.GetClientName();
        std::printf("\nReplayManager: client %s (port %d) has gone silent; its entry goes to %s\n",
                    gone.c_str(), entry.GetPort(), newName.c_str());
        std::fflush(stdout);
        table.Remove(&entry);
        std::lock_guard<std::mutex> lock(m_slotMutex);
        m_slots.erase(gone);
        return true;
    }
    return false;
}

void ReplayServer::ReportRefusal(const std::string& name, int port) {
    if (m_refusedNames.count(name) != 0) {
        return;
    }
    // Anyone can send names; only so many are remembered, so that a flood of
    // made-up names cannot grow the set without end.
    if (m_refusedNames.size() >= kNamedRefusals) {
        if (!m_refusalsUnnamed) {
            m_refusalsUnnamed = true;
            std::printf("\nReplayManager: %zu clients refused; further refusals are only counted\n",
                        kNamedRefusals);
            std::fflush(stdout);
            FileLogger::LogToFile(FileLogger::eSeverityWarning,
                                  "%zu clients refused; further refusals are only counted",
                                  kNamedRefusals);
        }
        return;
    }
    m_refusedNames.insert(name);
    std::printf("\nReplayManager: refusing client %s (port %d): limit of %zu clients reached\n",
                name.c_str(), port, m_settings.clientLimit);
    std::fflush(stdout);
    FileLogger::LogToFile(FileLogger::eSeverityWarning,
                          "Refusing client %s: limit of %zu clients reached", name.c_str(),
                          m_settings.clientLimit);
}

void ReplayServer::StopFileLogAtItsCap() {
    if (FileLogger::WritesSoFar() < FileLogger::kMaximumWrites ||
        FileLogger::GetLogginglevel() < 0) {
        return;
    }
    FileLogger::SetLogginglevel(-1);
    std::printf("\nReplayManager: %s has its %u entries; nothing more is logged to it\n",
                FileLogger::kLogFileLocation, FileLogger::kMaximumWrites);
    std::fflush(stdout);
}

bool ReplayServer::PassOn(const std::string& record) {
    std::vector<std::string> openers;
    {
        std::lock_guard<std::mutex> lock(m_openerMutex);
        if (!m_logOpened) {
            ReplayCore::LogClientRecord fields;
            if (ReplayCore::ParseLogClientRecord(record, fields) && fields.sequenceNumber == 0) {
                m_openers.push_back(record);
                return true;
            }
            m_logOpened = true;
            openers.swap(m_openers);
        }
    }
    bool passed = Forward(record);
    for (const std::string& opener : openers) {
        passed = Forward(opener) && passed;
    }
    return passed;
}

bool ReplayServer::Forward(const std::string& record) {
    std::lock_guard<std::mutex> lock(m_forwardMutex);
    const int size = static_cast<int>(record.size());
    if (record.size() > GetMaximumClientRecordSize()) {
        // The writer reads at most that much: it would store the record cut.
        m_forwardFailures.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    if (LogWriterThread::WriteRecord(record.data(), static_cast<unsigned int>(size)) == size) {
        m_recordsForwarded.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
    m_forwardFailures.fetch_add(1, std::memory_order_relaxed);
    return false;
}

int ReplayServer::CommandAllClients(ReplayState state, const std::string& extraArguments) {
    int sent = 0;
    for (const ClientData& client : Clients()) {
        if (client.IsSick() || client.GetClientName().empty()) {
            continue;
        }
        if (!CommandClient(client.GetClientName(), state, extraArguments).IsError()) {
            ++sent;
        }
    }
    return sent;
}

ReplayError ReplayServer::CommandClient(const std::string& name, ReplayState state,
                                        const std::string& extraArguments) {
    return SendTo(name, StateCommand(state, name, extraArguments), -1, false);
}

ReplayError ReplayServer::SendRecord(const std::string& name, const std::string& record,
                                     int sequence, int64_t dueUs, int64_t logMs) {
    ReplayError result = SendTo(name, record, sequence, false);
    if (!result.IsError()) {
        m_deliveries.NoteSent(name, dueUs, logMs);
    }
    return result;
}

void ReplayServer::StartRecording() {
    m_replaying.store(false, std::memory_order_relaxed);
    m_stopMomentMs.store(INT64_MAX, std::memory_order_relaxed);
    m_state.store(ReplayCore::eStateRecord, std::memory_order_relaxed);
    GetClientDataList().ClearDroppedPacketCounts(true);
    CommandAllClients(ReplayCore::eStateRecord);
    FileLogger::LogToFile(FileLogger::eSeverityInfo, "ReplayManager: recording started");
}

bool ReplayServer::StopRecording(int drainMs) {
    if (drainMs < 0) {
        drainMs = m_settings.stopDrainMs;
    }
    const auto started = std::chrono::steady_clock::now();
    const int64_t moment = MSTime::CurrentTimeMS().m_timeMilliseconds;
    m_stopMomentMs.store(moment, std::memory_order_relaxed);
    if (m_reorder != nullptr && drainMs > 0) {
        // A slow client's last block can arrive long after the records held
        // beside it have served their hold: keep them for the final flush.
        m_reorder->Freeze(true);
    }
    std::vector<std::string> waiting;
    for (const ClientData& client : Clients()) {
        if (!client.IsSick() && !client.GetClientName().empty()) {
            waiting.push_back(client.GetClientName());
        }
    }
    {
        std::lock_guard<std::mutex> lock(m_progressMutex);
        m_stopProgress.draining = drainMs > 0;
        m_stopProgress.momentMs = moment;
        m_stopProgress.clients = waiting.size();
        m_stopProgress.waitingFor = waiting;
    }
    // Each client records on until its block holding the moment has left
    // it; the client's own rules send that block within about 5 s.
    const auto deadline = started + std::chrono::milliseconds(drainMs);
    while (drainMs > 0 && !waiting.empty() && std::chrono::steady_clock::now() < deadline) {
        for (auto name = waiting.begin(); name != waiting.end();) {
            if (ConfirmedSince(*name, moment)) {
                CommandClient(*name, ReplayCore::eStateStopped);
                name = waiting.erase(name);
            } else {
                ++name;
            }
        }
        {
            std::lock_guard<std::mutex> lock(m_progressMutex);
            m_stopProgress.waitingFor = waiting;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    m_state.store(ReplayCore::eStateStopped, std::memory_order_relaxed);
    CommandAllClients(ReplayCore::eStateStopped);
    if (m_settings.stopSettleMs > 0 && drainMs > 0) {
        // Blocks still on their way when the clients were told to stop.
        std::this_thread::sleep_for(std::chrono::milliseconds(m_settings.stopSettleMs));
    }
    const int64_t tookMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::steady_clock::now() - started)
                               .count();
    {
        std::lock_guard<std::mutex> lock(m_progressMutex);
        m_stopProgress.draining = false;
        m_stopProgress.waitingFor.clear();
        m_stopProgress.lastDurationMs = tookMs;
        m_stopProgress.lastUnconfirmed = drainMs > 0 ? waiting : std::vector<std::string>();
    }
    if (drainMs > 0 && !waiting.empty()) {
        std::string names;
        for (const std::string& name : waiting) {
            names += (names.empty() ? "" : ", ") + name;
        }
        std::printf(
            "\nReplayManager: stop: no block holding the stop moment arrived from %s within %d "
            "ms; their last items may be missing\n",
            names.c_str(), drainMs);
        std::fflush(stdout);
        FileLogger::LogToFile(FileLogger::eSeverityWarning,
                              "ReplayManager: stop: unconfirmed clients: %s", names.c_str());
    }
    FileLogger::LogToFile(FileLogger::eSeverityInfo, "ReplayManager: recording stopped (%lld ms)",
                          static_cast<long long>(tookMs));
    const bool flushed = FlushWriteQueue();
    if (m_reorder != nullptr) {
        m_reorder->Freeze(false);
    }
    if (flushed && m_journal != nullptr) {
        // Everything received has gone through the writer.
        m_journal->Reset();
    }
    return flushed;
}

StopProgress ReplayServer::Stopping() const {
    std::lock_guard<std::mutex> lock(m_progressMutex);
    return m_stopProgress;
}

void ReplayServer::SetReplaying(bool replaying) {
    if (replaying) {
        m_deliveries.Reset();
    }
    m_replaying.store(replaying, std::memory_order_relaxed);
    m_state.store(replaying ? ReplayCore::eStateReplay : ReplayCore::eStateStopped,
                  std::memory_order_relaxed);
}

bool ReplayServer::FlushWriteQueue(int timeoutMs) {
    if (m_writer == nullptr || !LogWriterThread::PipeOpen()) {
        return false;
    }
    // Everything still held goes first, so the status record's flush
    // writes it out.
    m_reorder->Drain();
    char record[256];
    const char* message = "stop";
    unsigned int length =
        ReplayCore::WriteStatusRecord(record, sizeof record, MSTime::CurrentTimeMS(), kServerName,
                                      message, static_cast<unsigned int>(std::strlen(message)));
    unsigned int checksum = 0;
    const int total = ReplayCore::AppendChecksum(record, length, sizeof record, checksum);
    if (total < 0) {
        return false;
    }
    uint64_t target = 0;
    {
        std::lock_guard<std::mutex> lock(m_forwardMutex);
        if (LogWriterThread::WriteRecord(record, static_cast<unsigned int>(total)) != total) {
            m_forwardFailures.fetch_add(1, std::memory_order_relaxed);
            return false;
        }
        target = m_recordsForwarded.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    {
        // The writer closes the log at this record; the next log opens with
        // the next data record.
        std::lock_guard<std::mutex> lock(m_openerMutex);
        m_logOpened = false;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (m_writer->GetMessagesProcessed() < target) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

ServerCounters ReplayServer::Counters() const {
    ServerCounters counters;
    counters.datagrams = m_datagrams.load(std::memory_order_relaxed);
    counters.checksumFailures = m_checksumFailures.load(std::memory_order_relaxed);
    counters.unparsable = m_unparsable.load(std::memory_order_relaxed);
    counters.recordsForwarded = m_recordsForwarded.load(std::memory_order_relaxed);
    counters.forwardFailures = m_forwardFailures.load(std::memory_order_relaxed);
    counters.statusRecords = m_statusRecords.load(std::memory_order_relaxed);
    counters.refusedClients = m_refusedClients.load(std::memory_order_relaxed);
    counters.refusedSources = m_refusedSources.load(std::memory_order_relaxed);
    counters.outsideTimeWindow = m_recordTimes.Refused();
    counters.droppedLate = ReplayLogManager::LateRecordsDropped();
    if (m_reorder != nullptr) {
        counters.recordsHeld = m_reorder->HeldRecords();
        counters.heldOverflow = m_reorder->Refused();
        counters.heldReleasedEarly = m_reorder->ReleasedEarly();
    }
    counters.oversized = m_oversized.load(std::memory_order_relaxed);
    counters.blocksAfterStop = m_blocksAfterStop.load(std::memory_order_relaxed);
    counters.itemsAfterStop = m_itemsAfterStop.load(std::memory_order_relaxed);
    counters.recordsRecovered = m_recovered.load(std::memory_order_relaxed);
    if (m_journal != nullptr) {
        counters.journalFailures = m_journal->WriteFailures();
        counters.journalOn = true;
    }
    return counters;
}

}  // namespace ReplayServer
