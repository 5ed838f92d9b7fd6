#ifndef SERVER_INGESTJOURNAL_H
#define SERVER_INGESTJOURNAL_H

// A file beside the server that remembers every data record received until
// the log writer has written it, so that records held in memory (the
// ordering hold, the writer's pipe and queue) survive a crash of the server.
//
// Two kinds of entries are appended: a received record (its bytes) and a
// written mark (a hash of the record's bytes). Received entries are gathered
// in memory and written to the file every few milliseconds by the journal's
// own thread; written marks go to the file at once, so that a killed server
// does not write a record twice after its restart. The file is synced about
// once a second: a power cut loses at most the last second. Opening the
// journal returns the records received but never marked written, and
// rewrites the file to hold only those; Reset empties it once everything
// received has been written, and a long recording rewrites it the same way
// whenever it has grown past a size (64 MB, or twice its unwritten part).

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "reference/src/status.h"

namespace ReplayServer {

class IngestJournal {
  public:
    using Clock = std::chrono::steady_clock;

    // `compactBytes`: the file size past which written records are dropped
    // from the file.
    explicit IngestJournal(std::string path, size_t compactBytes = 64 * 1024 * 1024);
    ~IngestJournal();
    IngestJournal(const IngestJournal&) = delete;
    IngestJournal& operator=(const IngestJournal&) = delete;

    // Opens or creates the file. `unwritten` receives the records the file
    // holds that were never marked written, in the order received. Fails
    // when the file cannot be read or replaced.
    ReplayPlatform::Status Open(std::vector<std::string>& unwritten);
    // Starts the thread that writes received entries and syncs the file.
    void Start();
    void Close();

    // Called for each record received (any thread); gathered in memory.
    void Received(const char* data, size_t size);
    // Called for each record written into the log (any thread).
    void Written(const char* data, size_t size);
    // Writes the gathered received entries to the file; syncs it when the
    // last sync is at least a second before `now`. The thread calls it;
    // tests call it with their own times.
    void FlushGathered(Clock::time_point now);
    // Empties the file: every record received so far has been written.
    void Reset();

    uint64_t ReceivedCount() const { return m_received.load(std::memory_order_relaxed); }
    uint64_t WrittenCount() const { return m_written.load(std::memory_order_relaxed); }
    uint64_t WriteFailures() const { return m_writeFailures.load(std::memory_order_relaxed); }
    const std::string& Path() const { return m_path; }

    static uint64_t Hash(const char* data, size_t size);

  private:
    void Run();
    bool WriteAll(const char* data, size_t size);
    // Replaces the file by one holding only the records never marked
    // written (handed to `unwritten` when given). Caller holds m_fileMutex.
    ReplayPlatform::Status Rewrite(std::vector<std::string>* unwritten);

    const std::string m_path;
    const size_t m_compactBytes;
    int m_fd = -1;
    std::mutex m_fileMutex;  // one writer of the file at a time
    std::mutex m_gatherMutex;
    std::string m_gathered;
    Clock::time_point m_lastSync;
    size_t m_fileBytes = 0;   // under m_fileMutex
    bool m_unsynced = false;  // written since the last sync; under m_fileMutex
    size_t m_compactAt = 0;

    std::mutex m_threadMutex;
    std::condition_variable m_wake;
    bool m_stop = false;
    std::thread m_thread;

    std::atomic<uint64_t> m_received{0};
    std::atomic<uint64_t> m_written{0};
    std::atomic<uint64_t> m_writeFailures{0};
};

}  // namespace ReplayServer

#endif
