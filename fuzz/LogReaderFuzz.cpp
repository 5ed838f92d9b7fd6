// Any bytes as a stored log: the reader, the record parser and the statistics
// must neither crash nor lose their bounds, and the reader's quiet record
// parsing and checksum test must agree with the server's own.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "libreplay/server/ClientRecord.h"
#include "libreplay/server/ReplayLogReader.h"
#include "libreplay/server/ReplayLogRecord.h"
#include "libreplay/server/ReplayLogStatistics.h"

namespace {

void CheckAgainstServerParser(const std::string& payload) {
    if (payload.empty()) {
        return;
    }
    if (ReplayCore::LogRecordChecksumValid(payload.data(), payload.size()) !=
        ReplayCore::CheckSumValid(payload.data(), static_cast<unsigned int>(payload.size()))) {
        __builtin_trap();
    }
    ReplayCore::LogClientRecord fields;
    if (!ReplayCore::ParseLogClientRecord(payload, fields)) {
        return;
    }
    std::string name;
    ReplayCore::MSTime::MSTimeStruct time;
    unsigned int dataType = 0;
    unsigned int first = 0;
    unsigned int sequence = 0;
    unsigned int payloadLength = 0;
    unsigned int payloadStart = 0;
    if (!ParseClientRecord(payload, name, time, dataType, first, sequence, payloadLength,
                           payloadStart) ||
        name != fields.clientName || time.m_timeMilliseconds != fields.blockTimeMs ||
        dataType != fields.dataType || payloadStart != fields.payloadStart ||
        payloadLength != fields.payloadLength ||
        (fields.hasSequence &&
         (first != fields.firstNumber || sequence != fields.sequenceNumber))) {
        __builtin_trap();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::Initialise();
    return 0;
}

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
        CheckAgainstServerParser(record.payload);
    }
    statistics.Finish(reader);
    if (reader.BytesConsumed() != size || payloadBytes > size) {
        __builtin_trap();
    }
    // The verdict agrees with its parts: counts add up, an empty log is
    // never clean, and the kept problems are in file order.
    uint64_t counted = 0;
    for (int kind = 0; kind < ReplayCore::LogProblem::kKindCount; ++kind) {
        counted += statistics.ProblemCount(static_cast<ReplayCore::LogProblem::Kind>(kind));
    }
    const std::vector<ReplayCore::LogProblem>& problems = statistics.Problems();
    if (counted != statistics.ProblemCount() || statistics.Clean() != (counted == 0) ||
        (statistics.Records() == 0 && statistics.Clean()) || problems.size() > counted ||
        problems.size() > ReplayCore::LogStatistics::kMaxKeptProblems) {
        __builtin_trap();
    }
    for (size_t i = 1; i < problems.size(); ++i) {
        if (problems[i].offset < problems[i - 1].offset) {
            __builtin_trap();
        }
    }
    // What the reader took apart must frame again.
    std::string framed;
    if (!record.payload.empty() && !ReplayCore::LogFormat::FrameRecord(record.payload, framed)) {
        __builtin_trap();
    }
    // Records hidden in plain input (no framing) are checked as well.
    CheckAgainstServerParser(
        std::string(reinterpret_cast<const char*>(data), size < 2048 ? size : 2048));
    return 0;
}
