#ifndef LOGGER_RECORDQUEUE_H
#define LOGGER_RECORDQUEUE_H

// The bounded queue between the channel reader and the file writer. Records
// are converted to their stored form as they arrive and collected into
// batches, so the reader hands over one batch per read instead of one item
// per record. A batch keeps its room in the queue until the writer has
// written it: while the medium is missing or full the queue is what holds
// the records, and its capacity is how long an outage it rides out. The
// reader never waits: a record that does not fit is refused and counted.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace MulticoreLogService {

// Whole records in stored form, in arrival order.
struct RecordBatch {
    std::string stored;
    uint64_t records = 0;  // client and header records; reconnect lines are not counted
};

class RecordQueue {
  public:
    // `capacityBytes` bounds the stored bytes of records queued or being
    // written; `consoleCapacityBytes` bounds console text not yet taken.
    explicit RecordQueue(size_t capacityBytes, size_t consoleCapacityBytes = 1024 * 1024);

    // Reader side (one thread). Adds one framed record, in stored form, to
    // the open batch; false (counted in DroppedRecords) when it would
    // overfill the queue.
    bool AddRecord(const char* framed, size_t length);
    // The line that marks a writer re-attaching; false when there is no room.
    bool AddReconnect();
    // One line of console text; false when the console lane is full.
    bool AddConsoleText(const char* text, size_t length);
    // Hands everything added since the last commit to the writer.
    void Commit();

    // Writer side (one thread). Waits up to `timeout` for committed data,
    // then appends the committed batches to `batches` and the console text
    // to `console`. The batches keep their room until released. False once
    // the queue is closed and nothing was left to take.
    bool Take(std::deque<RecordBatch>& batches, std::string& console,
              std::chrono::milliseconds timeout);
    // Frees the room of a batch that was written (or given up); its buffer
    // is kept for a later batch.
    void Release(RecordBatch&& batch);

    // Wakes the writer; Take returns false once it has taken the rest.
    void Close();

    size_t Capacity() const { return m_capacity; }
    // Stored bytes committed or being written, and not yet released.
    size_t HeldBytes() const { return m_heldBytes.load(std::memory_order_relaxed); }
    uint64_t DroppedRecords() const { return m_droppedRecords.load(std::memory_order_relaxed); }

  private:
    bool FitsOpenBatch(size_t previousSize);

    const size_t m_capacity;
    const size_t m_consoleCapacity;
    std::atomic<size_t> m_heldBytes{0};
    std::atomic<uint64_t> m_droppedRecords{0};
    std::atomic<size_t> m_consoleHeldBytes{0};  // committed and not yet taken

    // Reader only.
    RecordBatch m_open;
    std::string m_openConsole;

    std::mutex m_mutex;
    std::condition_variable m_ready;
    std::deque<RecordBatch> m_committed;
    std::string m_console;
    std::vector<std::string> m_spareBuffers;
    bool m_closed = false;
};

}  // namespace MulticoreLogService

#endif
