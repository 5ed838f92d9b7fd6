// The record path's costs: the checksum over a full record beside a plain
// byte sum, checking a full record, and building one small data record beside
// snprintf of the same header.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "libreplay/server/ClientRecord.h"

namespace {

constexpr unsigned int kRecordBytes = 2041;

const std::vector<char>& RecordBytes() {
    static const std::vector<char> bytes = [] {
        std::vector<char> data(kRecordBytes);
        std::mt19937 random(2041);
        for (char& byte : data) {
            byte = static_cast<char>(random());
        }
        return data;
    }();
    return bytes;
}

void BM_Checksum(benchmark::State& state) {
    const std::vector<char>& data = RecordBytes();
    for (auto _ : state) {
        benchmark::DoNotOptimize(ReplayCore::ComputeChecksum(data.data(), kRecordBytes));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kRecordBytes);
}
BENCHMARK(BM_Checksum);

// Baseline: the same bytes summed unsigned.
void BM_PlainByteSum(benchmark::State& state) {
    const std::vector<char>& data = RecordBytes();
    for (auto _ : state) {
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data.data());
        uint32_t sum = 0;
        for (unsigned int i = 0; i < kRecordBytes; ++i) {
            sum += bytes[i];
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kRecordBytes);
}
BENCHMARK(BM_PlainByteSum);

void BM_CheckSumValidFullRecord(benchmark::State& state) {
    std::vector<char> record(RecordBytes().begin(), RecordBytes().end() - 9);
    record.resize(kRecordBytes + 1);
    unsigned int checksum = 0;
    ReplayCore::AppendChecksum(record.data(), kRecordBytes - 9, kRecordBytes + 1, checksum);
    for (auto _ : state) {
        benchmark::DoNotOptimize(ReplayCore::CheckSumValid(record.data(), kRecordBytes));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kRecordBytes);
}
BENCHMARK(BM_CheckSumValidFullRecord);

// A 64-byte data record: header, payload and checksum trailer.
constexpr char kPayload[] = "$GPRMC,083061,A,4807.03";

void BM_BuildDataRecord64(benchmark::State& state) {
    char block[2048];
    const ReplayCore::MSTime::MSTimeStruct time(0, 83061);
    unsigned int length = 0;
    for (auto _ : state) {
        ReplayCore::RecordWriter writer(
            block, sizeof block,
            ReplayCore::WriteDataBlockHeader(block, sizeof block, '"', time, "NavGpsReceiver",
                                             12345));
        writer.Bytes(kPayload, sizeof kPayload - 1);
        unsigned int checksum = 0;
        length = static_cast<unsigned int>(
            ReplayCore::AppendChecksum(block, writer.Length(), sizeof block, checksum));
        benchmark::DoNotOptimize(block);
        benchmark::ClobberMemory();
    }
    if (length != 64) {
        state.SkipWithError("record is not 64 bytes");
    }
}
BENCHMARK(BM_BuildDataRecord64);

// Baseline: snprintf of the same header alone.
void BM_SnprintfHeader(benchmark::State& state) {
    char block[2048];
    const ReplayCore::MSTime::MSTimeStruct time(0, 83061);
    for (auto _ : state) {
        const std::string timeText = time.ToString();
        benchmark::DoNotOptimize(std::snprintf(block, sizeof block, "%c%s:%s:%c%u %u:", '"',
                                               timeText.c_str(), "NavGpsReceiver", '!', 1u,
                                               12345u));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_SnprintfHeader);

// Baseline: snprintf of the header from precomputed time text.
void BM_SnprintfHeaderOnly(benchmark::State& state) {
    char block[2048];
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::snprintf(block, sizeof block, "%c%s:%s:%c%u %u:", '"',
                                               "83.061", "NavGpsReceiver", '!', 1u, 12345u));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_SnprintfHeaderOnly);

}  // namespace

BENCHMARK_MAIN();
