#ifndef LIBREPLAY_SERVER_REPLAYLOGMANAGER_H
#define LIBREPLAY_SERVER_REPLAYLOGMANAGER_H

// Records of many clients reach the server slightly out of time order. The
// log manager holds up to 20 recent records in a write queue sorted by time
// and writes the oldest through the replay logger once the queue spans six
// seconds or is nearly full, always keeping one record more than the number
// of known clients so that each client's latest record can still be
// reordered. The log writer thread feeds it from a pipe into which the
// server's receive path writes one complete client record per write.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "libreplay/server/ClientDataList.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/server/ReplayError.h"
#include "libreplay/ReplayExport.h"

class CPipe;

class REPLAY_API ReplayLogManager {
  public:
    static constexpr unsigned int MAX_BUFFERS = 20;
    // Write-out starts only with more records than this buffered.
    static constexpr unsigned int kWriteOutThreshold = 10;
    // With this many records buffered the queue is drained regardless of span.
    static constexpr unsigned int kQueueLimit = MAX_BUFFERS - 1;
    // The queue keeps buffering until its records span this long.
    static constexpr int32_t kQueueSpanMs = 6000;
    // Records older than the last written by more than this are dropped.
    static constexpr int64_t kLateRecordLimitMs = 1000;

    // One slot of the write queue.
    struct REPLAY_API ClientDataBuffer {
        std::string m_clientName;
        ReplayCore::MSTime::MSTimeStruct m_timestamp;
        // The complete client record as received.
        std::string m_record;
    };

    // Newest first: true when a is later than b. Written-out slots
    // (milliseconds -1) and unused ones (0) sort behind every real record.
    static bool ClientDataCompare(const ClientDataBuffer& a, const ClientDataBuffer& b) {
        return a.m_timestamp.m_timeMilliseconds > b.m_timestamp.m_timeMilliseconds;
    }

    // Told of each record once the replay logger has taken it (the server
    // keeps its crash journal with this); runs on the writer thread.
    using WrittenHook = void (*)(void* context, const char* record, size_t length);
    static void SetWrittenHook(WrittenHook hook, void* context);

    ReplayLogManager();

    // Connects the replay logger and writes the log's header record, once.
    bool Connect(const ReplayCore::MSTime::MSTimeStruct& startTime);
    // Forgets the buffered count and the known clients; the slots and the
    // logger connection stay.
    void Disconnect();
    // Takes one record into the write queue and writes out what is due; with
    // `flush` every buffered record is written. Packets kept are counted in
    // `clients` (may be null), which is locked for that.
    ReplayError WriteClientDataToLog(const std::string& clientName,
                                     const ReplayCore::MSTime::MSTimeStruct& timestamp,
                                     unsigned int dataType, unsigned int sequenceNumber,
                                     const std::string& record, ClientDataList* clients,
                                     bool flush);

    unsigned int GetBufferCount() const { return m_currentBufferIdx; }
    // Records dropped as too late to reorder, over the process's life (one
    // writer per process).
    static uint64_t LateRecordsDropped() { return s_lateRecords.load(std::memory_order_relaxed); }
    size_t GetKnownClientCount() const { return m_clientNames.size(); }
    const ReplayCore::MSTime::MSTimeStruct& GetLastBlockTimestamp() const {
        return m_lastBlockTimestamp;
    }

  private:
    // Stable for equal times, and cheap on a queue that is already nearly in
    // order, which is the usual case.
    void SortNewestFirst();
    // Moves the record just stored at `index` (behind the live records) in
    // front of every record that is not newer than it.
    void PlaceNewestArrival(unsigned int index);
    ReplayError WriteOut(ClientDataList* clients, bool flush);

    static std::atomic<WrittenHook> s_writtenHook;
    static std::atomic<void*> s_writtenContext;
    static std::atomic<uint64_t> s_lateRecords;

    std::set<std::string> m_clientNames;
    std::vector<ClientDataBuffer> m_buffers;
    unsigned int m_currentBufferIdx;
    ReplayCore::MSTime::MSTimeStruct m_lastBlockTimestamp;
};

// Reads whole client records from the class-wide pipe and hands them to its
// log manager. A status record ('#') flushes the write queue. One writer
// thread per process: the pipe and the thread's result are class-wide.
class REPLAY_API LogWriterThread {
  public:
    LogWriterThread(const ReplayCore::ReplayState& state, int stackSize, int priority);
    // Ends a running thread by closing the pipe's write end (its next read
    // sees the end of the pipe), waits for it, then closes the pipe.
    ~LogWriterThread();
    LogWriterThread(const LogWriterThread&) = delete;
    LogWriterThread& operator=(const LogWriterThread&) = delete;

    // Starts the thread; false when it could not be created.
    bool start();

    void SetClientDataList(ClientDataList* clients) {
        m_clients.store(clients, std::memory_order_relaxed);
    }
    // Whether the thread has opened m_pipe; writers wait for this.
    static bool PipeOpen() { return s_pipeOpen.load(std::memory_order_acquire); }
    // Writes one complete record into the pipe: the bytes written, or -1.
    static int WriteRecord(const char* record, unsigned int length);
    static ReplayError GetErrorStatus();
    const ReplayCore::ReplayState& GetServerState() const { return m_state; }
    // Messages read from the pipe and handled so far.
    unsigned int GetMessagesProcessed() const {
        return m_messagesProcessed.load(std::memory_order_acquire);
    }

    // The server's receive path writes one record per write.
    static CPipe m_pipe;
    // The thread's last result (copy through GetErrorStatus while it runs).
    static ReplayError m_errorStatus;

  private:
    // The thread itself, a platform thread running execute().
    class Runner;

    void execute();
    static void SetErrorStatus(const ReplayError& error);

    ReplayLogManager m_logManager;
    const ReplayCore::ReplayState& m_state;
    std::atomic<ClientDataList*> m_clients{nullptr};
    std::atomic<unsigned int> m_messagesProcessed{0};
    std::unique_ptr<Runner> m_runner;

    static std::atomic<bool> s_pipeOpen;
    static std::mutex s_errorStatusMutex;
};

#endif
