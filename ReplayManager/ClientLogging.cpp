#include "ReplayManager/ClientLogging.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "ReplayManager/ClientGlobals.h"
#include "libreplay/ReplayCore.h"
#include "libreplay/server/ReplayDebug.h"
#include "reference/src/file_io.h"
#include "libreplay/multicore.h"
#include "libreplay/server/TargetRoot.h"

std::atomic<int> g_defaultLoggerFD{-1};

namespace {

constexpr size_t kHandlerTextSize = 256;
constexpr size_t kClientTextSize = 512;
constexpr size_t kFailureNoticeSize = 196;
constexpr int kMinimumTextLength = 3;

constexpr unsigned int kFailureReportInterval = 50;
constexpr unsigned int kMaximumCountedFailures = 2000;
constexpr unsigned int kFileLoggedInfoMessages = 25;
constexpr unsigned int kVerboseLevel = 5;

constexpr char kErrorPrefix[] = "Error:";
constexpr size_t kErrorPrefixLength = sizeof kErrorPrefix - 1;

std::atomic<unsigned int> g_connectFailures{0};
std::atomic<unsigned int> g_infoMessages{0};

// Formats into `buffer` and returns the length kept (cut to fit, never
// negative).
size_t FormatInto(char* buffer, size_t size, const char* format, va_list arguments) {
    if (format == nullptr) {
        buffer[0] = '\0';
        return 0;
    }
    const int length = std::vsnprintf(buffer, size, format, arguments);
    if (length < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return std::min(static_cast<size_t>(length), size - 1);
}

// One write per message, so that texts of concurrent writers never
// interleave. The device is non-blocking: when the logger lags behind and
// the pipe is full the message is lost rather than stalling the caller.
void WriteToDevice(const char* text, size_t length) {
    const int fd = g_defaultLoggerFD.load(std::memory_order_relaxed);
    if (fd <= 0 || length == 0) {
        return;
    }
    (void)ReplayPlatform::WriteSome(fd, text, length);
}

const char* ClientName() {
    return g_clientName.c_str();
}

}  // namespace

namespace ReplayInternal {

int ConnectToDefaultLogger() {
    int current = g_defaultLoggerFD.load(std::memory_order_relaxed);
    if (current > 0) {
        return 0;
    }
    const std::string path = ReplayPlatform::TargetPath(kDefaultLoggerDevice);
    // The device is a FIFO of the logger service. Opened read-write, the
    // process holds a read end itself, so a write never raises SIGPIPE even
    // when the service is gone, and the open itself never waits for a
    // reader; non-blocking, a full pipe drops the message instead of stalling
    // the caller. Appending keeps a plain file usable as the device too.
    int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_APPEND);
    if (fd == 0) {
        // Descriptor 0 would read as "not open"; move it out of the way.
        const int moved = ReplayPlatform::DuplicateDescriptor(fd, 1);
        ReplayPlatform::CloseDescriptor(fd);
        fd = moved;
    }
    if (fd > 0) {
        if (!g_defaultLoggerFD.compare_exchange_strong(current, fd, std::memory_order_relaxed)) {
            ReplayPlatform::CloseDescriptor(fd);  // another thread connected first
            return 0;
        }
        return 1;
    }

    const int error = errno;
    if (g_connectFailures.load(std::memory_order_relaxed) > kMaximumCountedFailures) {
        return 0;
    }
    const unsigned int failures = g_connectFailures.fetch_add(1, std::memory_order_relaxed) + 1;
    if (failures % kFailureReportInterval == 0) {
        char notice[kFailureNoticeSize];
        std::snprintf(notice, sizeof notice, "\n%s: Failed to open multicore, msg=%s",
                      DebugAppName(), std::strerror(error));
        LogToFile("%s", notice);
        std::fputs(notice, stdout);
    }
    return 0;
}

void DefaultErrorHandler(const char* format, va_list arguments) {
    if (g_defaultLoggerFD.load(std::memory_order_relaxed) <= 0 && ConnectToDefaultLogger() == 0) {
        return;
    }
    char text[kErrorPrefixLength + kHandlerTextSize];
    std::memcpy(text, kErrorPrefix, kErrorPrefixLength);
    const size_t length =
        FormatInto(text + kErrorPrefixLength, kHandlerTextSize, format, arguments);
    WriteToDevice(text, kErrorPrefixLength + length);
}

void DefaultWarningHandler(const char* format, va_list arguments) {
    if (g_defaultLoggerFD.load(std::memory_order_relaxed) <= 0 && ConnectToDefaultLogger() == 0) {
        return;
    }
    if (!mi_checkDebugLevel(kDefaultLoggerConsole, 2)) {
        return;
    }
    char text[kHandlerTextSize];
    WriteToDevice(text, FormatInto(text, sizeof text, format, arguments));
}

void DefaultMessageHandler(const char* format, va_list arguments) {
    if (mi_getDebugLevel(kDefaultLoggerConsole) < 3 ||
        g_defaultLoggerFD.load(std::memory_order_relaxed) <= 0) {
        return;
    }
    char text[kHandlerTextSize];
    WriteToDevice(text, FormatInto(text, sizeof text, format, arguments));
}

void SetupDefaultMessageHandlers(const char* appName) {
    if (g_defaultLoggerFD.load(std::memory_order_relaxed) > 0) {
        return;
    }
    if (g_dbgErrorPtr.load(std::memory_order_relaxed) != nullptr) {
        // The application's own handlers stay; only the device is opened.
        ConnectToDefaultLogger();
        return;
    }
    if (appName != nullptr) {
        g_dbgAppName.store(appName, std::memory_order_relaxed);
    }
    LogToFile("ReplayInternal: Setting up Default Logging for %s", DebugAppName());
    ConnectToDefaultLogger();
    SetupLoggingHandlers(appName, &DefaultMessageHandler, &DefaultWarningHandler,
                         &DefaultErrorHandler);
}

void ResetClientLoggingForTesting() {
    const int fd = g_defaultLoggerFD.exchange(-1, std::memory_order_relaxed);
    if (fd > 0) {
        ReplayPlatform::CloseDescriptor(fd);
    }
    g_connectFailures.store(0, std::memory_order_relaxed);
    g_infoMessages.store(0, std::memory_order_relaxed);
}

}  // namespace ReplayInternal

