#ifndef LIBREPLAY_SERVER_REPLAYDEBUG_H
#define LIBREPLAY_SERVER_REPLAYDEBUG_H

// The library's three debug message channels. Output goes to the handlers the
// host application installs (or the defaults the client installs); with no
// handler attached nothing is formatted at all.
//
// Every debug text starts with two "%s" fields: the application name
// (g_dbgAppName) and a tag "libReplay::<Class>::<function>" (or
// "ReplayServer::..." for server code).

#include <atomic>
#include <cstdarg>

#include "libreplay/ReplayExport.h"

typedef void (*DebugMessageFunction)(const char* format, va_list arguments);

// Shared between threads without a lock: set at initialisation, re-set by the
// client's ping thread.
extern REPLAY_API std::atomic<const char*> g_dbgAppName;
extern REPLAY_API std::atomic<DebugMessageFunction> g_dbgMessagePtr;
extern REPLAY_API std::atomic<DebugMessageFunction> g_dbgWarningPtr;
extern REPLAY_API std::atomic<DebugMessageFunction> g_dbgErrorPtr;

REPLAY_API void dbgMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));
REPLAY_API void dbgWarning(const char* format, ...) __attribute__((format(printf, 1, 2)));
REPLAY_API void dbgError(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Callers test this before formatting any debug message.
inline bool DebugOutputAttached() {
    return g_dbgMessagePtr.load(std::memory_order_relaxed) != nullptr;
}

inline const char* DebugAppName() {
    return g_dbgAppName.load(std::memory_order_relaxed);
}

// Installs the three handlers unchanged (null detaches a channel). A non-null
// appName is stored (not copied) as the application name.
REPLAY_API void SetupLoggingHandlers(const char* appName, DebugMessageFunction message,
                                     DebugMessageFunction warning, DebugMessageFunction error);

namespace ReplayInternal {
// Appends a formatted text (at most 511 characters; fewer than 3 are dropped)
// to the internal log file.
REPLAY_API void LogToFile(const char* format, ...) __attribute__((format(printf, 1, 2)));
}  // namespace ReplayInternal

#endif
