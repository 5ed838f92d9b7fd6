// The logger service's drain path: 2 KB records written one per write into
// the navi/Q FIFO, as the replay server writes them, until they are in the
// log file. Beside it, in the same run, the baseline: a plain loop that
// reads the FIFO in 64 KB pieces and writes what it read to a file.
//
// FullSpeed: the writer waits for room, so the figure is how many records a
// second the reader drains into the file. Paced/N: N records a second
// written without waiting, as the server does; "lost" counts the records
// the FIFO had no room for.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "libreplay/server/ReplayLogReader.h"
#include "logger/LoggerService.h"
#include "support/TemporaryRoot.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kRecordsPerIteration = 20000;
constexpr double kPacedSeconds = 2.0;

class BenchDirectory : public ReplaySupport::TemporaryRoot {
  public:
    BenchDirectory() : TemporaryRoot("logger-bench") {}
};

// Each benchmark runs unpaced (as fast as the producer goes) and paced at
// 40,000 records a second.
void UnpacedAndPaced(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgName("rate")->Arg(0)->Arg(40000)->Iterations(3)->UseRealTime()->Unit(
        benchmark::kMillisecond);
}

// One framed record of the largest size, a client record whose line breaks
// the server has already escaped: its only line feed is its last byte.
const std::string& FramedRecord() {
    static const std::string framed = [] {
        std::string payload = "!1700000000.000:bench:!1 1:";
        while (payload.size() < ReplayCore::LogFormat::kMaxPayloadLength - 1) {
            payload.push_back(static_cast<char>('a' + payload.size() % 26));
        }
        payload.push_back('\n');
        std::string out;
        ReplayCore::LogFormat::FrameRecord(payload, out);
        return out;
    }();
    return framed;
}

struct Production {
    uint64_t lost = 0;
    // The most records written back to back to catch up after the writer
    // itself was held up: a catch-up larger than the FIFO holds loses
    // records however fast the reader is.
    uint64_t longestCatchUp = 0;
};

// Writes `count` records, one write each. With `rate` 0 it waits for room;
// otherwise it keeps `rate` records a second and counts the records that
// found the FIFO full.
Production Produce(int fd, size_t count, double rate) {
    const std::string& record = FramedRecord();
    const auto start = Clock::now();
    Production result;
    uint64_t catchUp = 0;
    for (size_t sent = 0; sent < count;) {
        if (rate > 0) {
            const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
            const size_t due = std::min(count, static_cast<size_t>(elapsed * rate) + 1);
            if (sent >= due) {
                catchUp = 0;
                std::this_thread::sleep_for(std::chrono::microseconds(200));
                continue;
            }
            result.longestCatchUp = std::max(result.longestCatchUp, ++catchUp);
        }
        const ssize_t written = write(fd, record.data(), record.size());
        if (written == static_cast<ssize_t>(record.size())) {
            ++sent;
        } else if (rate > 0) {
            ++result.lost;
            ++sent;
        } else {
            pollfd room{fd, POLLOUT, 0};
            (void)poll(&room, 1, 100);
        }
    }
    return result;
}

bool WaitUntil(const std::function<bool()>& done) {
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    while (!done()) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    return true;
}

int LargestPipe(int fd) {
    if (fcntl(fd, F_SETPIPE_SZ, 16 * 1024 * 1024) < 0) {
        int limit = 0;
        FILE* file = fopen("/proc/sys/fs/pipe-max-size", "r");
        if (file != nullptr && fscanf(file, "%d", &limit) == 1) {
            (void)fcntl(fd, F_SETPIPE_SZ, limit);
        }
        if (file != nullptr) {
            fclose(file);
        }
    }
    return fcntl(fd, F_GETPIPE_SZ);
}

void ReportRun(benchmark::State& state, uint64_t sent, const Production& total, int pipeBytes) {
    state.SetItemsProcessed(static_cast<int64_t>(sent - total.lost));
    state.SetBytesProcessed(static_cast<int64_t>((sent - total.lost) * FramedRecord().size()));
    state.counters["lost"] = static_cast<double>(total.lost);
    state.counters["pipe_records"] = static_cast<double>(pipeBytes / FramedRecord().size());
    state.counters["longest_catch_up"] = static_cast<double>(total.longestCatchUp);
}

