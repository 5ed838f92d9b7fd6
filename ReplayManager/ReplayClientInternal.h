#ifndef REPLAYMANAGER_REPLAYCLIENTINTERNAL_H
#define REPLAYMANAGER_REPLAYCLIENTINTERNAL_H

// The replay client's process-wide objects: the send buffer that packs items
// into blocks, the state manager, the ping thread and the synchronous read
// thread. All of them are defined, in their construction order, in
// CReplayClient.cpp.

// For sigset_t: the client keeps the mask of its blocked signal process-wide.
#include <signal.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "ReplayManager/ClientGlobals.h"
#include "ReplayManager/Ascii7.h"
#include "ReplayManager/MemoryBuffer.h"
#include "libreplay/ReplayClient.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/server/UDPSockets.h"
#include "reference/src/operating_system.h"

namespace ReplayClient {

// Where every client source records its assertion failures.
constexpr const char* kClientSourceFile = "ReplayManager/CReplayClient";
// The replay server's UDP port.
constexpr int kServerPort = 4400;

class ClientStateManager {
  public:
    // Applies an allowed change and reports it to the server; the state
    // after the call.
    ReplayCore::ReplayState SetClientState(ReplayCore::ReplayState newState,
                                           ReplayMessageHandlerBase* handler);
    // A connecting (or disconnected, or even shut-down) client becomes
    // Stopped without a report: the send that led here told the server.
    void SetClientConnected();
    // Ends the client without the table's check or a report.
    void MarkShutDown();
    ReplayCore::ReplayState GetState() const {
        return static_cast<ReplayCore::ReplayState>(m_state.load(std::memory_order_relaxed));
    }

    // Stores a state without any check or report (tests only).
    void SetStateForTesting(ReplayCore::ReplayState state) {
        m_state.store(state, std::memory_order_relaxed);
    }

  private:
    // Read and written by the application's threads and both client threads
    // without a lock; a change and its report are not atomic together.
    std::atomic<int> m_state{ReplayCore::eStateDisconnected};
};

// Reports the current state to the server, with `text` (if any, shorter
// than `limit` and at most 170 characters) as the argument under `key`.
int SendClientState(const char* text, char key, unsigned int limit);
// One ping round: an old recording block stands in for the ping.
int PingServer();

}  // namespace ReplayClient

// Packs the items of SendClientData into blocks of at most 2048 bytes and
// sends each block as one datagram; reconnects to the server. Everything but
// the time slot is touched only under clientWriteMutex.
class UDPSendBuffer {
  public:
    static constexpr unsigned int kBlockCapacity = 2048;
    // Room kept free at the end of a block: recordLimit is 2032.
    static constexpr unsigned int kBlockReserve = 16;
    // A block older than this is sent in the server's time slot.
    static constexpr int64_t kBlockMaximumAge = 1000;

    UDPSendBuffer();
    UDPSendBuffer(const UDPSendBuffer&) = delete;
    UDPSendBuffer& operator=(const UDPSendBuffer&) = delete;

    int SendClientData(const void* data, unsigned int nBytes, bool immediate,
                       unsigned int dataType);
    // Starts a new block; its header length. kDataTypeUnspecified keeps the
    // data type, a negative `sequence` keeps the block number.
    unsigned int InitializeMemoryBuffer(ReplayCore::MSTime::MSTimeStruct startTime,
                                        unsigned int dataType, int sequence);
    // Appends one item (Ascii7-encoded when binary) while the block stays
    // below recordLimit; bytes written, 0 for an empty item, -1 when it does
    // not fit (the block is left as it was).
    int AppendDataToBuffer(const void* data, unsigned int nBytes);
    // Closes the block with its checksum and sends it; bytes sent, 0 for an
    // empty block, -1 on failure (the block is kept and sent again later).
    int SendDataBlock();
    // Sends one item as a block of its own, discarding what was buffered.
    int SendDataImmediate(const void* data, unsigned int nBytes);
    // Re-opens the connection while connecting, at most once per
    // reconnectInterval milliseconds.
    int Reconnect();

    bool IsEmpty() const { return m_blockBufferPos == 0 || m_blockBufferPos == headerLength; }

    // The slot in which an old block may go out; set by the read thread when
    // the server announces it.
    unsigned int GetTimeSlot() const { return timeSlot.load(std::memory_order_relaxed); }
    void SetTimeSlot(unsigned int slot) { timeSlot.store(slot, std::memory_order_relaxed); }

    ReplayCore::MSTime::MSTimeStruct GetBlockStartTime() const { return blockStartTime; }
    unsigned int GetBlockSequence() const { return blockSequence; }
    unsigned int GetDataType() const { return m_dataType; }
    unsigned int GetBlockLength() const { return m_blockBufferPos; }
    const char* GetBlockText() const {
        return reinterpret_cast<const char*>(m_outgoingDataBuffer.Get());
    }

  private:
    // Cuts the block back to `end` bytes (a refused item's separator).
    void RestoreBlockEnd(unsigned int end);
    // Whether an item of `nBytes` of the block's type, with its separator,
    // fits behind the records already in the block.
    bool ItemFits(unsigned int nBytes, const ReplayCore::MSTime::MSTimeStruct& now) const;

