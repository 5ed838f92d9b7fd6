#include "libreplay/server/FileLogger.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "libreplay/ReplayCore.h"
#include "libreplay/server/ReplayDebug.h"
#include "reference/src/file_io.h"
#include "reference/src/operating_system.h"
#include "libreplay/server/TargetRoot.h"

namespace ReplayCore {

namespace {

// Shared by every thread without a lock: a race may let a few writes pass the
// cap or the failure limit, which is harmless.
std::atomic<FileLogger::ErrorSeverity> g_loggingLevel{FileLogger::eSeverityInfo};
std::atomic<unsigned int> g_fileWriteErrors{0};
std::atomic<unsigned int> g_debugLines{0};
std::atomic<unsigned int> g_minimalWriterFailures{0};

constexpr unsigned int kMaximumReportedFailures = 5;
constexpr size_t kMinimumTextLength = 3;
constexpr size_t kMessageSize = 512;
constexpr size_t kNoticeSize = 196;
constexpr unsigned int kMaximumHexInput = 128;
constexpr unsigned int kHexBytesPerLine = 16;
constexpr size_t kHexLineSize = 196;
// Building a hex line stops before it reaches this length.
constexpr size_t kHexLineLimit = 195;

char g_hexString[kMaximumHexInput * 3 + 1];

// Past the cap every call leaves its stream open on purpose (long-standing
// behaviour): the notice is repeated until the process runs out of
// descriptors, after which the opens fail and the failure limit silences the
// logger for good. The streams are kept on this list so that they stay
// reachable until exit, and so that tests can close them.
struct CappedStream {
    FILE* stream;
    CappedStream* next;
};
std::atomic<CappedStream*> g_cappedStreams{nullptr};

void KeepCappedStream(FILE* stream) {
    CappedStream* node = new CappedStream{stream, g_cappedStreams.load(std::memory_order_relaxed)};
    while (!g_cappedStreams.compare_exchange_weak(node->next, node, std::memory_order_release,
                                                  std::memory_order_relaxed)) {
    }
}

std::string LogFilePath() {
    return ReplayPlatform::TargetPath(FileLogger::kLogFileLocation);
}

}  // namespace

void FileLogger::SetLogginglevel(ErrorSeverity level) {
    g_loggingLevel.store(level, std::memory_order_relaxed);
}

FileLogger::ErrorSeverity FileLogger::GetLogginglevel() {
    return g_loggingLevel.load(std::memory_order_relaxed);
}

int FileLogger::LogToFile(ErrorSeverity severity, const char* format, ...) {
    if (severity > GetLogginglevel() || format == nullptr) {
        return 0;
    }
    char text[kMessageSize];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < static_cast<int>(kMinimumTextLength)) {
        return length;
    }
    const std::string header = "\n" + MSTime::MSTimeStruct::GetCurrentTimeMS().ToString();
    return DumpTextToFile(severity, header.c_str(), text);
}

void FileLogger::LogAssertion(int line, const char* file, const char* expression) {
    LogToFile(eSeverityAssert, "%s at line %d of %s", expression != nullptr ? expression : "", line,
              file != nullptr ? file : "");
}

int FileLogger::DumpTextToFile(ErrorSeverity severity, const char* header, const char* text) {
    static const char* const kTag = "libReplay::FileLogger::DumpTextToFile";
    if (header == nullptr || severity > GetLogginglevel()) {
        return 0;
    }
    const size_t headerLength = std::strlen(header);
    if (headerLength < kMinimumTextLength) {
        return 0;
    }

    const std::string path = LogFilePath();
    FILE* file = std::fopen(path.c_str(), "a");
    if (file != nullptr) {
        const unsigned int lines = g_debugLines.load(std::memory_order_relaxed);
        if (lines == kMaximumWrites) {
            if (DebugOutputAttached()) {
                dbgError("%s::%s: ReplayLog.txt size limit exceeded\n", DebugAppName(), kTag);
            }
            std::fputs("ReplayLog.txt size limit exceeded", file);
            // Flushed rather than closed: the notice reaches the file now,
            // the stream stays open (see KeepCappedStream).
            std::fflush(file);
            KeepCappedStream(file);
            return -1;
        }
        if (lines > kMaximumWrites) {
            KeepCappedStream(file);
            return -1;
        }
        g_debugLines.fetch_add(1, std::memory_order_relaxed);
        const int written = text != nullptr ? std::fprintf(file, "%s:%s", header, text)
                                            : std::fprintf(file, "%s", header);
        if (written < 0) {
            std::printf("\nFailure Writing Message %s to ReplayLog.txt: %s", header,
                        std::strerror(errno));
        }
        std::fclose(file);
        return written;
    }

    if (g_fileWriteErrors.load(std::memory_order_relaxed) >= kMaximumReportedFailures) {
        return 0;
    }
    if (severity <= eSeverityWarning) {
        char notice[kNoticeSize];
        std::snprintf(notice, sizeof notice,
                      "DebugLogger::DumpTextToFile: Failed to open %s at %s; msgLen =%d ",
                      path.c_str(), MSTime::MSTimeStruct::GetCurrentTimeMS().ToString().c_str(),
                      static_cast<int>(headerLength));
        std::printf("\n%s", notice);
        std::fflush(stdout);
        if (DebugOutputAttached()) {
            dbgError("%s::%s: %s\n", DebugAppName(), kTag, notice);
        }
    }
    g_fileWriteErrors.fetch_add(1, std::memory_order_relaxed);
    return -1;
}

