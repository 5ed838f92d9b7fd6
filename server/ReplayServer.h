#ifndef SERVER_REPLAYSERVER_H
#define SERVER_REPLAYSERVER_H

// The replay server's receive side: names and accepts clients, gives each its
// own time slot, steers their state with commands and passes every data record
// to the log writer thread, which orders the records and writes the log.

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "libreplay/server/ClientDataList.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/server/ReplayLogManager.h"
#include "libreplay/server/UDPSocketServer.h"
#include "libreplay/server/ReplayLogRecord.h"
#include "server/IngestJournal.h"
#include "server/RecordReorderBuffer.h"
#include "server/RecordTimeWindow.h"
#include "server/ReplayDelivery.h"
#include "server/SourceAllowList.h"
#include "reference/src/status.h"

namespace ReplayServer {

// Counts kept by the receive path; read by status reports from other threads.
struct ServerCounters {
    uint64_t datagrams = 0;
    uint64_t checksumFailures = 0;
    uint64_t unparsable = 0;
    uint64_t recordsForwarded = 0;
    uint64_t forwardFailures = 0;
    uint64_t statusRecords = 0;
    uint64_t refusedClients = 0;
    // Datagrams dropped unread because their source is not allowed.
    uint64_t refusedSources = 0;
    // Records waiting in the reorder buffer, and those it had no room for.
    uint64_t recordsHeld = 0;
    uint64_t heldOverflow = 0;
    // Data records refused for a time far from their client's clock.
    uint64_t outsideTimeWindow = 0;
    // Records the log writer dropped as more than a second older than what
    // it had written.
    uint64_t droppedLate = 0;
    // Records the hold passed on before their time because it was three
    // quarters full.
    uint64_t heldReleasedEarly = 0;
    // Datagrams longer than the largest valid record, refused unread.
    uint64_t oversized = 0;
    // Items handed over at or after a stop moment, not stored, and the
    // blocks that held only such items.
    uint64_t itemsAfterStop = 0;
    uint64_t blocksAfterStop = 0;
    // The crash journal: records it brought back at start, and its write
    // failures (each can cost a record after a crash).
    uint64_t recordsRecovered = 0;
    uint64_t journalFailures = 0;
    bool journalOn = false;
};

// What a stop is doing, or what the last one cost.
struct StopProgress {
    bool draining = false;
    // The stop moment: items handed over before it reach the log.
    int64_t momentMs = 0;
    size_t clients = 0;
    // Clients whose block holding the stop moment has not yet arrived.
    std::vector<std::string> waitingFor;
    // The last finished stop: how long it took, and the clients that never
    // confirmed (their items before the moment may be missing).
    int64_t lastDurationMs = -1;
    std::vector<std::string> lastUnconfirmed;
};

struct ServerSettings {
    // Empty: the wildcard address.
    std::string bindAddress;
    int port = 4400;
    size_t clientLimit = 64;
    // Receive buffer asked for, so that bursts from many clients wait in the
    // kernel while the receive path is busy.
    int receiveBufferBytes = 8 * 1024 * 1024;
    // How long a stop waits for the clients' last blocks before it flushes
    // the write queue.
    int stopSettleMs = 300;
    // How long a stop waits for each recording client's block that holds
    // the stop moment. A client sends a block at the latest when its ping
    // finds it two seconds old, and pings come every two seconds: about
    // 4-5 s; a loaded machine can delay both the block and the next one
    // that confirms it, hence the margin.
    int stopDrainMs = 10000;
    // The crash journal's file; empty: no journal.
    std::string journalPath;
    // Sources whose datagrams are taken; by default any.
    SourceAllowList allowedSources;
    // How long each data record waits before it goes to the log writer, so
    // that blocks sent late (up to about 5 s after their time) still reach
    // the writer in time order. 0 passes records on at once.
    int reorderHoldMs = 5000;
    size_t reorderByteLimit = 64 * 1024 * 1024;
    // How far a data record's time may stray from its client's clock; 0
    // accepts any time.
    int recordWindowMs = 60000;
};

class ReplayServer : public UDPSocketServer {
  public:
    static constexpr const char* kServerName = "ReplayManager";
    // Ten clients share a second in slots 0 to 9; more clients share slots.
    static constexpr unsigned int kTimeSlots = 10;

