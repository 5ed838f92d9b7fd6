#include "libreplay/FileLogger.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "reference/src/target_root.h"

namespace ReplayCore {

namespace {
std::atomic<unsigned int> g_minimalWriterFailures{0};
}

int DumpTextToFile(const char* text) {
    if (text == nullptr) {
        return 0;
    }
    const size_t length = std::strlen(text);
    if (length < 3 || g_minimalWriterFailures.load(std::memory_order_relaxed) >= 5) {
        return 0;
    }
    const std::string path = ReplayPlatform::TargetPath(FileLogger::kLogFileLocation);
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
