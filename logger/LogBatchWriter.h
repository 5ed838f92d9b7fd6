#ifndef LOGGER_LOGBATCHWRITER_H
#define LOGGER_LOGBATCHWRITER_H

// Writes the record queue's batches to the log file in arrival order, many
// batches per write. While the file cannot be written (medium missing or
// full, directory not writable) the batches stay pending, still holding
// their room in the queue, and the write is retried at most once per retry
// interval; when it succeeds they are written in order ahead of anything
// newer. One notice tells when an outage starts, one when it ends (with what
// was held and what was dropped meanwhile), one when the queue first fills
// during it. Time is passed in, so all of this runs without a clock.

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "logger/LogFileWriter.h"
#include "logger/LoggerStatistics.h"
#include "logger/RecordQueue.h"

namespace MulticoreLogService {

class LogBatchWriter {
  public:
    using Clock = std::chrono::steady_clock;
    using NoticeHandler = std::function<void(const std::string& text)>;

    LogBatchWriter(LogFileWriter& file, RecordQueue& queue, LoggerStatistics& statistics,
                   std::chrono::milliseconds retryInterval, NoticeHandler notice);

    // Takes over batches the queue handed out, behind those still pending.
    void Add(std::deque<RecordBatch>& batches);
    // Writes what is pending, unless the medium failed and the next retry is
    // not due yet. Reports a queue that has started dropping.
    void WriteDue(Clock::time_point now);
    // At stop: one last attempt; what still cannot be written is given up
    // and counted as dropped.
    void Finish(Clock::time_point now);

    bool Failing() const { return m_failing; }
    // When the next write is worth trying (now, unless failing).
    Clock::time_point NextAttempt() const { return m_nextRetry; }
    uint64_t PendingRecords() const;

  private:
    // Writes pending batches front first; false at the first failure.
    bool WritePending(uint64_t& recordsWritten);
    void ReportQueueDrops(Clock::time_point now);

    LogFileWriter& m_file;
    RecordQueue& m_queue;
    LoggerStatistics& m_statistics;
    const std::chrono::milliseconds m_retryInterval;
    NoticeHandler m_notice;
    std::deque<RecordBatch> m_pending;

    bool m_failing = false;
    Clock::time_point m_outageStart{};
    Clock::time_point m_nextRetry{};
    uint64_t m_dropsAtOutageStart = 0;
    bool m_queueFullReported = false;  // in the current outage
    uint64_t m_dropsReported = 0;
    Clock::time_point m_lastDropReport{};
};

}  // namespace MulticoreLogService

#endif
