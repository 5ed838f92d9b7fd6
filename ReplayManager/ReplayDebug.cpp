#include "libreplay/server/ReplayDebug.h"

#include <cstdio>

#include "libreplay/server/FileLogger.h"

std::atomic<const char*> g_dbgAppName{"appNameNotSet"};
std::atomic<DebugMessageFunction> g_dbgMessagePtr{nullptr};
std::atomic<DebugMessageFunction> g_dbgWarningPtr{nullptr};
std::atomic<DebugMessageFunction> g_dbgErrorPtr{nullptr};

namespace {

void Forward(const std::atomic<DebugMessageFunction>& handler, const char* format,
             va_list arguments) {
    const DebugMessageFunction function = handler.load(std::memory_order_relaxed);
    if (function != nullptr) {
        function(format, arguments);
    }
}

}  // namespace

void dbgMessage(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Forward(g_dbgMessagePtr, format, arguments);
    va_end(arguments);
}

void dbgWarning(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Forward(g_dbgWarningPtr, format, arguments);
    va_end(arguments);
}

void dbgError(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Forward(g_dbgErrorPtr, format, arguments);
    va_end(arguments);
}

void SetupLoggingHandlers(const char* appName, DebugMessageFunction message,
                          DebugMessageFunction warning, DebugMessageFunction error) {
    if (appName != nullptr) {
        g_dbgAppName.store(appName, std::memory_order_relaxed);
    }
    ReplayInternal::LogToFile("Replay Internal: Setting Handlers for %s",
                              DebugAppName() != nullptr ? DebugAppName() : "");
    g_dbgMessagePtr.store(message, std::memory_order_relaxed);
    g_dbgWarningPtr.store(warning, std::memory_order_relaxed);
    g_dbgErrorPtr.store(error, std::memory_order_relaxed);
}

namespace ReplayInternal {

void LogToFile(const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < 3) {
        return;
    }
    ReplayCore::DumpTextToFile(text);
}

}  // namespace ReplayInternal
