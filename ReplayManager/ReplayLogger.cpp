#include "libreplay/server/ReplayLogger.h"

#include <fcntl.h>
#include <poll.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"
#include "libreplay/multicore.h"
#include "libreplay/server/TargetRoot.h"
#include "reference/src/file_io.h"

using ReplayCore::FileLogger;

namespace {

const char* const kSourceFile = "ReplayManager/ReplayLogger";
constexpr size_t kTextLimit = 128;
// How long one record waits for room in a full logger channel.
constexpr std::chrono::milliseconds kChannelWait(1000);

// Failed connection attempts, USB probe and channel alike. Touched only by
// the thread that connects.
unsigned int g_connectFailures = 0;
// Channel failures are counted, and reported every 100th time, up to here.
constexpr unsigned int kMaximumCountedFailures = 1000;
constexpr unsigned int kProbeReportInterval = 25;
constexpr unsigned int kChannelReportInterval = 100;

// The descriptor of the last successful USB probe. It is left open, as a
// sign of the medium in use; a later probe replaces it rather than piling up
// descriptors while the channel cannot be opened.
int g_probeFD = -1;

bool ProbeUsbMedium() {
    const std::string path = ReplayPlatform::TargetPath(ReplayLogger::kUsbMediumPath);
    // The medium's mount point is a directory, which Linux opens read-only.
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 1) {
        if (fd == 0) {
            ReplayPlatform::CloseDescriptor(fd);
        }
        return false;
    }
    if (g_probeFD >= 0) {
        ReplayPlatform::CloseDescriptor(g_probeFD);
    }
    g_probeFD = fd;
    return true;
}

}  // namespace

ReplayLogger& ReplayLogger::Get() {
    static ReplayLogger logger;
    return logger;
}

bool ReplayLogger::IsConnected() const {
    return m_loggerFD.load(std::memory_order_relaxed) > 0 || m_logStream != nullptr;
}

bool ReplayLogger::Connect() {
    static const char* const kTag = "ReplayServer::ReplayLogger::Connect";
    if (m_loggerFD.load(std::memory_order_relaxed) > 0) {
        return true;
    }

    const char* serviceLogFile = nullptr;
    if (mi_RTLoggerActive()) {
        std::printf("rtlogger attached to MultiCore\n");
        FileLogger::LogToFile(FileLogger::eSeverityError, "rtlogger attached to MultiCore");
    } else if ((serviceLogFile = mi_getLogFileName()) != nullptr) {
        FileLogger::LogToFile(FileLogger::eSeverityInfo, "Logging to File %s", serviceLogFile);
        if (DebugOutputAttached()) {
            dbgMessage("%s::%s: Logging to File %s\n", DebugAppName(), kTag, serviceLogFile);
        }
    } else if (!ProbeUsbMedium()) {
        // Recording waits for the medium; say so now and then, not per record.
        const unsigned int failures = g_connectFailures++;
        if (failures % kProbeReportInterval == 0) {
            FileLogger::LogToFile(FileLogger::eSeverityError, "Failed to open Logger");
        }
        return false;
    } else {
        if (DebugOutputAttached()) {
            dbgMessage("%s::%s: /fs/usb0 detected\n", DebugAppName(), kTag);
        }
        FileLogger::LogToFile(FileLogger::eSeverityInfo, "/fs/usb0 detected");
    }

    // The channel is a FIFO of the logger service (a plain file in tests).
    // Read-write: the server then holds a read end itself, so a write never
    // raises SIGPIPE when the service is gone, and a restarted service that
    // reopens the same FIFO receives the records again. Non-blocking: a
    // stalled or absent service costs lost records, never a stalled writer
    // thread. Append keeps a plain-file channel from being overwritten.
    const std::string channel =
        ReplayPlatform::TargetPath(kMulticoreRoot) + std::string(kReplayChannel);
    const int fd = open(channel.c_str(), O_RDWR | O_NONBLOCK | O_APPEND | O_CLOEXEC);
    if (fd < 0) {
        if (g_connectFailures < kMaximumCountedFailures) {
            const unsigned int failures = g_connectFailures++;
            if (failures % kChannelReportInterval == kChannelReportInterval - 1) {
                std::printf("Failed to open Logger %s\n", channel.c_str());
                FileLogger::LogToFile(FileLogger::eSeverityError,
                                      "Failed to open Replay Logger Console %s", channel.c_str());
            }
        }
        return false;
    }
    if (fd == 0) {
        // Descriptor 0 counts as not connected; keep it, as the record says.
        FileLogger::LogAssertion(151, kSourceFile, "m_loggerFD > 0");
    }
    m_loggerFD.store(fd, std::memory_order_relaxed);
    FileLogger::LogToFile(FileLogger::eSeverityInfo, "Replay Logger Connected, FD=%d", fd);
    mi_setLogFileName(kLogFileName);
    return fd > 0;
}

