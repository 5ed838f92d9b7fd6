#ifndef LOGGER_LOGGERSTATISTICS_H
#define LOGGER_LOGGERSTATISTICS_H

// The logger service's counters, shared by its reader and writer threads.

#include <atomic>
#include <cstdint>

namespace MulticoreLogService {

struct LoggerStatistics {
    std::atomic<uint64_t> recordsReceived{0};
    std::atomic<uint64_t> bytesReceived{0};  // framed, as read from the channel
    std::atomic<uint64_t> recordsWritten{0};
    std::atomic<uint64_t> bytesWritten{0};  // to the log file, stored form
    // Refused because the queue was full (an outage longer than it holds, or
    // a medium slower than the records arrive).
    std::atomic<uint64_t> recordsDroppedQueueFull{0};
    // Still unwritten when the service stopped with the medium failing.
    std::atomic<uint64_t> recordsDroppedUnwritten{0};
    std::atomic<uint64_t> outages{0};  // times the log file stopped being writable
    std::atomic<uint64_t> malformedBytes{0};
    std::atomic<uint64_t> reconnects{0};
    std::atomic<uint64_t> recordChannelClosures{0};  // times all record writers had gone
    std::atomic<uint64_t> consoleLines{0};
    std::atomic<uint64_t> consoleLinesDropped{0};

    uint64_t RecordsDropped() const {
        return recordsDroppedQueueFull.load() + recordsDroppedUnwritten.load();
    }
};

}  // namespace MulticoreLogService

#endif
