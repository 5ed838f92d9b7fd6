// Reads arbitrary bytes as an options file into a fresh option table.

#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayRuntimeOptions.h"
#include "libreplay/server/TargetRoot.h"

namespace {

std::string g_directory;
std::string g_emptyOptions;
std::string g_input;

void RemoveFiles() {
    std::remove(g_input.c_str());
    std::remove(g_emptyOptions.c_str());
    rmdir((g_directory + "/tmp").c_str());
    rmdir(g_directory.c_str());
}

bool WriteAll(const std::string& path, const uint8_t* data, size_t size) {
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        return false;
    }
    const bool complete = std::fwrite(data, 1, size, file) == size;
    std::fclose(file);
    return complete;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char pattern[] = "/tmp/options-fuzz-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        std::abort();
    }
    g_directory = pattern;
    mkdir((g_directory + "/tmp").c_str(), 0755);
    g_emptyOptions = g_directory + "/empty.txt";
    g_input = g_directory + "/input.txt";
    WriteAll(g_emptyOptions, nullptr, 0);
    std::atexit(RemoveFiles);
    // Marker files, log file and temporary directory all live in the private
    // directory; the file log stays silent so that runs are fast and nothing
    // accumulates.
    ReplayPlatform::SetTargetRoot(g_directory);
    ReplayCore::FileLogger::SetLogginglevel(-1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (!WriteAll(g_input, data, size)) {
        return 0;
    }
    ReplayRuntimeOptions options(g_emptyOptions.c_str());
    options.OpenOptionsFile(g_input.c_str());
    for (int index = 0; index < eOptionsCount; ++index) {
        const ReplayOptionsEnum ro = static_cast<ReplayOptionsEnum>(index);
        (void)options.GetBooleanValue(ro);
        (void)options.GetIntegerValue(ro);
    }
    return 0;
}
