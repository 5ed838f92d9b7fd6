#include "logger/LoggerService.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>

#include "libreplay/ReplayLogReader.h"
#include "logger/LogFileWriter.h"

namespace MulticoreLogService {

const char* const LoggerService::kRecordDevice = "/navi/Q";
const char* const LoggerService::kDebugDevice = "/navi/q";
const char* const LoggerService::kConsoleDevice = "/navi/multi";
const char* const LoggerService::kProbeDevice = "/ioc1/0";

namespace {

enum DeviceIndex { kRecords = 0, kDebug = 1, kConsole = 2, kProbe = 3, kDeviceCount = 4 };

constexpr size_t kReadChunk = 64 * 1024;
// Reads per device and poll round, so that one busy writer cannot starve
// the other channels.
constexpr int kReadsPerRound = 64;

}  // namespace

LoggerService::LoggerService(LoggerOptions options)
    : m_options(std::move(options)),
      m_queue(m_options.queueRecords, m_options.queueBytes),
      m_recordParser([this](const char* framed, size_t length) {
          ++m_statistics.recordsReceived;
          if (!m_queue.Push(QueueItem::kRecord, framed, length)) {
              ++m_statistics.recordsDroppedQueueFull;
          }
      }),
      m_consoleParser([this](char console, const char* text, size_t length) {
          PushConsoleLine(console, text, length);
      }),
      m_debugParser(
          [this](const char* text, size_t length) { PushConsoleLine('q', text, length); }) {}

LoggerService::~LoggerService() {
    Stop();
    if (m_wakeRead >= 0) {
        close(m_wakeRead);
    }
    if (m_wakeWrite >= 0) {
        close(m_wakeWrite);
    }
}

bool LoggerService::CheckDevicePath(const std::string& path) {
    struct stat existing;
    if (lstat(path.c_str(), &existing) == 0 && !S_ISFIFO(existing.st_mode)) {
        m_error = path + ": exists and is not a FIFO";
        return false;
    }
    return true;
}

bool LoggerService::CreateDevice(Device& device, bool keepOpen) {
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(device.path).parent_path(), ignored);
    // An existing FIFO is reused: a writer that kept it open across our
    // restart still writes into it, and what it wrote meanwhile waits there.
    if (mkfifo(device.path.c_str(), 0666) != 0 && errno != EEXIST) {
        m_error = device.path + ": cannot create FIFO: " + strerror(errno);
        return false;
    }
    if (!CheckDevicePath(device.path) || !OpenReadEnd(device)) {
        return false;
    }
    if (keepOpen) {
        device.keepOpenFd = open(device.path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    }
    return true;
}

bool LoggerService::OpenReadEnd(Device& device) {
    device.readFd = open(device.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (device.readFd < 0) {
        m_error = device.path + ": cannot open: " + strerror(errno);
        return false;
    }
    // A large pipe buffer absorbs bursts while this thread is busy; the
    // kernel may refuse the size, which only costs headroom.
    if (m_options.pipeSize > 0) {
        (void)fcntl(device.readFd, F_SETPIPE_SZ, m_options.pipeSize);
    }
    return true;
}

bool LoggerService::Start() {
    if (m_started) {
        return true;
    }
    const char* const paths[kDeviceCount] = {kRecordDevice, kDebugDevice, kConsoleDevice,
                                             kProbeDevice};
    m_devices.resize(kDeviceCount);
    for (int i = 0; i < kDeviceCount; ++i) {
        m_devices[i].path = m_options.deviceRoot + paths[i];
    }
    // Anything in the way is found before a single device is opened.
    for (const Device& device : m_devices) {
        if (!CheckDevicePath(device.path)) {
            m_devices.clear();
            return false;
        }
    }
    for (int i = 0; i < kDeviceCount; ++i) {
        // The record channel gets no writer of ours: its hang-up tells that
        // all writers have gone, and the next one re-attaches.
        if (!CreateDevice(m_devices[i], i != kRecords)) {
            CloseDevices();
            m_devices.clear();
            return false;
        }
    }
    int wake[2];
    if (pipe2(wake, O_NONBLOCK | O_CLOEXEC) != 0) {
        m_error = std::string("cannot create wake-up pipe: ") + strerror(errno);
        CloseDevices();
        m_devices.clear();
        return false;
    }
    m_wakeRead = wake[0];
    m_wakeWrite = wake[1];
    m_started = true;
    m_writerThread = std::thread(&LoggerService::WriterLoop, this);
    m_pollThread = std::thread(&LoggerService::PollLoop, this);

    if (!m_options.readyFile.empty()) {
        FILE* ready = fopen(m_options.readyFile.c_str(), "w");
        if (ready != nullptr) {
            fprintf(ready, "%d\n", static_cast<int>(getpid()));
            fclose(ready);
        }
    }
    return true;
}

void LoggerService::Stop() {
    if (!m_started || m_stopped) {
        return;
    }
    m_stopped = true;
    // The FIFOs stay: a writer holding the record channel open keeps writing
    // into it, and the next service start reads what it wrote meanwhile.
    // Probe and console writers that open write-only see no reader (ENXIO)
    // until then.
    m_stopping = true;
    const char wake = 1;
    (void)!write(m_wakeWrite, &wake, 1);
    m_pollThread.join();
    m_queue.Close();
    m_writerThread.join();
    CloseDevices();
    if (!m_options.readyFile.empty()) {
        unlink(m_options.readyFile.c_str());
    }
}

void LoggerService::CloseDevices() {
    for (Device& device : m_devices) {
        if (device.readFd >= 0) {
            close(device.readFd);
        }
        if (device.keepOpenFd >= 0) {
            close(device.keepOpenFd);
        }
        device.readFd = device.keepOpenFd = -1;
    }
}

std::string LoggerService::Summary() const {
    char text[160];
    snprintf(text, sizeof text,
             "%" PRIu64 " records written, %" PRIu64 " dropped, %" PRIu64 " bytes",
             m_statistics.recordsWritten.load(), m_statistics.RecordsDropped(),
             m_statistics.bytesWritten.load());
    return text;
}

void LoggerService::PushConsoleLine(char console, const char* text, size_t length) {
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) {
        --length;
    }
    std::string line;
    line.reserve(length + 3);
    line.push_back(console);
    line.push_back('\t');
    line.append(text, length);
    line.push_back('\n');
    ++m_statistics.consoleLines;
    if (!m_queue.Push(QueueItem::kConsole, line.data(), line.size())) {
        ++m_statistics.consoleLinesDropped;
    }
}

void LoggerService::HandleData(int which, const char* data, size_t length) {
    switch (which) {
        case kRecords:
            if (m_recordWritersGone) {
                m_recordWritersGone = false;
                ++m_statistics.reconnects;
                if (!m_queue.Push(QueueItem::kReconnect, "", 0)) {
                    ++m_statistics.consoleLinesDropped;
                }
            }
            m_recordDataSeen = true;
            m_recordParser.Feed(data, length);
            m_statistics.malformedBytes = m_recordParser.MalformedBytes();
            break;
        case kDebug:
            m_debugParser.Feed(data, length);
            break;
        case kConsole:
            m_consoleParser.Feed(data, length);
            break;
        default:
            // The probe device carries nothing worth keeping.
            break;
    }
}

LoggerService::DrainResult LoggerService::Drain(Device& device, int which) {
    char buffer[kReadChunk];
    for (int round = 0; round < kReadsPerRound; ++round) {
        const ssize_t got = read(device.readFd, buffer, sizeof buffer);
        if (got > 0) {
            HandleData(which, buffer, static_cast<size_t>(got));
            continue;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        // 0: every writer has closed the FIFO.
        return got == 0 ? DrainResult::kClosed : DrainResult::kEmpty;
    }
    return DrainResult::kMore;
}

void LoggerService::PollLoop() {
    pollfd fds[kDeviceCount + 1];
    while (!m_stopping.load()) {
        fds[0] = pollfd{m_wakeRead, POLLIN, 0};
        for (int i = 0; i < kDeviceCount; ++i) {
            fds[i + 1] = pollfd{m_devices[i].readFd, POLLIN, 0};
        }
        const int ready = poll(fds, kDeviceCount + 1, -1);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        if (fds[0].revents != 0) {
            break;
        }
        for (int i = 0; i < kDeviceCount; ++i) {
            Device& device = m_devices[i];
            if (fds[i + 1].revents == 0 || device.readFd < 0) {
                continue;
            }
            if (Drain(device, i) != DrainResult::kClosed || i != kRecords) {
                continue;
            }
            // All writers have closed the record channel. Opening it afresh
            // clears the hang-up, so poll sleeps until the next writer.
            m_recordParser.Reset();
            ++m_statistics.recordChannelClosures;
            m_statistics.malformedBytes = m_recordParser.MalformedBytes();
            if (m_recordDataSeen) {
                m_recordWritersGone = true;
            }
            close(device.readFd);
            device.readFd = -1;
            if (!OpenReadEnd(device)) {
                fprintf(stderr, "replay-logger: %s\n", m_error.c_str());
            }
        }
    }
    // Whatever writers put into the FIFOs before the stop is still stored.
    for (int i = 0; i < kDeviceCount; ++i) {
        if (m_devices[i].readFd >= 0) {
            while (Drain(m_devices[i], i) == DrainResult::kMore) {
            }
        }
    }
    m_debugParser.Flush();
}

void LoggerService::WriterLoop() {
    LogFileWriter log(m_options.logFile);
    std::unique_ptr<LogFileWriter> console;
    if (!m_options.consoleLogFile.empty()) {
        console = std::make_unique<LogFileWriter>(m_options.consoleLogFile);
    }
    const auto syncInterval = std::chrono::milliseconds(m_options.syncIntervalMs);
    const auto wait = m_options.syncIntervalMs > 0 ? syncInterval : std::chrono::milliseconds(1000);
    auto lastSync = std::chrono::steady_clock::now();
    std::deque<QueueItem> items;
    std::string stored;
    std::string consoleText;
    bool running = true;
    bool failing = false;
    uint64_t droppedWhileFailing = 0;
    while (running) {
        running = m_queue.PopAll(items, wait);
        if (!items.empty()) {
            stored.clear();
            consoleText.clear();
            uint64_t records = 0;
            for (const QueueItem& item : items) {
                switch (item.kind) {
                    case QueueItem::kRecord:
                        ReplayCore::LogFormat::AppendStoredRecord(item.data.data(),
                                                                  item.data.size(), stored);
                        ++records;
                        break;
                    case QueueItem::kReconnect:
                        ReplayCore::LogFormat::AppendReconnectLine(stored);
                        break;
                    case QueueItem::kConsole:
                        consoleText += item.data;
                        break;
                }
            }
            items.clear();
            if (!stored.empty()) {
                if (log.Append(stored.data(), stored.size())) {
                    m_statistics.recordsWritten += records;
                    m_statistics.bytesWritten += stored.size();
                    if (failing) {
                        failing = false;
                        fprintf(stderr,
                                "replay-logger: writing %s again; %" PRIu64
                                " records dropped while it could not be written\n",
                                log.Path().c_str(), droppedWhileFailing);
                    }
                } else {
                    m_statistics.recordsDroppedNoMedium += records;
                    droppedWhileFailing = failing ? droppedWhileFailing + records : records;
                    // Once per outage: a missing or full medium fails every
                    // write until it is back.
                    if (!failing) {
                        failing = true;
                        fprintf(stderr,
                                "replay-logger: cannot write %s; records are dropped until it "
                                "can be written again\n",
                                log.LastError().c_str());
                    }
                }
            }
            if (!consoleText.empty()) {
                if (console != nullptr) {
                    console->Append(consoleText.data(), consoleText.size());
                }
                if (m_options.consoleToStdout) {
                    fwrite(consoleText.data(), 1, consoleText.size(), stdout);
                    fflush(stdout);
                }
            }
        }
        const auto now = std::chrono::steady_clock::now();
        if (m_options.syncIntervalMs <= 0 || now - lastSync >= syncInterval) {
            log.Sync();
            if (console != nullptr) {
                console->Sync();
            }
            lastSync = now;
        }
    }
    // Closing syncs what is still unsynced.
    log.Close();
}

}  // namespace MulticoreLogService
