#ifndef SERVER_RECORDREORDERBUFFER_H
#define SERVER_RECORDREORDERBUFFER_H

// Holds incoming data records for a while and hands them on in order of
// their record time. Clients send a block when it is full, about a second
// old, or when their ping finds it older than two seconds, so blocks arrive
// between 0 and about 5 s after their time. The log writer drops a record
// more than a second older than what it has already written; handing it
// records in time order keeps slow clients' blocks in the log.
//
// The receive path only adds to the buffer (it never waits on the writer);
// a thread of its own passes due records to the sink, so a slow writer can
// never stall the receive path while it holds the client table.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ReplayServer {

class RecordReorderBuffer {
  public:
    // Passes one record on; false when it could not.
    using Sink = std::function<bool(const std::string& record)>;
    using Clock = std::chrono::steady_clock;

    // Every record is held `holdMs` after its arrival. Overflow policy:
    // above three quarters of `byteLimit` the oldest records leave early
    // (counted: they may meet a later-arriving older record at the writer),
    // and only a record that would pass the limit itself is refused
    // (counted).
    RecordReorderBuffer(int holdMs, size_t byteLimit, Sink sink);
    ~RecordReorderBuffer();
    RecordReorderBuffer(const RecordReorderBuffer&) = delete;
    RecordReorderBuffer& operator=(const RecordReorderBuffer&) = delete;

    void Start();
    // Hands on everything held, then ends the thread.
    void Stop();

    // Takes a copy of the record, held until `arrival` plus the hold; false
    // when the byte limit refuses it. The receive path passes the present;
    // tests pass their own times.
    bool Add(int64_t recordTimeMs, const char* data, size_t size,
             Clock::time_point arrival = Clock::now());
    // Hands on everything held now, in record-time order, before returning.
    void Drain();
    // While frozen, no record leaves because its hold has ended (only the
    // overflow policy and Drain pass records on): a stop freezes the buffer
    // while it waits for the clients' last blocks, which can arrive several
    // seconds late and must still meet everything newer at the writer.
    void Freeze(bool frozen);
    // Hands on the records whose hold has ended by `now`; the thread calls
    // this, tests call it with their own times.
    void ReleaseDue(Clock::time_point now);

    size_t HeldRecords() const;
    uint64_t Refused() const { return m_refused.load(std::memory_order_relaxed); }
    uint64_t SinkFailures() const { return m_sinkFailures.load(std::memory_order_relaxed); }
    uint64_t ReleasedEarly() const { return m_releasedEarly.load(std::memory_order_relaxed); }

  private:
    struct Held {
        int64_t timeMs;
        uint64_t arrival;  // arrival number: equal times keep their arrival order
        Clock::time_point due;
        std::string bytes;
    };
    struct Later {
        bool operator()(const Held& a, const Held& b) const {
            return a.timeMs != b.timeMs ? a.timeMs > b.timeMs : a.arrival > b.arrival;
        }
    };

    void Run();
    // Pops the records to hand on: all of them, or those due by `now`.
    std::vector<Held> TakeDue(bool all, Clock::time_point now);
    void Pass(std::vector<Held>& records);

    const std::chrono::milliseconds m_hold;
    const size_t m_byteLimit;
    const size_t m_highWater;
    Sink m_sink;

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::vector<Held> m_held;  // a heap, the oldest record time at the front
    size_t m_heldBytes = 0;
    uint64_t m_arrivals = 0;
    bool m_stop = false;
    bool m_frozen = false;

    // Taken around popping and passing, so that batches reach the sink whole
    // and in order whichever thread passes them.
    std::mutex m_passMutex;
    std::thread m_thread;
    std::atomic<uint64_t> m_refused{0};
    std::atomic<uint64_t> m_sinkFailures{0};
    std::atomic<uint64_t> m_releasedEarly{0};
};

}  // namespace ReplayServer

#endif