void Accumulate(Production& total, const Production& one) {
    total.lost += one.lost;
    total.longestCatchUp = std::max(total.longestCatchUp, one.longestCatchUp);
}

void BM_LoggerService(benchmark::State& state) {
    const double rate = static_cast<double>(state.range(0));
    const size_t count =
        rate > 0 ? static_cast<size_t>(rate * kPacedSeconds) : kRecordsPerIteration;
    BenchDirectory directory;
    MulticoreLogService::LoggerOptions options;
    options.deviceRoot = directory.Path() + "/multicore";
    options.logFile = directory.Path() + "/LOGFILE.DAT";
    MulticoreLogService::LoggerService service(options);
    const ReplayPlatform::Status started = service.Start();
    if (!started.IsOk()) {
        state.SkipWithError(started.Message().c_str());
        return;
    }
    const int fd =
        open((options.deviceRoot + MulticoreLogService::LoggerService::kRecordDevice).c_str(),
             O_RDWR | O_NONBLOCK | O_CLOEXEC);
    uint64_t sent = 0;
    Production total;
    for (auto _ : state) {
        const uint64_t before = service.Statistics().recordsWritten.load();
        const Production now = Produce(fd, count, rate);
        if (!WaitUntil([&] {
                return service.Statistics().recordsWritten.load() >= before + count - now.lost;
            })) {
            static std::string error;
            error = "records did not reach the file: " + service.StatisticsJson() + ", expected " +
                    std::to_string(before + count - now.lost) + " written";
            state.SkipWithError(error.c_str());
            break;
        }
        sent += count;
        Accumulate(total, now);
        state.PauseTiming();
        (void)truncate(options.logFile.c_str(), 0);
        state.ResumeTiming();
    }
    ReportRun(state, sent, total, service.RecordPipeSize());
    state.counters["dropped_by_service"] =
        static_cast<double>(service.Statistics().RecordsDropped());
    close(fd);
    service.Stop();
}
BENCHMARK(BM_LoggerService)->Apply(UnpacedAndPaced);

// Baseline: read 64 KB, write it, nothing else.
void BM_PlainCopyLoop(benchmark::State& state) {
    const double rate = static_cast<double>(state.range(0));
    const size_t count =
        rate > 0 ? static_cast<size_t>(rate * kPacedSeconds) : kRecordsPerIteration;
    BenchDirectory directory;
    const std::string fifo = directory.Path() + "/fifo";
    const std::string file = directory.Path() + "/copy.dat";
    if (mkfifo(fifo.c_str(), 0600) != 0) {
        state.SkipWithError("mkfifo failed");
        return;
    }
    const int readFd = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int writeFd = open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    const int fileFd = open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    fcntl(readFd, F_SETFL, 0);  // blocking reads from here on
    const int pipeBytes = LargestPipe(readFd);
    std::atomic<uint64_t> copied{0};
    std::atomic<bool> stopping{false};
    std::thread copier([&] {
        std::vector<char> buffer(64 * 1024);
        while (!stopping.load()) {
            const ssize_t got = read(readFd, buffer.data(), buffer.size());
            if (got <= 0) {
                continue;
            }
            if (write(fileFd, buffer.data(), static_cast<size_t>(got)) == got) {
                copied += static_cast<uint64_t>(got);
            }
        }
    });
    uint64_t sent = 0;
    Production total;
    for (auto _ : state) {
        const uint64_t before = copied.load();
        const Production now = Produce(writeFd, count, rate);
        const uint64_t expected = (count - now.lost) * FramedRecord().size();
        if (!WaitUntil([&] { return copied.load() >= before + expected; })) {
            state.SkipWithError("records did not reach the file");
            break;
        }
        sent += count;
        Accumulate(total, now);
        state.PauseTiming();
        (void)ftruncate(fileFd, 0);
        state.ResumeTiming();
    }
    ReportRun(state, sent, total, pipeBytes);
    stopping = true;
    (void)!write(writeFd, "", 1);  // wakes the blocked read
    copier.join();
    close(readFd);
    close(writeFd);
    close(fileFd);
}
BENCHMARK(BM_PlainCopyLoop)->Apply(UnpacedAndPaced);

}  // namespace

BENCHMARK_MAIN();
