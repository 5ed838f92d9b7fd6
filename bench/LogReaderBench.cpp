// Reading a 100 MB stored log: the reader alone, the full statistics that
// info and verify compute, and `wc -l` on the same file as the baseline.

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "libreplay/server/ClientRecord.h"
#include "libreplay/server/ReplayLogReader.h"
#include "libreplay/server/ReplayLogStatistics.h"
#include "support/TemporaryRoot.h"

namespace {

constexpr size_t kLogSize = 100u * 1024 * 1024;

std::string Checksummed(const std::string& body) {
    char suffix[16];
    snprintf(suffix, sizeof suffix, "%8x\n",
             ReplayCore::ComputeChecksum(body.data(), static_cast<unsigned int>(body.size())));
    return body + suffix;
}

// A log of five clients with text and binary-looking items, made once.
class GeneratedLog {
  public:
    GeneratedLog() {
        m_path = m_directory / "LOGFILE.DAT";
        FILE* out = fopen(m_path.c_str(), "wb");
        std::string framed;
        std::string stored;
        ReplayCore::LogFormat::FrameRecord(ReplayCore::LogFormat::HeaderPayload(1000), framed);
        ReplayCore::LogFormat::AppendStoredRecord(framed.data(), framed.size(), stored);
        const char* const clients[] = {"gps", "can", "gyro", "odometer", "ui"};
        unsigned int sequence[5] = {0, 0, 0, 0, 0};
        int64_t time = 1000;
        size_t written = 0;
        for (unsigned int i = 0; written < kLogSize; ++i) {
            const unsigned int client = i % 5;
            time += 7;
            std::string body = (client == 1 ? "$" : "!") +
                               ReplayCore::LogFormat::FormatRecordTime(time) + ":" +
                               clients[client] + ":!1 " + std::to_string(++sequence[client]) + ":";
            body += std::string(60 + (i % 120), static_cast<char>('%' + i % 90));
            body.push_back(static_cast<char>(0xDE));
            body += ReplayCore::LogFormat::FormatRecordTime(time + 3) + ":second item";
            ReplayCore::LogFormat::FrameRecord(Checksummed(body), framed);
            ReplayCore::LogFormat::AppendStoredRecord(framed.data(), framed.size(), stored);
            if (stored.size() > (1 << 20)) {
                fwrite(stored.data(), 1, stored.size(), out);
                written += stored.size();
                stored.clear();
            }
        }
        fwrite(stored.data(), 1, stored.size(), out);
        fclose(out);
        m_size = std::filesystem::file_size(m_path);
    }
    const std::string& Path() const { return m_path; }
    size_t Size() const { return m_size; }

  private:
    ReplaySupport::TemporaryRoot m_directory{"replay-logbench"};
    std::string m_path;
    size_t m_size = 0;
};

GeneratedLog& Log() {
    static GeneratedLog log;
    return log;
}

void BM_ReadRecords(benchmark::State& state) {
    GeneratedLog& log = Log();
    for (auto _ : state) {
        ReplayCore::ReplayLogReader reader;
        reader.Open(log.Path());
        ReplayCore::LogRecord record;
        uint64_t records = 0;
        while (reader.Next(record)) {
            ++records;
        }
        benchmark::DoNotOptimize(records);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * log.Size()));
}

// What info and verify do: framing, record parsing, items, checksums,
// sequence and time checks.
void BM_InfoVerifyStatistics(benchmark::State& state) {
    GeneratedLog& log = Log();
    for (auto _ : state) {
        ReplayCore::LogStatistics statistics;
        std::string error;
        ReplayCore::CollectLogStatistics(log.Path(), statistics, error);
        if (!statistics.Clean()) {
            state.SkipWithError("generated log is not clean");
        }
        benchmark::DoNotOptimize(statistics.Records());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * log.Size()));
}

void BM_WcLinesBaseline(benchmark::State& state) {
    GeneratedLog& log = Log();
    const std::string command = "wc -l < " + log.Path();
    for (auto _ : state) {
        FILE* pipe = popen(command.c_str(), "r");
        char buffer[64];
        while (fgets(buffer, sizeof buffer, pipe) != nullptr) {
        }
        pclose(pipe);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * log.Size()));
}

}  // namespace

BENCHMARK(BM_WcLinesBaseline)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_ReadRecords)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_InfoVerifyStatistics)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

BENCHMARK_MAIN();
