// Feeds operator command lines to the acline interpreter. Each input is split
// at line feeds; an empty line stands for the null line that repeats the
// previous command. The output device is /dev/null below a temporary root, so
// every reply goes through the whole logging path.

#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "reference/src/multicore_internal.h"
#include "reference/src/system_log.h"

namespace {

void DiscardSystemLog(const char*) {}

void MakeFile(const std::string& path, const char* content) {
    if (FILE* file = std::fopen(path.c_str(), "w")) {
        std::fputs(content, file);
        std::fclose(file);
    }
}

// Builds the device tree once: output to /dev/null, a few input consoles.
const std::string& DeviceRoot() {
    static const std::string root = [] {
        char pattern[] = "/tmp/aclinefuzz-XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        const std::string made = pattern;
        for (const char* directory : {"/navi", "/ioc1", "/custom"}) {
            mkdir((made + directory).c_str(), 0700);
        }
        if (symlink("/dev/null", (made + "/navi/multi").c_str()) != 0) {
            std::perror("symlink");
            std::abort();
        }
        MakeFile(made + "/navi/a", "input for a\n");
        MakeFile(made + "/navi/S", "input for S\n");
        MakeFile(made + "/ioc1/0", "");
        std::atexit([] {
            const std::string& tree = DeviceRoot();
            for (const char* file : {"/navi/multi", "/navi/a", "/navi/S", "/ioc1/0"}) {
                unlink((tree + file).c_str());
            }
            for (const char* directory : {"/navi", "/ioc1", "/custom", ""}) {
                rmdir((tree + directory).c_str());
            }
        });
        return made;
    }();
    return root;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = [] {
        ReplayPlatform::SetSystemLogSink(&DiscardSystemLog);
        mi_setLogFileName(DeviceRoot().c_str());
        miInternal_setInternalACLineFuntions();
        return true;
    }();
    (void)ready;

    const std::string input(reinterpret_cast<const char*>(data), size);
    const int argument = size > 0 ? data[0] : 0;
    size_t start = 0;
    while (start <= input.size()) {
        size_t end = input.find('\n', start);
        if (end == std::string::npos) {
            end = input.size();
        }
        const std::string line = input.substr(start, end - start);
        const char* reply = miInternal_aclineMain(line.empty() ? nullptr : line.c_str(), argument);
        if (reply != nullptr) {
            volatile size_t length = std::string(reply).size();
            (void)length;
        }
        start = end + 1;
    }
    return 0;
}
