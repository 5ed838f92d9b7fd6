// Verifies arbitrary lines, and checks that any text given its checksum
// trailer verifies.

#include <cstdint>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "libreplay/server/ClientRecord.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::Initialise();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 4096) {
        return 0;
    }
    std::vector<char> line(data, data + size);
    ReplayCore::CheckSumValid(line.data(), static_cast<unsigned int>(line.size()));

    std::vector<char> record(data, data + size);
    record.resize(size + ReplayCore::kChecksumFieldLength);
    unsigned int checksum = 0;
    const int length =
        ReplayCore::AppendChecksum(record.data(), static_cast<unsigned int>(size),
                                   static_cast<unsigned int>(record.size()), checksum);
    if (length != static_cast<int>(record.size()) ||
        !ReplayCore::CheckSumValid(record.data(), static_cast<unsigned int>(length))) {
        __builtin_trap();
    }
    return 0;
}
