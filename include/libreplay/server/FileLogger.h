#ifndef LIBREPLAY_SERVER_FILELOGGER_H
#define LIBREPLAY_SERVER_FILELOGGER_H

// The library's diagnostic text log "/tmp/ReplayLog.txt" (under the target
// root): time-stamped lines filtered by a process-wide level and capped at
// 5000 writes per process, plus small text utilities and the serialised raw
// writer used by the server's log file code.

#include <cstdio>
#include <string>

#include "libreplay/ReplayExport.h"

namespace ReplayCore {

class REPLAY_API FileLogger {
  public:
    // Lower is more important.
    typedef int ErrorSeverity;
    static constexpr ErrorSeverity eSeverityAssert = 0;
    static constexpr ErrorSeverity eSeverityError = 1;
    static constexpr ErrorSeverity eSeverityWarning = 2;
    static constexpr ErrorSeverity eSeverityInfo = 3;
    static constexpr ErrorSeverity eSeverityDebug = 4;

    static constexpr const char* kLogFileLocation = "/tmp/ReplayLog.txt";
    static constexpr unsigned int kMaximumWrites = 5000;

    // Messages above this severity are not written (initially 3).
    static void SetLogginglevel(ErrorSeverity level);
    static ErrorSeverity GetLogginglevel();
    // Entries written so far; at kMaximumWrites the file takes no more.
    static unsigned int WritesSoFar();

    // A time-stamped line; texts of fewer than 3 characters are dropped.
    static int LogToFile(ErrorSeverity severity, const char* format, ...)
        __attribute__((format(printf, 2, 3)));
    // "<expression> at line <line> of <file>" at severity 0.
    static void LogAssertion(int line, const char* file, const char* expression);
    // The single writer to the file: "<header>:<text>", or the header alone.
    static int DumpTextToFile(ErrorSeverity severity, const char* header, const char* text);
    // Hex dump to the debug-message channel; only severities above 3 dump.
    static void DumpHexToFile(ErrorSeverity severity, const char* title, const unsigned char* data,
                              unsigned int length, bool showAscii);
    // The bytes as "%3x" each, in a buffer shared by all callers (at most 128
    // bytes; more returns null).
    static char* ToHex(const unsigned char* data, unsigned int length);
    // Printable form: CR as '\\', LF as 'n', other control bytes as '_'.
    static std::string FormatDebugText(const char* text, unsigned int maxLength);

#ifdef REPLAY_INTERNAL_BUILD
    // Restores the initial level and counters (tests only).
    static void ResetForTesting();
#endif
};

// Raw writes for the server's log channel, each overload serialised by its
// own lock.
class REPLAY_API LogWriter {
  public:
    static int WriteToLog(int fd, FILE* stream, const char* data, unsigned int length);
    static int WriteToLog(int fd, const char* data, unsigned int length);
};

// '<', '>', '&', '%' and '"' become '!'.
REPLAY_API char ReplaceXMLEntity(char c);

// Minimal appender used by the internal logging: no level, no cap; gives up
// silently after 5 failed opens.
REPLAY_API int DumpTextToFile(const char* text);

}  // namespace ReplayCore

#endif