    explicit ReplayServer(const ServerSettings& settings);
    ~ReplayServer() override;
    ReplayServer(const ReplayServer&) = delete;
    ReplayServer& operator=(const ReplayServer&) = delete;

    // Binds the socket, enlarges its receive buffer and starts the log writer
    // thread. Fails when a thread cannot start or the port cannot be bound.
    ReplayPlatform::Status Start();
    // Flushes the write queue and ends both threads; idempotent.
    void Shutdown();

    bool ProcessClientMessage(const char* data, int nBytes, ClientData& client,
                              bool isNewClient) override;
    // Drops datagrams from sources outside the allowed networks, counting
    // them and naming the first few.
    bool AcceptSource(const sockaddr_in& from) override;

    ReplayCore::ReplayState GetState() const {
        return static_cast<ReplayCore::ReplayState>(m_state.load(std::memory_order_relaxed));
    }
    // Moves every client to `state`: each gets its slot (and, when recording,
    // the server's time for its latency measurement). `extraArguments`
    // ("key=value;...") follow the slot. Returns the number sent to.
    int CommandAllClients(ReplayCore::ReplayState state, const std::string& extraArguments = "");
    // Sends the state command to one named client.
    ReplayError CommandClient(const std::string& name, ReplayCore::ReplayState state,
                              const std::string& extraArguments = "");
    // Sends raw bytes (a stored record) to a named client; a record sent is
    // counted for the client's delivery reports.
    // With `dueUs` (steady clock, microseconds) the moment the client is to
    // hand the record over, and its log time, for the replay's timing.
    ReplayError SendRecord(const std::string& name, const std::string& record, int sequence,
                           int64_t dueUs = ReplayDeliveryTracker::kUntimed, int64_t logMs = 0);

    void StartRecording();
    // Takes the current time as the stop moment, keeps every client
    // recording until its block holding that moment has arrived (a block
    // starting at or after it, or a status report sent after it, which a
    // recording client sends only with nothing in its block), then stops
    // it. Waits at most `drainMs` (by default the settings' stopDrainMs; 0
    // stops every client at once), then flushes the write queue into the
    // log; true when the writer took it all.
    bool StopRecording(int drainMs = -1);
    StopProgress Stopping() const;
    // Writes a status record into the writer's pipe: the writer writes out
    // everything queued. Waits up to `timeoutMs` for the writer to take it.
    bool FlushWriteQueue(int timeoutMs = 5000);
    // While replaying no record is taken into the log. The start of a
    // replay forgets the last one's delivery figures.
    void SetReplaying(bool replaying);
    // What the clients report of the records a replay sent them; fed by the
    // receive path while replaying.
    ReplayDeliveryTracker& Deliveries() { return m_deliveries; }

    unsigned int SlotOf(const std::string& name);
    ServerCounters Counters() const;
    std::vector<ClientData> Clients() { return GetClientDataList().Snapshot(true); }
    // The client's latest own message (one that is not a state report such
    // as "#replay"), which the state reports would otherwise overwrite at
    // once in the last message; empty when none.
    std::string NoteOf(const std::string& name);
    // Bytes of the valid records received from the client.
    uint64_t BytesReceivedFrom(const std::string& name) const;
    // The receive buffer the kernel granted, in bytes.
    int ReceiveBufferBytes() const { return m_receiveBufferBytes; }