void SetupDefaultMessageHandlers(const char* appName) {
    ReplayInternal::SetupDefaultMessageHandlers(appName);
}

namespace ReplayClient {

using ReplayCore::FileLogger;

namespace {

// Where a client message goes in the file log.
enum class FileRoute {
    kNone,
    kLine,         // one line "<client>:<text>"
    kVerboseDump,  // a dump under a header of the current time and client
};

// Formats a client message and routes it. Texts shorter than three
// characters are dropped. With a `function` the text is shown on the debug
// channel of its severity: errors below warnings, warnings up to
// information, messages for the rest.
void RouteClientMessage(FileLogger::ErrorSeverity severity, const char* function, FileRoute route,
                        const char* format, va_list arguments) {
    char text[kClientTextSize];
    if (FormatInto(text, sizeof text, format, arguments) < kMinimumTextLength) {
        return;
    }
    if (function != nullptr && DebugOutputAttached()) {
        if (severity < FileLogger::eSeverityWarning) {
            dbgError("%s::%s: %s\n", DebugAppName(), function, text);
        } else if (severity <= FileLogger::eSeverityInfo) {
            dbgWarning("%s::%s: %s\n", DebugAppName(), function, text);
        } else {
            dbgMessage("%s::%s: %s\n", DebugAppName(), function, text);
        }
    }
    if (route == FileRoute::kLine) {
        FileLogger::LogToFile(severity, "%s:%s", ClientName(), text);
    } else if (route == FileRoute::kVerboseDump) {
        const std::string header =
            "\n" + ReplayCore::MSTime::CurrentTimeMS().ToString() + ":" + ClientName();
        FileLogger::DumpTextToFile(severity, header.c_str(), text);
    }
}

}  // namespace

void LogClientMessage(FileLogger::ErrorSeverity severity, const char* format, ...) {
    FileRoute route = FileRoute::kLine;
    if (severity > FileLogger::eSeverityWarning &&
        g_infoMessages.fetch_add(1, std::memory_order_relaxed) + 1 > kFileLoggedInfoMessages) {
        // Informational messages can come with every record; the file log
        // keeps only the first of them.
        route = FileRoute::kNone;
    }
    va_list arguments;
    va_start(arguments, format);
    RouteClientMessage(severity, "libReplay::ReplayClient::LogClientMessage", route, format,
                       arguments);
    va_end(arguments);
}

void LogDebugMessage(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    RouteClientMessage(FileLogger::eSeverityDebug, "libReplay::ReplayClient::LogDebugMessage",
                       FileRoute::kLine, format, arguments);
    va_end(arguments);
}

void LogVerboseMessage(const char* format, ...) {
    if (g_LoggingLevel.load(std::memory_order_relaxed) < kVerboseLevel) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    RouteClientMessage(static_cast<FileLogger::ErrorSeverity>(kVerboseLevel), nullptr,
                       FileRoute::kVerboseDump, format, arguments);
    va_end(arguments);
}

void LogAssertion(int line, const char* file, const char* expression) {
    if (DebugOutputAttached()) {
        dbgError("%s::%s: Client %s: %s at line %d of %s\n", DebugAppName(),
                 "libReplay::ReplayClient::LogAssertion", ClientName(),
                 expression != nullptr ? expression : "", line, file != nullptr ? file : "");
    }
}

}  // namespace ReplayClient
