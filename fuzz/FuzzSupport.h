#ifndef FUZZ_FUZZSUPPORT_H
#define FUZZ_FUZZSUPPORT_H

// Shared set-up of the fuzz targets: a private target root (so nothing lands
// in the real /tmp), standard output silenced, the file log off, and debug
// handlers that format every message so that its arguments are exercised.

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayDebug.h"
#include "libreplay/server/TargetRoot.h"

namespace FuzzSupport {

inline std::string& TargetRoot() {
    static std::string root;
    return root;
}

inline void FormatAndDrop(const char* format, va_list arguments) {
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
}

inline void RemoveTargetRoot() {
    const std::string& root = TargetRoot();
    if (!root.empty()) {
        std::remove((root + "/tmp/ReplayLog.txt").c_str());
        rmdir((root + "/tmp").c_str());
        rmdir(root.c_str());
    }
}

inline void Initialise() {
    char pattern[] = "/tmp/replay-fuzz-XXXXXX";
    if (mkdtemp(pattern) != nullptr) {
        TargetRoot() = pattern;
        mkdir((TargetRoot() + "/tmp").c_str(), 0700);
        ReplayPlatform::SetTargetRoot(TargetRoot());
        std::atexit(RemoveTargetRoot);
    }
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        std::fprintf(stderr, "could not silence standard output\n");
    }
    SetupLoggingHandlers("fuzz", FormatAndDrop, FormatAndDrop, FormatAndDrop);
    // The file log opens the file for every line and, past its cap of lines,
    // leaves each stream open; millions of runs would exhaust the process's
    // descriptors. The texts are still formatted before the level check.
    ReplayCore::FileLogger::SetLogginglevel(-1);
}

}  // namespace FuzzSupport

#endif
