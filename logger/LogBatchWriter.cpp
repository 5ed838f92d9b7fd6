#include "logger/LogBatchWriter.h"

#include <sys/uio.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace MulticoreLogService {

namespace {

// Batches per write call: the kernel's limit of buffers per writev.
constexpr size_t kBatchesPerWrite = 1024;

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

// "64.0 MB", or "80 KB" below a megabyte.
std::string Size(size_t bytes) {
    return bytes >= 1024 * 1024 ? Format("%.1f MB", static_cast<double>(bytes) / (1024 * 1024))
                                : Format("%zu KB", bytes / 1024);
}

double Seconds(LogBatchWriter::Clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

}  // namespace

LogBatchWriter::LogBatchWriter(LogFileWriter& file, RecordQueue& queue,
                               LoggerStatistics& statistics,
                               std::chrono::milliseconds retryInterval, NoticeHandler notice)
    : m_file(file),
      m_queue(queue),
      m_statistics(statistics),
      m_retryInterval(retryInterval),
      m_notice(std::move(notice)) {}

void LogBatchWriter::Add(std::deque<RecordBatch>& batches) {
    for (RecordBatch& batch : batches) {
        m_pending.push_back(std::move(batch));
    }
    batches.clear();
}

uint64_t LogBatchWriter::PendingRecords() const {
    uint64_t records = 0;
    for (const RecordBatch& batch : m_pending) {
        records += batch.records;
    }
    return records;
}

bool LogBatchWriter::WritePending(uint64_t& recordsWritten) {
    std::vector<struct iovec> parts;
    while (!m_pending.empty()) {
        const size_t count = std::min(m_pending.size(), kBatchesPerWrite);
        parts.clear();
        uint64_t records = 0;
        uint64_t bytes = 0;
        for (size_t i = 0; i < count; ++i) {
            std::string& stored = m_pending[i].stored;
            parts.push_back({stored.data(), stored.size()});
            records += m_pending[i].records;
            bytes += stored.size();
        }
        if (!m_file.Append(parts.data(), static_cast<int>(parts.size()))) {
            return false;
        }
        m_statistics.recordsWritten += records;
        m_statistics.bytesWritten += bytes;
        recordsWritten += records;
        for (size_t i = 0; i < count; ++i) {
            m_queue.Release(std::move(m_pending.front()));
            m_pending.pop_front();
        }
    }
    return true;
}

void LogBatchWriter::WriteDue(Clock::time_point now) {
    if (!m_pending.empty() && (!m_failing || now >= m_nextRetry)) {
        uint64_t written = 0;
        if (WritePending(written)) {
            if (m_failing) {
                m_failing = false;
                m_notice(Format("writing %s again after %.1f s; %" PRIu64
                                " records held meanwhile written, %" PRIu64
                                " dropped because the queue was full",
                                m_file.Path().c_str(), Seconds(now - m_outageStart), written,
                                m_queue.DroppedRecords() - m_dropsAtOutageStart));
                m_dropsReported = m_queue.DroppedRecords();
            }
        } else {
            if (!m_failing) {
                // Drops from before the outage are told on their own, not
                // mixed into the outage's count.
                const uint64_t dropped = m_queue.DroppedRecords();
                if (dropped > m_dropsReported) {
                    m_notice(Format("queue full: %" PRIu64 " records dropped",
                                    dropped - m_dropsReported));
                    m_dropsReported = dropped;
                }
                // Once per outage: a missing or full medium fails every write
                // until it is back.
                m_failing = true;
                m_outageStart = now;
                m_dropsAtOutageStart = m_queue.DroppedRecords();
                m_queueFullReported = false;
                ++m_statistics.outages;
                m_notice(
                    Format("cannot write %s; records are held in memory (up to %s) until "
                           "it can be written again",
                           m_file.LastError().c_str(), Size(m_queue.Capacity()).c_str()));
            }
            m_nextRetry = now + m_retryInterval;
        }
    }
    ReportQueueDrops(now);
}

void LogBatchWriter::ReportQueueDrops(Clock::time_point now) {
    const uint64_t dropped = m_queue.DroppedRecords();
    if (dropped == m_dropsReported) {
        return;
    }
    if (m_failing) {
        // The rest of the outage's drops are told at its end.
        if (!m_queueFullReported) {
            m_queueFullReported = true;
            m_notice(
                Format("queue full after %.1f s without the medium (%s held); newer "
                       "records are dropped until it is back",
                       Seconds(now - m_outageStart), Size(m_queue.HeldBytes()).c_str()));
        }
        return;
    }
    // The medium takes writes but slower than records arrive: told at most
    // once a second.
    if (now - m_lastDropReport >= std::chrono::seconds(1)) {
        m_notice(Format("queue full: %" PRIu64 " records dropped, the log file is written "
                        "slower than records arrive",
                        dropped - m_dropsReported));
        m_dropsReported = dropped;
        m_lastDropReport = now;
    }
}

void LogBatchWriter::Finish(Clock::time_point now) {
    m_nextRetry = now;
    WriteDue(now);
    const uint64_t dropped = m_queue.DroppedRecords();
    if (m_failing) {
        const uint64_t lost = PendingRecords();
        m_statistics.recordsDroppedUnwritten += lost;
        m_notice(Format("stopping while %s; %" PRIu64 " held records dropped, %" PRIu64
                        " dropped earlier because the queue was full",
                        m_file.LastError().c_str(), lost, dropped - m_dropsAtOutageStart));
        m_dropsReported = dropped;
    }
    while (!m_pending.empty()) {
        m_queue.Release(std::move(m_pending.front()));
        m_pending.pop_front();
    }
    if (dropped > m_dropsReported) {
        m_notice(Format("queue full: %" PRIu64 " records dropped", dropped - m_dropsReported));
        m_dropsReported = dropped;
    }
}

}  // namespace MulticoreLogService
