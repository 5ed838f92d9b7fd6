// Records per second through the log manager's write queue into a file
// channel, with 1, 5 and 19 known clients, beside a plain write of the same
// framed records to a file.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "libreplay/server/ClientDataList.h"
#include "libreplay/server/FileLogger.h"
#include "libreplay/server/ReplayLogManager.h"
#include "libreplay/server/ReplayLogger.h"
#include "libreplay/server/TargetRoot.h"

namespace {

using ReplayCore::MSTime;

// Keeps the channel file small: it is emptied this often (untimed).
constexpr int64_t kTruncateInterval = 1 << 16;
constexpr int64_t kRecordSpacingMs = 100;

// A target root with the medium and a plain-file channel, made once.
const std::string& ChannelPath() {
    static const std::string path = [] {
        char pattern[] = "/tmp/libreplay-bench-XXXXXX";
        const std::string root = mkdtemp(pattern) != nullptr ? pattern : "/tmp";
        std::filesystem::create_directories(root + "/fs/usb0");
        std::filesystem::create_directories(root + "/kfsystem/multicore/navi");
        ReplayPlatform::SetTargetRoot(root);
        ReplayCore::FileLogger::SetLogginglevel(ReplayCore::FileLogger::eSeverityError);
        const std::string channel = root + "/kfsystem/multicore/navi/Q";
        std::FILE* file = std::fopen(channel.c_str(), "w");
        if (file != nullptr) {
            std::fclose(file);
        }
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(ReplayPlatform::GetTargetRoot(), ignored);
        });
        return channel;
    }();
    return path;
}

// A typical small text record: header, a 60-byte item and the checksum.
std::string Record(const std::string& name, int64_t ms, unsigned int sequence) {
    return "\"" + MSTime::MSTimeStruct(0, ms).ToString() + ":" + name + ":!1 " +
           std::to_string(sequence) + ":" + std::string(60, 'p') + "    1a2b\n";
}

struct Workload {
    std::vector<std::string> names;
    std::vector<std::string> records;
};

Workload MakeWorkload(int clients) {
    Workload workload;
    for (int c = 0; c < clients; ++c) {
        workload.names.push_back("client" + std::to_string(c));
    }
    // The records of one round, reused with fresh times in later rounds (the
    // manager orders by the time given with the record, not its text).
    for (int c = 0; c < clients; ++c) {
        workload.records.push_back(Record(workload.names[c], 1000, 1));
    }
    return workload;
}

void TruncateChannel(benchmark::State& state) {
    state.PauseTiming();
    truncate(ChannelPath().c_str(), 0);
    state.ResumeTiming();
}

void BM_WriteClientDataToLog(benchmark::State& state) {
    ChannelPath();
    const int clients = static_cast<int>(state.range(0));
    const Workload workload = MakeWorkload(clients);
    ClientDataList table;
    for (int c = 0; c < clients; ++c) {
        sockaddr_in address{};
        address.sin_port = htons(static_cast<uint16_t>(5000 + c));
        table.Append(ClientData(address)).SetClientName(workload.names[c]);
    }
    ReplayLogManager manager;
    int64_t n = 0;
    for (auto _ : state) {
        const int c = static_cast<int>(n % clients);
        const MSTime::MSTimeStruct time(0, 1000 + n * kRecordSpacingMs / clients);
        const ReplayError result =
            manager.WriteClientDataToLog(workload.names[c], time, 2, static_cast<unsigned>(n + 1),
                                         workload.records[c], &table, false);
        benchmark::DoNotOptimize(result);
        if (++n % kTruncateInterval == 0) {
            TruncateChannel(state);
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_WriteClientDataToLog)->Arg(1)->Arg(5)->Arg(19);

// Baseline: framing and one write per record straight to a file.
void BM_PlainFramedWrite(benchmark::State& state) {
    const int fd = open(ChannelPath().c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    const std::string record = Record("client0", 1000, 1);
    char framed[ReplayLogger::kMaximumRecordSize];
    int64_t n = 0;
    for (auto _ : state) {
        const int length = ReplayLogger::FrameRecord(record, framed);
        benchmark::DoNotOptimize(write(fd, framed, static_cast<size_t>(length)));
        if (++n % kTruncateInterval == 0) {
            TruncateChannel(state);
        }
    }
    close(fd);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PlainFramedWrite);

}  // namespace

BENCHMARK_MAIN();
