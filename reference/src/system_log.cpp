#include "reference/src/system_log.h"

#include <syslog.h>

#include <atomic>
#include <cstdio>

namespace ReplayPlatform {
namespace {

void SyslogSink(const char* text) {
    syslog(LOG_WARNING, "%s", text);
}

std::atomic<SystemLogSink> g_systemLogSink{&SyslogSink};

}  // namespace

SystemLogSink SetSystemLogSink(SystemLogSink sink) {
    return g_systemLogSink.exchange(sink != nullptr ? sink : &SyslogSink,
                                    std::memory_order_acq_rel);
}

void SystemLogV(const char* format, va_list arguments) {
    if (format == nullptr) {
        return;
    }
    char text[kSystemLogTextSize];
    if (std::vsnprintf(text, sizeof text, format, arguments) < 0) {
        return;
    }
    g_systemLogSink.load(std::memory_order_acquire)(text);
}

void SystemLog(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    SystemLogV(format, arguments);
    va_end(arguments);
}

}  // namespace ReplayPlatform
