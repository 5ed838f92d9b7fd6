#ifndef LOGGER_LOGGERSERVICE_H
#define LOGGER_LOGGERSERVICE_H

// The logger service behind the multicore device tree. It creates the
// devices as FIFOs (or reuses those left by an earlier run) and reads them
// in a poll loop without ever making a writer wait: replay records from
// "navi/Q" are appended to the log file in stored form, console batches
// ("navi/multi") and debug text ("navi/q") go to the console log, and
// "ioc1/0" answers the library's presence probe. A separate writer thread
// does all file output through a bounded queue, which also holds the
// records while the log file cannot be written.

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "logger/ChannelParsers.h"
#include "logger/LoggerStatistics.h"
#include "logger/RecordQueue.h"
#include "reference/src/status.h"

namespace MulticoreLogService {

struct LoggerOptions {
    std::string deviceRoot;      // the directory standing for "/kfsystem/multicore"
    std::string logFile;         // replay records in stored form
    std::string consoleLogFile;  // console and debug text; empty for none
    bool consoleToStdout = false;
    int syncIntervalMs = 1000;  // 0: sync after every write
    // Records held while the medium is missing, full or slow: 64 MB keeps
    // about 75 s of 20 clients each sending twenty 2 KB blocks a second.
    size_t queueBytes = 64 * 1024 * 1024;
    // The record channel's FIFO buffer; 0 asks for the largest the system
    // allows. The other channels get at most 1 MB.
    int pipeSize = 0;
    // How often a failing log file is tried again.
    int retryIntervalMs = 100;
    std::string readyFile;       // written once the devices exist
    std::string statisticsFile;  // JSON counters, rewritten every second; empty for none
};

class LoggerService {
  public:
    explicit LoggerService(LoggerOptions options);
    ~LoggerService();
    LoggerService(const LoggerService&) = delete;
    LoggerService& operator=(const LoggerService&) = delete;

    // Creates the missing devices, reuses existing FIFOs and starts the
    // threads. Fails when a device path holds something other than a FIFO
    // or cannot be created or opened.
    ReplayPlatform::Status Start();
    // Reads what writers already put into the devices, writes everything
    // queued, syncs and stops. The FIFOs stay for the next start. Idempotent.
    void Stop();

    const LoggerStatistics& Statistics() const { return m_statistics; }
    // "N records received, N written, N dropped (N queue full, N unwritable
    // at stop), N bytes, N outages".
    std::string Summary() const;
    // The counters as one JSON object; "received", "written", "dropped" and
    // "queued" count records.
    std::string StatisticsJson() const;
    // The record channel's FIFO buffer size, once started.
    int RecordPipeSize() const { return m_recordPipeSize.load(); }

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

    // Fails when `path` exists and is not a FIFO.
    static ReplayPlatform::Status CheckDevicePath(const std::string& path);
    ReplayPlatform::Status CreateDevice(Device& device, bool keepOpen);
    void CloseDevices();
    ReplayPlatform::Status OpenReadEnd(Device& device);
    void PollLoop();
    enum class DrainResult { kEmpty, kMore, kClosed };
    // Reads what the FIFO holds, up to a fair share per poll round.
    DrainResult Drain(Device& device, int which);
    void HandleData(int which, const char* data, size_t length);
    void WriterLoop();
    void PushConsoleLine(char console, const char* text, size_t length);
    void WriteStatisticsFile() const;

    LoggerOptions m_options;
    LoggerStatistics m_statistics;
    std::vector<Device> m_devices;
    RecordQueue m_queue;
    std::vector<char> m_readBuffer;  // poll thread only
    std::atomic<int> m_recordPipeSize{0};
    std::atomic<bool> m_mediumFailing{false};
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