    ReplayCore::MemoryBuffer m_outgoingDataBuffer;
    std::atomic<unsigned int> timeSlot;
    unsigned int m_blockBufferPos = 0;
    unsigned int headerLength = 0;
    unsigned int recordLimit = 0;
    unsigned int blockCapacity = 0;
    ReplayCore::MSTime::MSTimeStruct blockStartTime;
    unsigned int m_dataType;
    ReplayCore::MSTime::MSTimeStruct lastReconnectAttempt;
    bool checksumAppended = false;
    unsigned int blockSequence = 0;
    unsigned int blocksInitialised = 0;
    // Encodes binary items in place: no allocation on the send path.
    Ascii7Encoder::CMessageEncode m_encoder;
};

// Pings the server in the client's time slot, flushes an old recording block
// and reconnects after failures, until the client shuts down.
class ClientPingThread : public CThread {
  public:
    ClientPingThread();
    // Ends the thread and waits briefly for it, so that it never outlives
    // the objects it uses.
    ~ClientPingThread() override;

    // Wakes the thread from its pauses to see a shut-down or stop request.
    void Wake();
    // Asks the thread to end at once (process exit, tests).
    void RequestStop();

    // Shortens the 2000 ms first pause and the 1800 ms round (tests only).
    static void SetIntervalsForTesting(unsigned int firstPauseMs, unsigned int roundMs);

  protected:
    void execute() override;

  private:
    // Sleeps `milliseconds` unless asked to end; false when asked.
    bool Pause(unsigned int milliseconds);
    bool Ending() const;

    std::mutex m_wakeMutex;
    std::condition_variable m_wake;
    std::atomic<bool> m_stopRequested{false};
};

namespace ReplayClient {

// Reads the server's datagrams: commands move the client's state and set the
// time slot, debug levels and the replay clock; anything else is a replay
// record while replaying.
class SynchronousReadThread : public CThread {
  public:
    static constexpr unsigned int kReadSize = 2048;

    SynchronousReadThread();
    ~SynchronousReadThread() override;

    // Handles one datagram; always 0.
    int udpClientMessageHandler(const unsigned char* data, int length);
    // Checks one replay record and delivers its items; the number delivered.
    int ProcessReplayRecord(char* record, int length);

    bool ClockIsSet() const { return m_clockSet.load(std::memory_order_relaxed); }
    ReplayCore::MSTime::MSTimeStruct GetLatency() const {
        return ReplayCore::MSTime::MSTimeStruct(0, m_latencyMs.load(std::memory_order_relaxed));
    }
    const ReplayCore::MSTime& GetReplayClock() const { return m_replayClock; }

    // Asks the thread to end and wakes it from its read and from a wait for
    // an item's moment (process exit, tests); waits briefly for it.
    void RequestStop();
    // Ends a wait for an item's moment early, so that the thread sees a state
    // change or a stop request at once rather than after up to a minute.
    void WakeFromWait();

    // Replay waits for an item's moment with this function; null restores
    // CThread::sleep. Tests and the fuzzer replace it so they need not wait.
    typedef void (*SleepFunction)(unsigned int milliseconds);
    static void SetSleepForTesting(SleepFunction sleep);

    unsigned int GetLastSequenceNumber() const { return m_lastSequenceNumber; }
    unsigned int GetMissedRecords() const { return m_missedRecords; }

  protected:
    void execute() override;

  private:
    struct ReplayItemContext;

    void HandleCommand(const unsigned char* data, int length,
                       const ReplayCore::MSTime::MSTimeStruct& now, const std::string& nowText);
    bool Ending() const;
    // Checks a record with a valid length and delivers its items.
    int ProcessCheckedRecord(char* record, unsigned int textLength);
    // Waits for one item and delivers it; false drops the rest of the record.
    bool ReplayItem(ReplayItemContext& context, char* begin, char* end, bool firstItem);
    // The replay clock plus the latency, in milliseconds.
    int64_t ReplayTimeMs() const;
    // Waits `milliseconds` for an item's moment; false when the client left
    // replay or is ending before then (the item is then not delivered).
    bool WaitForItem(unsigned int milliseconds);

    // Set once the replay clock has been set (by the server or by the first
    // replayed item); never cleared.
    std::atomic<bool> m_clockSet{false};
    // Added to the replay clock when comparing it with item times.
    std::atomic<int64_t> m_latencyMs{0};
    // Runs from the log's time once set.
    ReplayCore::MSTime m_replayClock;
    std::atomic<bool> m_stopRequested{false};
    std::mutex m_waitMutex;
    std::condition_variable m_waitWake;

    // Replay statistics, read thread only.
    unsigned int m_lastSequenceNumber = 0;
    unsigned int m_missedRecords = 0;
    ReplayCore::MemoryBuffer m_receiveBuffer;
    ReplayCore::MemoryBuffer m_decodeBuffer;
};

}  // namespace ReplayClient

// Process-wide client objects, in construction order. Those the client
// threads use are never destroyed: a thread still inside a callback at exit
// must not find them gone.
extern CMutex& clientWriteMutex;
extern UDPSocketClient& g_replayClient;
extern ReplayClient::ClientStateManager g_clientStateManager;
extern UDPSendBuffer& g_UDPSendBuffer;
extern ClientPingThread& clientPingThread;
extern ReplayClient::SynchronousReadThread& clientReadThread;

// The handler given to initialisation; never freed.
extern std::atomic<ReplayClient::ReplayMessageHandlerBase*> g_replayMessageHandler;
// Length of g_clientName as set by SetupConnection.
extern uint32_t g_nameLength;
// Signal 22 of the target (SIGIO here), blocked while the client threads are
// created so that they start with it blocked.
extern sigset_t signal_mask;

// The shared second half of both initialisation overloads.
int SetupConnection(const char* clientName, bool asynchronous, const void* initData,
                    unsigned int dataType, unsigned int nBytes);

#endif
