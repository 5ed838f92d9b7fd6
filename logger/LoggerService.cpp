#include "logger/LoggerService.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>

#include <nlohmann/json.hpp>

#include "logger/LogBatchWriter.h"
#include "reference/src/child_process.h"
#include "reference/src/file_io.h"
#include "logger/LogFileWriter.h"

namespace MulticoreLogService {

const char* const LoggerService::kRecordDevice = "/navi/Q";
const char* const LoggerService::kDebugDevice = "/navi/q";
const char* const LoggerService::kConsoleDevice = "/navi/multi";
const char* const LoggerService::kProbeDevice = "/ioc1/0";

namespace {

enum DeviceIndex { kRecords = 0, kDebug = 1, kConsole = 2, kProbe = 3, kDeviceCount = 4 };

// One read takes up to this much: a full record FIFO in a few calls.
constexpr size_t kReadChunk = 1024 * 1024;
// Reads per device and poll round, so that one busy writer cannot starve
// the other channels.
constexpr int kReadsPerRound = 16;
// The record FIFO asked for when the options leave it to the service:
// 200 ms of records arriving at 80 MB/s.
constexpr int kPreferredRecordPipe = 16 * 1024 * 1024;
constexpr int kOtherPipe = 1024 * 1024;
constexpr auto kStatisticsInterval = std::chrono::seconds(1);

int SystemPipeLimit() {
    int limit = 0;
    FILE* file = fopen("/proc/sys/fs/pipe-max-size", "r");
    if (file != nullptr) {
        if (fscanf(file, "%d", &limit) != 1) {
            limit = 0;
        }
        fclose(file);
    }
    return limit;
}

// Sets the FIFO's buffer to `wanted`, or else to the largest size the
// system lets this process set; returns the size in force.
int EnlargePipe(int fd, int wanted) {
    if (fcntl(fd, F_SETPIPE_SZ, wanted) < 0) {
        const int limit = SystemPipeLimit();
        if (limit > 0 && limit < wanted) {
            (void)fcntl(fd, F_SETPIPE_SZ, limit);
        }
    }
    return fcntl(fd, F_GETPIPE_SZ);
}

}  // namespace

LoggerService::LoggerService(LoggerOptions options)
    : m_options(std::move(options)),
      m_queue(m_options.queueBytes),
      m_recordParser([this](const char* framed, size_t length) {
          m_statistics.recordsReceived.fetch_add(1, std::memory_order_relaxed);
          m_statistics.bytesReceived.fetch_add(length, std::memory_order_relaxed);
          if (!m_queue.AddRecord(framed, length)) {
              m_statistics.recordsDroppedQueueFull.fetch_add(1, std::memory_order_relaxed);
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
        ReplayPlatform::CloseDescriptor(m_wakeRead);
    }
    if (m_wakeWrite >= 0) {
        ReplayPlatform::CloseDescriptor(m_wakeWrite);
    }
}

using ReplayPlatform::Status;

Status LoggerService::CheckDevicePath(const std::string& path) {
    struct stat existing;
    if (lstat(path.c_str(), &existing) == 0 && !S_ISFIFO(existing.st_mode)) {
        return Status::Failure(path + ": exists and is not a FIFO");
    }
    return Status::Ok();
}

Status LoggerService::CreateDevice(Device& device, bool keepOpen) {
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(device.path).parent_path(), ignored);
    // An existing FIFO is reused: a writer that kept it open across our
    // restart still writes into it, and what it wrote meanwhile waits there.
    if (mkfifo(device.path.c_str(), 0666) != 0 && errno != EEXIST) {
        return Status::SystemFailure(device.path + ": cannot create FIFO", errno);
    }
    Status status = CheckDevicePath(device.path);
    if (status.IsOk()) {
        status = OpenReadEnd(device);
    }
    if (status.IsOk() && keepOpen) {
        device.keepOpenFd = open(device.path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    }
    return status;
}

Status LoggerService::OpenReadEnd(Device& device) {
    device.readFd = open(device.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (device.readFd < 0) {
        return Status::SystemFailure(device.path + ": cannot open", errno);
    }
    // A large pipe buffer absorbs bursts while this thread is busy: the
    // replay server writes without waiting, so what does not fit is lost.
    // The kernel may refuse the size, which only costs headroom.
    if (&device == &m_devices[kRecords]) {
        m_recordPipeSize = EnlargePipe(
            device.readFd, m_options.pipeSize > 0 ? m_options.pipeSize : kPreferredRecordPipe);
    } else {
        (void)fcntl(device.readFd, F_SETPIPE_SZ,
                    m_options.pipeSize > 0 && m_options.pipeSize < kOtherPipe ? m_options.pipeSize
                                                                              : kOtherPipe);
    }
    return Status::Ok();
}

Status LoggerService::Start() {
    if (m_started) {
        return Status::Ok();
    }
    const char* const paths[kDeviceCount] = {kRecordDevice, kDebugDevice, kConsoleDevice,
                                             kProbeDevice};
    m_devices.resize(kDeviceCount);
    for (int i = 0; i < kDeviceCount; ++i) {
        m_devices[i].path = m_options.deviceRoot + paths[i];
    }
    // Anything in the way is found before a single device is opened.
    for (const Device& device : m_devices) {
        Status inTheWay = CheckDevicePath(device.path);
        if (!inTheWay.IsOk()) {
            m_devices.clear();
            return inTheWay;
        }
    }
    for (int i = 0; i < kDeviceCount; ++i) {
        // The record channel gets no writer of ours: its hang-up tells that
        // all writers have gone, and the next one re-attaches.
        Status created = CreateDevice(m_devices[i], i != kRecords);
        if (!created.IsOk()) {
            CloseDevices();
            m_devices.clear();
            return created;
        }
    }
    int wake[2];
    if (!ReplayPlatform::OpenPipe(wake, ReplayPlatform::PipeMode::kStream, true)) {
        const int pipeError = errno;
        CloseDevices();
        m_devices.clear();
        return Status::SystemFailure("cannot create wake-up pipe", pipeError);
    }
    m_wakeRead = wake[0];
    m_wakeWrite = wake[1];
    m_readBuffer.resize(kReadChunk);
    m_started = true;
    m_writerThread = std::thread(&LoggerService::WriterLoop, this);
    m_pollThread = std::thread(&LoggerService::PollLoop, this);

    if (!m_options.readyFile.empty()) {
        FILE* ready = fopen(m_options.readyFile.c_str(), "w");
        if (ready != nullptr) {
            fprintf(ready, "%d\n", ReplayPlatform::CurrentProcessId());
            fclose(ready);
        }
    }
    return Status::Ok();
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
    (void)ReplayPlatform::WriteSome(m_wakeWrite, &wake, 1);
    m_pollThread.join();
    m_queue.Close();
    m_writerThread.join();
    CloseDevices();
    WriteStatisticsFile();
    if (!m_options.readyFile.empty()) {
        (void)ReplayPlatform::RemoveFile(m_options.readyFile);
    }
}

void LoggerService::CloseDevices() {
    for (Device& device : m_devices) {
        if (device.readFd >= 0) {
            ReplayPlatform::CloseDescriptor(device.readFd);
        }
        if (device.keepOpenFd >= 0) {
            ReplayPlatform::CloseDescriptor(device.keepOpenFd);
        }
        device.readFd = device.keepOpenFd = -1;
    }
}

std::string LoggerService::Summary() const {
    char text[256];
    snprintf(text, sizeof text,
             "%" PRIu64 " records received, %" PRIu64 " written, %" PRIu64 " dropped (%" PRIu64
             " queue full, %" PRIu64 " unwritable at stop), %" PRIu64 " bytes, %" PRIu64 " outages",
             m_statistics.recordsReceived.load(), m_statistics.recordsWritten.load(),
             m_statistics.RecordsDropped(), m_statistics.recordsDroppedQueueFull.load(),
             m_statistics.recordsDroppedUnwritten.load(), m_statistics.bytesWritten.load(),
             m_statistics.outages.load());
    return text;
}

std::string LoggerService::StatisticsJson() const {
    const LoggerStatistics& s = m_statistics;
    // Written first, received last: a record counted between the reads
    // shows as queued, never as a negative count.
    const uint64_t written = s.recordsWritten.load();
    const uint64_t dropped = s.RecordsDropped();
    const uint64_t received = s.recordsReceived.load();
    nlohmann::ordered_json json = {
        {"received", received},
        {"written", written},
        {"dropped", dropped},
        {"queued", received > written + dropped ? received - written - dropped : 0},
        {"dropped_queue_full", s.recordsDroppedQueueFull.load()},
        {"dropped_unwritable_at_stop", s.recordsDroppedUnwritten.load()},
        {"bytes_received", s.bytesReceived.load()},
        {"bytes_written", s.bytesWritten.load()},
        {"queued_bytes", m_queue.HeldBytes()},
        {"queue_capacity_bytes", m_queue.Capacity()},
        {"outages", s.outages.load()},
        {"medium_failing", m_mediumFailing.load()},
        {"malformed_bytes", s.malformedBytes.load()},
        {"reconnects", s.reconnects.load()},
        {"console_lines", s.consoleLines.load()},
        {"console_lines_dropped", s.consoleLinesDropped.load()},
        {"record_pipe_bytes", m_recordPipeSize.load()},
    };
    return json.dump();
}

void LoggerService::WriteStatisticsFile() const {
    if (m_options.statisticsFile.empty()) {
        return;
    }
    // A reader sees the old object or the new one, never a part of one.
    const std::string temporary = m_options.statisticsFile + ".tmp";
    FILE* file = fopen(temporary.c_str(), "w");
    if (file == nullptr) {
        return;
    }
    const std::string text = StatisticsJson() + "\n";
    const bool written = fwrite(text.data(), 1, text.size(), file) == text.size();
    if (fclose(file) == 0 && written) {
        (void)rename(temporary.c_str(), m_options.statisticsFile.c_str());
    }
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
    if (!m_queue.AddConsoleText(line.data(), line.size())) {
        ++m_statistics.consoleLinesDropped;
    }
}

void LoggerService::HandleData(int which, const char* data, size_t length) {
    switch (which) {
        case kRecords:
            if (m_recordWritersGone) {
                m_recordWritersGone = false;
                ++m_statistics.reconnects;
                (void)m_queue.AddReconnect();
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
    char* buffer = m_readBuffer.data();
    for (int round = 0; round < kReadsPerRound; ++round) {
        const ssize_t got = ReplayPlatform::ReadSome(device.readFd, buffer, m_readBuffer.size());
        if (got > 0) {
            HandleData(which, buffer, static_cast<size_t>(got));
            // One hand-over per read: the writer starts on it while the
            // next read is parsed.
            m_queue.Commit();
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
            ReplayPlatform::CloseDescriptor(device.readFd);
            device.readFd = -1;
            const Status reopened = OpenReadEnd(device);
            if (!reopened.IsOk()) {
                fprintf(stderr, "replay-logger: %s\n", reopened.Message().c_str());
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
    m_queue.Commit();
}

void LoggerService::WriterLoop() {
    using Clock = LogBatchWriter::Clock;
    LogFileWriter log(m_options.logFile);
    std::unique_ptr<LogFileWriter> console;
    if (!m_options.consoleLogFile.empty()) {
        console = std::make_unique<LogFileWriter>(m_options.consoleLogFile);
    }
    LogBatchWriter writer(log, m_queue, m_statistics,
                          std::chrono::milliseconds(m_options.retryIntervalMs),
                          [](const std::string& notice) {
                              printf("replay-logger: %s\n", notice.c_str());
                              fflush(stdout);
                          });
    const auto syncInterval = std::chrono::milliseconds(m_options.syncIntervalMs);
    auto lastSync = Clock::now();
    auto nextStatistics = Clock::now();
    std::deque<RecordBatch> batches;
    std::string consoleText;
    bool running = true;
    while (running) {
        auto wakeAt = nextStatistics;
        if (m_options.syncIntervalMs > 0 && lastSync + syncInterval < wakeAt) {
            wakeAt = lastSync + syncInterval;
        }
        if (writer.Failing() && writer.NextAttempt() < wakeAt) {
            wakeAt = writer.NextAttempt();
        }
        const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(
            wakeAt - Clock::now() + std::chrono::milliseconds(1));
        running = m_queue.Take(batches, consoleText, std::max(wait, std::chrono::milliseconds(0)));
        writer.Add(batches);
        if (!consoleText.empty()) {
            if (console != nullptr) {
                console->Append(consoleText.data(), consoleText.size());
            }
            if (m_options.consoleToStdout) {
                fwrite(consoleText.data(), 1, consoleText.size(), stdout);
                fflush(stdout);
            }
            consoleText.clear();
        }
        const auto now = Clock::now();
        writer.WriteDue(now);
        m_mediumFailing = writer.Failing();
        if (m_options.syncIntervalMs <= 0 || now - lastSync >= syncInterval) {
            log.Sync();
            if (console != nullptr) {
                console->Sync();
            }
            lastSync = now;
        }
        if (now >= nextStatistics) {
            WriteStatisticsFile();
            nextStatistics = now + kStatisticsInterval;
        }
    }
    writer.Finish(Clock::now());
    m_mediumFailing = writer.Failing();
    // Closing syncs what is still unsynced.
    log.Close();
}

}  // namespace MulticoreLogService
