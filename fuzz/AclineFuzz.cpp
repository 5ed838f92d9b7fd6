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

// The device root: kept in static storage that outlives every exit handler,
// because the interface keeps the pointer.
char g_root[] = "/tmp/aclinefuzz-XXXXXX";

void RemoveDeviceTree() {
    const std::string tree = g_root;
    for (const char* file : {"/navi/multi", "/navi/a", "/navi/S", "/ioc1/0"}) {
        unlink((tree + file).c_str());
    }
    for (const char* directory : {"/navi", "/ioc1", "/custom", ""}) {
        rmdir((tree + directory).c_str());
    }
}

// Builds the device tree once: output to /dev/null, a few input consoles.
void MakeDeviceTree() {
    if (mkdtemp(g_root) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    const std::string tree = g_root;
    for (const char* directory : {"/navi", "/ioc1", "/custom"}) {
        mkdir((tree + directory).c_str(), 0700);
    }
    if (symlink("/dev/null", (tree + "/navi/multi").c_str()) != 0) {
        std::perror("symlink");
        std::abort();
    }
    MakeFile(tree + "/navi/a", "input for a\n");
    MakeFile(tree + "/navi/S", "input for S\n");
    MakeFile(tree + "/ioc1/0", "");
    std::atexit(&RemoveDeviceTree);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = [] {
        ReplayPlatform::SetSystemLogSink(&DiscardSystemLog);
        MakeDeviceTree();
        mi_setLogFileName(g_root);
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