  private:
    std::string StateCommand(ReplayCore::ReplayState state, const std::string& name,
                             const std::string& extraArguments);
    bool AcceptNewClient(const std::string& name, const std::string& record, bool isConnect,
                         ClientData& client);
    // Where the receive path puts a data record: the journal, then the hold.
    void Hold(const ReplayCore::LogClientRecord& fields, const char* data, size_t size);
    // Notes what a record says about its client having sent the block
    // holding a stop moment, and counts its bytes.
    void NoteClientProgress(const std::string& name, bool status, int64_t recordTimeMs,
                            size_t bytes);
    bool ConfirmedSince(const std::string& name, int64_t momentMs);
    // Opens the journal and feeds its unwritten records to the writer in
    // time order; fails (and leaves no journal) when the file cannot be used.
    ReplayPlatform::Status Recover();
    static void RecordWritten(void* server, const char* record, size_t length);
    void ReportRefusedSource(const sockaddr_in& from);
    // Where the hold passes records: block-0 records wait until the log
    // has opened (see m_openers), everything else goes to the writer.
    bool PassOn(const std::string& record);
    // Writes one record into the log writer's pipe.
    bool Forward(const std::string& record);
    // The file log keeps one stream open for every call after its last
    // entry: a server fed bad datagrams for hours would run out of memory
    // and descriptors. At that point the server stops logging to the file.
    void StopFileLogAtItsCap();
    // With the table full, a client that has gone silent (sick by the
    // table's health rule) gives its entry to a newcomer, so names that
    // stopped sending cannot keep real clients out for good. Caller holds
    // the table lock; false when every entry is alive.
    bool MakeRoomFromSilentClient(ClientDataList& table, const std::string& newName);
    // Says once per name that a client was refused (the first kNamedRefusals
    // names), and once that later refusals are only counted.
    void ReportRefusal(const std::string& name, int port);

    ServerSettings m_settings;
    std::atomic<int> m_state{ReplayCore::eStateStopped};
    // The writer thread keeps a reference; only it and Start touch this copy.
    ReplayCore::ReplayState m_writerState = ReplayCore::eStateStopped;
    std::unique_ptr<LogWriterThread> m_writer;
    std::unique_ptr<RecordReorderBuffer> m_reorder;
    RecordTimeWindow m_recordTimes{m_settings.recordWindowMs};
    std::unique_ptr<IngestJournal> m_journal;

    // Per client: the newest data block time and the newest status report
    // time received; read by a stop.
    struct ClientProgress {
        int64_t newestBlockMs = INT64_MIN;
        int64_t newestStatusMs = INT64_MIN;
        uint64_t bytesReceived = 0;
    };
    mutable std::mutex m_progressMutex;
    std::map<std::string, ClientProgress> m_progress;
    StopProgress m_stopProgress;  // under m_progressMutex
    // The last stop moment; items at or after it are not stored.
    std::atomic<int64_t> m_stopMomentMs{INT64_MAX};
    bool m_started = false;
    int m_receiveBufferBytes = 0;

    std::mutex m_slotMutex;
    std::mutex m_notesMutex;
    std::map<std::string, std::string> m_notes;  // under m_notesMutex
    std::map<std::string, unsigned int> m_slots;
    // Refused names reported so far, at most kNamedRefusals; under the table
    // lock, like the flag that the rest were only counted.
    static constexpr size_t kNamedRefusals = 1024;
    std::set<std::string> m_refusedNames;
    bool m_refusalsUnnamed = false;
    // Read thread only: the refused addresses named so far, and when the
    // running total was last reported.
    std::vector<uint32_t> m_namedRefusedSources;
    std::chrono::steady_clock::time_point m_lastRefusalReport;

    std::atomic<uint64_t> m_datagrams{0};
    std::atomic<uint64_t> m_checksumFailures{0};
    std::atomic<uint64_t> m_unparsable{0};
    std::atomic<uint64_t> m_recordsForwarded{0};
    std::atomic<uint64_t> m_forwardFailures{0};
    std::atomic<uint64_t> m_statusRecords{0};
    std::atomic<uint64_t> m_refusedClients{0};
    std::atomic<uint64_t> m_refusedSources{0};
    std::atomic<uint64_t> m_oversized{0};
    std::atomic<uint64_t> m_blocksAfterStop{0};
    std::atomic<uint64_t> m_itemsAfterStop{0};
    std::atomic<uint64_t> m_recovered{0};
    std::atomic<bool> m_replaying{false};
    ReplayDeliveryTracker m_deliveries;
    std::mutex m_forwardMutex;  // one record per pipe write, whoever writes
    // A log opens, header first, with its first data record. Block-0
    // records (clients' initialisation) that reach the writer before that
    // would fill its queue when many clients connect ahead of a recording
    // and be written before the header; they wait here and follow the first
    // data record, which the writer still puts after them by time.
    std::mutex m_openerMutex;
    bool m_logOpened = false;
    std::vector<std::string> m_openers;
};

}  // namespace ReplayServer

#endif
