// Any bytes as the server's crash journal left by a crash: opening it must
// neither crash nor lose its bounds, and must be idempotent (a second start
// recovers exactly what the first did, since the first rewrote the file to
// the unwritten records).

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "server/IngestJournal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzSupport::Initialise();
    const std::string path = FuzzSupport::TargetRoot() + "/tmp/journal";
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    std::vector<std::string> first;
    std::vector<std::string> second;
    {
        ReplayServer::IngestJournal journal(path);
        if (!journal.Open(first).IsOk()) {
            return 0;
        }
    }
    ReplayServer::IngestJournal again(path);
    if (!again.Open(second).IsOk() || first != second) {
        __builtin_trap();
    }
    size_t total = 0;
    for (const std::string& record : first) {
        total += record.size();
    }
    if (total > size) {
        __builtin_trap();
    }
    return 0;
}
