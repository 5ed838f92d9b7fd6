// Cost of one console line through the multicore logging interface, each
// beside a plain snprintf of the same text into a stack buffer. The output
// device is /dev/null, reached through a temporary device root.

#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "libreplay/multicore.h"
#include "support/TemporaryRoot.h"

namespace {

constexpr char kFormat[] = "position %d,%d speed %d.%02d km/h heading %d";

// Creates "<tmp>/navi/multi" -> /dev/null once and points the interface at it.
class DeviceRoot {
  public:
    DeviceRoot() {
        if (!m_root.Valid() || symlink("/dev/null", (m_root / "navi/multi").c_str()) != 0) {
            std::perror("device root");
            std::exit(1);
        }
        mi_setLogFileName(m_root.Path().c_str());
        mi_setConsoleFlags('p', MI_PREFIX_BOOT_TIME | MI_PREFIX_PROCESS_NAME | MI_PREFIX_THREAD);
        mi_setLogProcessName("bench");
    }
    ~DeviceRoot() { mi_flushBuffer(); }

  private:
    ReplaySupport::TemporaryRoot m_root{"mcbench", {"navi"}};
};

void UseDevice() {
    static DeviceRoot root;
}

void BM_Snprintf_Baseline(benchmark::State& state) {
    int value = 0;
    for (auto _ : state) {
        char line[MI_MULTICORE_BUFFER_SIZE];
        ++value;
        const int length = std::snprintf(line, sizeof line, kFormat, value, value + 7, value % 90,
                                         value % 100, value % 360);
        benchmark::DoNotOptimize(line);
        benchmark::DoNotOptimize(length);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_Snprintf_WithPrefixText_Baseline(benchmark::State& state) {
    int value = 0;
    for (auto _ : state) {
        char line[MI_MULTICORE_BUFFER_SIZE];
        ++value;
        const int length =
            std::snprintf(line, sizeof line,
                          "%5.5lu.%03d %s [%.3d] position %d,%d speed %d.%02d "
                          "km/h heading %d",
                          static_cast<unsigned long>(value / 1000), value % 1000, "bench", 1, value,
                          value + 7, value % 90, value % 100, value % 360);
        benchmark::DoNotOptimize(line);
        benchmark::DoNotOptimize(length);
    }
    state.SetItemsProcessed(state.iterations());
}

void LogLines(benchmark::State& state, int console) {
    UseDevice();
    int value = 0;
    int lost = 0;
    for (auto _ : state) {
        ++value;
        lost += mi_multicoreLog(console, 0, kFormat, value, value + 7, value % 90, value % 100,
                                value % 360) == 1
                    ? 0
                    : 1;
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["lost"] = lost;
}

void BM_MulticoreLog_NoPrefix(benchmark::State& state) {
    LogLines(state, 'n');
}

void BM_MulticoreLog_AllPrefixes(benchmark::State& state) {
    LogLines(state, 'p');
}

}  // namespace

BENCHMARK(BM_Snprintf_Baseline);
BENCHMARK(BM_MulticoreLog_NoPrefix);
BENCHMARK(BM_Snprintf_WithPrefixText_Baseline);
BENCHMARK(BM_MulticoreLog_AllPrefixes);
// Lines per second (items_per_second) with two threads logging at once.
BENCHMARK(BM_Snprintf_Baseline)->Threads(2)->UseRealTime();
BENCHMARK(BM_MulticoreLog_NoPrefix)->Threads(2)->UseRealTime();

BENCHMARK_MAIN();
