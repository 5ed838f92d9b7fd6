#ifndef LOGGER_LOGGERSERVICE_H
#define LOGGER_LOGGERSERVICE_H

// The logger service behind the multicore device tree. It creates the
// devices as FIFOs (or reuses those left by an earlier run) and reads them in a poll loop without
// ever making a writer wait: replay records from "navi/Q" are appended to the log file in stored
// form, console batches ("navi/multi") and debug text ("navi/q") go to the
// console log, and "ioc1/0" answers the library's presence probe. A separate
// writer thread does all file output through a bounded queue.

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "logger/ChannelParsers.h"
#include "logger/RecordQueue.h"

namespace MulticoreLogService {

struct LoggerOptions {
    std::string deviceRoot;      // the directory standing for "/kfsystem/multicore"
    std::string logFile;         // replay records in stored form
    std::string consoleLogFile;  // console and debug text; empty for none
    bool consoleToStdout = false;
    int syncIntervalMs = 1000;  // 0: sync after every write
    size_t queueRecords = 16384;
    size_t queueBytes = 32 * 1024 * 1024;
    int pipeSize = 1024 * 1024;  // requested FIFO buffer; the kernel may cap it
    std::string readyFile;       // written once the devices exist
};

struct LoggerStatistics {
    std::atomic<uint64_t> recordsReceived{0};
    std::atomic<uint64_t> recordsWritten{0};
    std::atomic<uint64_t> recordsDroppedQueueFull{0};
    std::atomic<uint64_t> recordsDroppedNoMedium{0};  // the log file could not be written
    std::atomic<uint64_t> bytesWritten{0};            // to the log file, stored form
    std::atomic<uint64_t> malformedBytes{0};
    std::atomic<uint64_t> reconnects{0};
    std::atomic<uint64_t> recordChannelClosures{0};  // times all record writers had gone
    std::atomic<uint64_t> consoleLines{0};
    std::atomic<uint64_t> consoleLinesDropped{0};

    uint64_t RecordsDropped() const {
        return recordsDroppedQueueFull.load() + recordsDroppedNoMedium.load();
    }
};

class LoggerService {
  public:
    explicit LoggerService(LoggerOptions options);
    ~LoggerService();
    LoggerService(const LoggerService&) = delete;
    LoggerService& operator=(const LoggerService&) = delete;

    // Creates the missing devices, reuses existing FIFOs and starts the
    // threads; false with Error() set when a device path holds something
    // other than a FIFO or cannot be created or opened.
    bool Start();
    // Reads what writers already put into the devices, writes everything
    // queued, syncs and stops. The FIFOs stay for the next start. Idempotent.
    void Stop();

    const std::string& Error() const { return m_error; }
    const LoggerStatistics& Statistics() const { return m_statistics; }
    // "N records written, N dropped, N bytes".
    std::string Summary() const;

    // Device paths below the device root.
    static const char* const kRecordDevice;   // "/navi/Q"
    static const char* const kDebugDevice;    // "/navi/q"
    static const char* const kConsoleDevice;  // "/navi/multi"
    static const char* const kProbeDevice;    // "/ioc1/0"

  private:
    struct Device {
        std::string path;
        int readFd = -1;
        int keepOpenFd = -1;  // our own writer, so the FIFO never reports hang-up
    };

    // False (with m_error) when `path` exists and is not a FIFO.
    bool CheckDevicePath(const std::string& path);
    bool CreateDevice(Device& device, bool keepOpen);
    void CloseDevices();
    bool OpenReadEnd(Device& device);
    void PollLoop();
    enum class DrainResult { kEmpty, kMore, kClosed };
    // Reads what the FIFO holds, up to a fair share per poll round.
    DrainResult Drain(Device& device, int which);
    void HandleData(int which, const char* data, size_t length);
    void WriterLoop();
    void PushConsoleLine(char console, const char* text, size_t length);

    LoggerOptions m_options;
    LoggerStatistics m_statistics;
    std::string m_error;
    std::vector<Device> m_devices;
    RecordQueue m_queue;
    // Used by the poll thread only.
    RecordChannelParser m_recordParser;
    ConsoleChannelParser m_consoleParser;
    TextChannelParser m_debugParser;
    bool m_recordDataSeen = false;
    bool m_recordWritersGone = false;
    int m_wakeRead = -1;
    int m_wakeWrite = -1;
    std::atomic<bool> m_stopping{false};
    bool m_started = false;
    bool m_stopped = false;
    std::thread m_pollThread;
    std::thread m_writerThread;
};

}  // namespace MulticoreLogService

#endif