int ReplayLogger::FrameRecord(const std::string& text, char* record) {
    const size_t length = text.size();
    if (length + kFramingLength > kMaximumRecordSize) {
        return -1;
    }
    char header[kFramingLength + 1];
    std::snprintf(header, sizeof header, "%4d%c", static_cast<int>(length), '|');
    std::memcpy(record, header, kFramingLength);
    char* payload = record + kFramingLength;
    std::memcpy(payload, text.data(), length);
    if (length >= 2 && payload[0] == '!') {
        // The last byte (the record's own line end) stays as it is.
        for (size_t i = 0; i + 1 < length; ++i) {
            if (payload[i] == '\r') {
                payload[i] = static_cast<char>(kEscapedCarriageReturn);
            } else if (payload[i] == '\n') {
                payload[i] = static_cast<char>(kEscapedLineFeed);
            }
        }
    }
    return static_cast<int>(length + kFramingLength);
}

ReplayError ReplayLogger::WriteTextToLog(const std::string& text) {
    static const char* const kTag = "ReplayServer::ReplayLogger::WriteTextToLog";
    if (!Connect() || (m_loggerFD.load(std::memory_order_relaxed) < 1 && m_logStream == nullptr)) {
        return ReplayError("ReplayLogger::WriteTextToLog:Failed to Connect to Log File", -1,
                           ReplayError::eErrorSevere);
    }
    char record[kMaximumRecordSize];
    const int recordLength = FrameRecord(text, record);
    if (recordLength < 0) {
        char message[kTextLimit];
        std::snprintf(message, sizeof message, "Record of length %d Exceeds limit of %d",
                      static_cast<int>(text.size() + kFramingLength),
                      static_cast<int>(kMaximumRecordSize));
        return ReplayError(message, -1, ReplayError::eErrorSevere);
    }
    // One write per record keeps records whole on the channel. A full
    // channel (the service is behind) is waited on for a bounded time rather
    // than dropping the record: the writer's queue and the server's hold
    // behind it take up the slack, and what they cannot hold they count.
    const int fd = m_loggerFD.load(std::memory_order_relaxed);
    int written = ReplayCore::LogWriter::WriteToLog(fd, m_logStream, record,
                                                    static_cast<unsigned int>(recordLength));
    const auto deadline = std::chrono::steady_clock::now() + kChannelWait;
    while (written < 0 && errno == EAGAIN && m_logStream == nullptr && fd > 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            break;
        }
        pollfd ready = {fd, POLLOUT, 0};
        ::poll(&ready, 1, static_cast<int>(left.count()));
        written = ReplayCore::LogWriter::WriteToLog(fd, m_logStream, record,
                                                    static_cast<unsigned int>(recordLength));
    }
    if (DebugOutputAttached()) {
        dbgMessage("%s::%s: %d Bytes Written\n", DebugAppName(), kTag, written);
    }
    if (written < 0) {
        return ReplayErrorManager::Get().LogError(
            ReplayError(232, kSourceFile, nullptr, ReplayError::eErrorSevere));
    }
    return ReplayError();
}

void ReplayLogger::ResetForTesting() {
    const int fd = m_loggerFD.exchange(0);
    if (fd > 0) {
        ReplayPlatform::CloseDescriptor(fd);
    }
    if (g_probeFD >= 0) {
        ReplayPlatform::CloseDescriptor(g_probeFD);
        g_probeFD = -1;
    }
    g_connectFailures = 0;
}
