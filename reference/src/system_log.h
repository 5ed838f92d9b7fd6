#ifndef REFERENCE_SRC_SYSTEM_LOG_H
#define REFERENCE_SRC_SYSTEM_LOG_H

// The system log used by the multicore console interface for its own
// failures. Those reports must never go to a console of the interface itself
// (that could recurse), so they leave the process through this sink: by
// default syslog(3) at LOG_WARNING; tests install a capturing sink instead.

#include <cstdarg>

#include "libreplay/ReplayExport.h"

namespace ReplayPlatform {

// Receives one finished text (NUL-terminated, at most kSystemLogTextSize - 1
// characters). Called on the thread that reports, possibly while the
// interface holds one of its internal locks: a sink must not log to the
// multicore interface.
typedef void (*SystemLogSink)(const char* text);

constexpr int kSystemLogTextSize = 256;

// Installs `sink` for the whole process (null restores the syslog sink) and
// returns the previous one.
REPLAY_API SystemLogSink SetSystemLogSink(SystemLogSink sink);

// Formats into a fixed buffer (longer texts are cut) and hands the text to the
// sink. Never allocates.
REPLAY_API void SystemLog(const char* format, ...) __attribute__((format(printf, 1, 2)));
REPLAY_API void SystemLogV(const char* format, va_list arguments)
    __attribute__((format(printf, 1, 0)));

}  // namespace ReplayPlatform

#endif
