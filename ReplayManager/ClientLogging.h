#ifndef REPLAYMANAGER_CLIENTLOGGING_H
#define REPLAYMANAGER_CLIENTLOGGING_H

// The replay client's own messages (debug channels plus the file log) and the
// connection of the default debug handlers to the logger device.

#include <atomic>
#include <cstdarg>

#include "ReplayManager/DefaultMessageHandlers.h"
#include "libreplay/server/FileLogger.h"

// Descriptor of the default debug channel device; not positive until opened.
extern std::atomic<int> g_defaultLoggerFD;

namespace ReplayInternal {

// The default debug channel of the multicore logger (a target path).
constexpr const char* kDefaultLoggerDevice = "/kfsystem/multicore/navi/q";
// The logger's console code of that channel, 'q'.
constexpr int kDefaultLoggerConsole = 113;

// 1 when this call opened the device, 0 when it was already open or could not
// be opened (every 50th failure is reported, none after the 2000th).
int ConnectToDefaultLogger();

// The default handlers: each writes one formatted text (at most 255
// characters) to the device with a single write, and never blocks.
void DefaultMessageHandler(const char* format, va_list arguments);
void DefaultWarningHandler(const char* format, va_list arguments);
void DefaultErrorHandler(const char* format, va_list arguments);

// Closes the device and clears the failure and message counters (tests only).
void ResetClientLoggingForTesting();

}  // namespace ReplayInternal

namespace ReplayClient {

// Severity 0-1 goes to the error channel, 2-3 to warnings, above to messages.
// The file log gets all errors and warnings but only the first 25 messages of
// severity 3 or above.
void LogClientMessage(ReplayCore::FileLogger::ErrorSeverity severity, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
void LogDebugMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Only while g_LoggingLevel is 5 or more.
void LogVerboseMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));
void LogAssertion(int line, const char* file, const char* expression);

}  // namespace ReplayClient

#endif
