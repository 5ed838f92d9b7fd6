// Any bytes as a stored log: the reader, the record parser and the statistics
// must neither crash nor lose their bounds.

#include <cstddef>
#include <cstdint>

#include "libreplay/ReplayLogReader.h"
#include "libreplay/ReplayLogStatistics.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The smallest buffer makes refills happen inside records.
    ReplayCore::ReplayLogReader reader(ReplayCore::ReplayLogReader::kMinimumBufferSize);
    reader.OpenMemory(reinterpret_cast<const char*>(data), size);
    ReplayCore::LogStatistics statistics;
    ReplayCore::LogRecord record;
    uint64_t payloadBytes = 0;
    while (reader.Next(record)) {
        if (record.payload.size() > ReplayCore::LogFormat::kMaxPayloadLength) {
            __builtin_trap();
        }
        payloadBytes += record.payload.size();
        statistics.Add(record);
    }
    statistics.Finish(reader);
    if (reader.BytesConsumed() != size || payloadBytes > size) {
        __builtin_trap();
    }
    // What the reader took apart must frame again.
    std::string framed;
    if (!record.payload.empty() && !ReplayCore::LogFormat::FrameRecord(record.payload, framed)) {
        __builtin_trap();
    }
    return 0;
}
