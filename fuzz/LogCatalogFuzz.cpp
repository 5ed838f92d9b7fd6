// Any bytes as a log in the web page's log directory: its summary, timeline
// and verify result must neither crash nor disagree with each other (every
// item the statistics count lands in one second of the timeline, and every
// problem mark names a client the log has).

#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <set>
#include <string>

#include "server/LogCatalog.h"

namespace {

const std::string& Directory() {
    static const std::string directory = [] {
        char path[] = "/tmp/log-catalog-fuzz.XXXXXX";
        return std::string(mkdtemp(path) != nullptr ? path : "/tmp");
    }();
    return directory;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = Directory() + "/log.dat";
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    // A fresh catalogue: a rewrite within one clock tick may keep size and time.
    ReplayServer::LogCatalog catalog(Directory());
    ReplayServer::LogCatalog::Json detail;
    ReplayServer::LogCatalog::Json verify;
    if (!catalog.Detail("log.dat", detail).IsOk() || !catalog.Verify("log.dat", verify).IsOk()) {
        __builtin_trap();
    }
    if (detail["clean"] != verify["clean"] || catalog.List().size() != 1) {
        __builtin_trap();
    }
    uint64_t statisticsItems = 0;
    std::set<std::string> names;
    for (const auto& segment : detail["segments"]) {
        for (const auto& client : segment["clients"]) {
            statisticsItems += client["items"].get<uint64_t>();
            names.insert(client["name"].get<std::string>());
        }
    }
    uint64_t timelineItems = 0;
    for (const auto& segment : detail["timeline"]) {
        for (const auto& client : segment["items"]) {
            for (const auto& count : client) {
                timelineItems += count.get<uint64_t>();
            }
        }
    }
    if (timelineItems > statisticsItems) {
        __builtin_trap();
    }
    for (const auto& marker : detail["markers"]) {
        if (names.count(marker["client"].get<std::string>()) == 0) {
            __builtin_trap();
        }
    }
    return 0;
}