void FileLogger::DumpHexToFile(ErrorSeverity severity, const char* title, const unsigned char* data,
                               unsigned int length, bool showAscii) {
    static const char* const kTag = "libReplay::FileLogger::DumpHexToFile";
    // Only debug-level dumps are produced; the logging level is not consulted.
    if (title == nullptr || data == nullptr || length == 0 || severity <= eSeverityInfo ||
        !DebugOutputAttached()) {
        return;
    }
    dbgMessage("%s::%s: %s: dumping %u Bytes:\n", DebugAppName(), kTag, title, length);

    for (unsigned int lineStart = 0; lineStart < length; lineStart += kHexBytesPerLine) {
        const unsigned int remaining = length - lineStart;
        const unsigned int count = remaining < kHexBytesPerLine ? remaining : kHexBytesPerLine;
        char line[kHexLineSize];
        size_t used = 0;
        bool overflow = false;
        auto append = [&](const char* piece) {
            const size_t pieceLength = std::strlen(piece);
            if (used + pieceLength >= kHexLineLimit) {
                overflow = true;
                return;
            }
            std::memcpy(line + used, piece, pieceLength);
            used += pieceLength;
        };

        for (unsigned int i = 0; i < kHexBytesPerLine && !overflow; ++i) {
            char hex[4];
            if (i < count) {
                std::snprintf(hex, sizeof hex, " %02x", data[lineStart + i]);
                append(hex);
            } else {
                append("   ");
            }
        }
        if (showAscii && !overflow) {
            append("     ");
            for (unsigned int i = 0; i < count && !overflow; ++i) {
                const signed char byte = static_cast<signed char>(data[lineStart + i]);
                const char shown[2] = {byte < 32 ? '.' : static_cast<char>(byte), '\0'};
                append(shown);
            }
        }
        if (overflow) {
            dbgError("%s::%s: Maximum Line Size Exceeded\n", DebugAppName(), kTag);
            return;
        }
        line[used] = '\0';
        dbgMessage("%s: %s\n", DebugAppName(), line);
    }
}

char* FileLogger::ToHex(const unsigned char* data, unsigned int length) {
    if (length > kMaximumHexInput) {
        LogAssertion(__LINE__, "ReplayManager/ReplayCore", "len <= maxInputLength");
        return nullptr;
    }
    if (length == 0) {
        return g_hexString;
    }
    if (data == nullptr) {
        return nullptr;
    }
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(g_hexString + 3 * i, 4, "%3x", data[i]);
    }
    return g_hexString;
}

std::string FileLogger::FormatDebugText(const char* text, unsigned int maxLength) {
    if (text == nullptr) {
        return std::string();
    }
    const size_t textLength = std::strlen(text);
    const size_t length = textLength < maxLength ? textLength : maxLength;
    std::string result(text, length);
    for (char& c : result) {
        if (c == '\r') {
            c = '\\';
        } else if (c == '\n') {
            c = 'n';
        } else if (static_cast<signed char>(c) < 32) {
            c = '_';
        }
    }
    return result;
}

unsigned int FileLogger::WritesSoFar() {
    return g_debugLines.load(std::memory_order_relaxed);
}

void FileLogger::ResetForTesting() {
    g_loggingLevel.store(eSeverityInfo, std::memory_order_relaxed);
    g_fileWriteErrors.store(0, std::memory_order_relaxed);
    g_debugLines.store(0, std::memory_order_relaxed);
    g_minimalWriterFailures.store(0, std::memory_order_relaxed);
    CappedStream* node = g_cappedStreams.exchange(nullptr, std::memory_order_acquire);
    while (node != nullptr) {
        CappedStream* next = node->next;
        std::fclose(node->stream);
        delete node;
        node = next;
    }
}

int LogWriter::WriteToLog(int fd, FILE* stream, const char* data, unsigned int length) {
    static CMutex logWriterLock;
    CMutexScopedLock lock(logWriterLock);
    if (stream != nullptr) {
        return static_cast<int>(std::fwrite(data, 1, length, stream));
    }
    if (fd < 1) {
        return -1;
    }
    return static_cast<int>(ReplayPlatform::WriteSome(fd, data, length));
}

int LogWriter::WriteToLog(int fd, const char* data, unsigned int length) {
    if (fd < 1) {
        return -1;
    }
    static CMutex logWriterLock;
    CMutexScopedLock lock(logWriterLock);
    return static_cast<int>(ReplayPlatform::WriteSome(fd, data, length));
}

char ReplaceXMLEntity(char c) {
    switch (c) {
        case '<':
        case '>':
        case '&':
        case '%':
        case '"':
            return '!';
        default:
            return c;
    }
}

int DumpTextToFile(const char* text) {
    if (text == nullptr) {
        return 0;
    }
    const size_t length = std::strlen(text);
    if (length < kMinimumTextLength ||
        g_minimalWriterFailures.load(std::memory_order_relaxed) >= kMaximumReportedFailures) {
        return 0;
    }
    const std::string path = LogFilePath();
    FILE* file = std::fopen(path.c_str(), "a");
    if (file == nullptr) {
        std::printf("\nDebugLogger::DumpTextToFile: Failed to open %s; msgLen =%d ", path.c_str(),
                    static_cast<int>(length));
        g_minimalWriterFailures.fetch_add(1, std::memory_order_relaxed);
        return -1;
    }
    const size_t written = std::fwrite(text, 1, length, file);
    if (written != length) {
        std::printf("\nFailure Writing Message %s to Replaylog.txt: %s", text,
                    std::strerror(errno));
    }
    std::fclose(file);
    return static_cast<int>(written);
}

}  // namespace ReplayCore
