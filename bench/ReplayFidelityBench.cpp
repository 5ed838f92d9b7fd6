// Replay fidelity of the whole pipeline: five demo clients (three with a
// 10 Hz position text and a 50 Hz binary frame, one with a 100 Hz and one
// with a 200 Hz frame) are recorded through the logger service and the
// replay server, the log is replayed to them, and each replayed item's
// timing is compared with its recording: the callback moment's offset from
// the client's first replayed item minus the item's recorded offset from the
// first recorded one. Also counted: items lost, items out of order, and how
// late the first item of each client came against its due moment.
//
// The same log is then replayed from half its length on (each client's
// state item first, not timed), and a prepared log holding a burst (20,000
// items of 64 bytes within 80 ms) is replayed to one more client.
//
// Baseline in the same run: one thread sleeping on absolute deadlines
// (clock_nanosleep, TIMER_ABSTIME, CLOCK_MONOTONIC) through the same recorded
// schedule, the host's scheduling noise floor.
//
// Cases of their own pause a replay of three clients a third of the way in
// for two seconds and measure the items after the resume against their new
// moments: resumed at the recorded pace, at twice it and at half it.
//
// The whole run is repeated with the server's web page open (its live event
// stream read throughout); the first run's server has no page.
//
// Settings (environment):
//   FIDELITY_SECONDS         recording length (default 60)
//   FIDELITY_PAUSE_SECONDS   recording length of the pause and rate cases
//                            (default 30)
// Needs logger/replay-logger, server/ReplayManager and examples/demo_client
// built in the same tree.

#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/StoredLog.h"
#include "bench/PipelineSupport.h"
#include "libreplay/server/ClientRecord.h"
#include "libreplay/server/ReplayLogReader.h"

namespace {

using BenchPipeline::ChildProcess;
using BenchPipeline::EnvironmentNumber;

struct ClientSetup {
    const char* name;
    std::vector<std::string> options;
};
const ClientSetup kClients[] = {
    {"gps", {}},
    {"can", {}},
    {"compass", {}},
    {"imu100", {"--position-hz", "0", "--frame-hz", "100"}},
    {"imu200", {"--position-hz", "0", "--frame-hz", "200"}},
};
constexpr int kClientCount = sizeof kClients / sizeof kClients[0];
constexpr int kNetworkingLatencyMs = 100;
constexpr size_t kBurstItems = 20000;
constexpr size_t kBurstItemBytes = 64;
constexpr int64_t kBurstSpanMs = 80;

// Per-item timing errors in microseconds with the counts that go with them.
struct FidelityResult {
    std::vector<int64_t> errorsUs;
    size_t recorded = 0;
    size_t lost = 0;
    size_t reordered = 0;
    size_t duplicated = 0;
    size_t foreign = 0;  // replayed but not in the journal
    int64_t worstFirstItemLateMs = 0;
    // Per client: its errors, for the rates of the fast ones.
    std::map<std::string, std::vector<int64_t>> clientErrorsUs;
    double replaySeconds = 0;
};

// Results of the three replays, kept for the benchmarks that report them.
struct PipelineResults {
    FidelityResult full;
    FidelityResult fromOffset;
    FidelityResult burst;
    bool ran = false;
    std::string error;
};

PipelineResults& Results() {
    static PipelineResults results;
    return results;
}

// The recorded schedule: per client, item times in ms (journal order).
std::vector<std::vector<int64_t>>& RecordedSchedule() {
    static std::vector<std::vector<int64_t>> schedule;
    return schedule;
}

// A journal line: "<time ms> <data type> <hex bytes>".
struct JournalEntry {
    int64_t timeMs;
    unsigned int dataType;
};

std::vector<JournalEntry> ReadJournal(const std::string& path) {
    std::vector<JournalEntry> entries;
    std::ifstream in(path);
    JournalEntry entry{};
    std::string hex;
    while (in >> entry.timeMs >> entry.dataType >> hex) {
        entries.push_back(entry);
    }
    return entries;
}

struct ReplayedItem {
    long long journalIndex;
    int64_t recordedMs;
    int64_t momentUs;
    int clockLeadMs;
};

std::vector<ReplayedItem> ReadReplayedItems(const std::string& path) {
    std::vector<ReplayedItem> items;
    std::ifstream in(path);
    ReplayedItem item{};
    while (in >> item.journalIndex >> item.recordedMs >> item.momentUs >> item.clockLeadMs) {
        items.push_back(item);
    }
    return items;
}

// Order is checked per data type: each is an input stream of its own, sent
// in blocks of its own.
// With `stateFirst` the first replayed item is the client's state before the
// range: handed over at once, not timed.
void AddClient(const std::string& name, const std::vector<JournalEntry>& journal,
               std::vector<ReplayedItem> replayed, bool stateFirst, FidelityResult& result) {
    if (stateFirst && !replayed.empty()) {
        replayed.erase(replayed.begin());
    }
    result.recorded += journal.size();
    std::set<long long> seen;
    std::map<unsigned int, long long> highest;
    const ReplayedItem* first = nullptr;
    for (const ReplayedItem& item : replayed) {
        if (item.journalIndex < 0) {
            ++result.foreign;
            continue;
        }
        if (!seen.insert(item.journalIndex).second) {
            ++result.duplicated;
            continue;
        }
        if (item.journalIndex >= static_cast<long long>(journal.size())) {
            ++result.foreign;
            continue;
        }
        const unsigned int type = journal[static_cast<size_t>(item.journalIndex)].dataType;
        const auto previous = highest.find(type);
        if (previous != highest.end() && item.journalIndex < previous->second) {
            ++result.reordered;
        }
        highest[type] = std::max(highest[type], item.journalIndex);
        if (first == nullptr) {
            first = &item;
            // Due when the client's clock reads the item's time less the
            // networking latency it adds to its clock.
            result.worstFirstItemLateMs = std::max<int64_t>(
                result.worstFirstItemLateMs, item.clockLeadMs + kNetworkingLatencyMs);
        }
        const int64_t replayedUs = item.momentUs - first->momentUs;
        const int64_t recordedUs = (item.recordedMs - first->recordedMs) * 1000;
        result.errorsUs.push_back(replayedUs - recordedUs);
        result.clientErrorsUs[name].push_back(replayedUs - recordedUs);
    }
    // A replay from an offset is not expected to bring the items before it.
    result.lost += stateFirst ? 0 : journal.size() - seen.size();
}

struct Distribution {
    double meanMs = 0;
    double p99Ms = 0;
    double maxMs = 0;
};

Distribution Summarise(const std::vector<int64_t>& errorsUs) {
    Distribution d;
    if (errorsUs.empty()) {
        return d;
    }
    std::vector<int64_t> absolute;
    double sum = 0;
    for (const int64_t e : errorsUs) {
        absolute.push_back(std::llabs(e));
        sum += static_cast<double>(std::llabs(e));
    }
    std::sort(absolute.begin(), absolute.end());
    d.meanMs = sum / static_cast<double>(absolute.size()) / 1000.0;
    const size_t p99 = static_cast<size_t>(std::ceil(0.99 * static_cast<double>(absolute.size())));
    d.p99Ms = static_cast<double>(absolute[std::max<size_t>(p99, 1) - 1]) / 1000.0;
    d.maxMs = static_cast<double>(absolute.back()) / 1000.0;
    return d;
}

void ReportDistribution(benchmark::State& state, const std::vector<int64_t>& errorsUs) {
    const Distribution d = Summarise(errorsUs);
    state.counters["items"] = static_cast<double>(errorsUs.size());
    state.counters["mean_abs_ms"] = d.meanMs;
    state.counters["p99_abs_ms"] = d.p99Ms;
    state.counters["max_abs_ms"] = d.maxMs;
}

// A log holding one client's burst, stored as that client sends it (blocks
// of at most 2032 bytes), and the client's journal of the same items.
bool WriteBurst(const std::string& client, const std::string& logPath,
                const std::string& journalPath) {
    constexpr int64_t kStartMs = 50000;
    std::vector<ReplayTest::TimedItem> items;
    for (size_t i = 0; i < kBurstItems; ++i) {
        std::string bytes = "POS " + std::to_string(i) + " ";
        bytes.resize(kBurstItemBytes, 'p');
        items.push_back(
            {kStartMs + static_cast<int64_t>(i) * kBurstSpanMs / static_cast<int64_t>(kBurstItems),
             bytes});
    }
    std::ofstream journal(journalPath);
    journal << ReplayTest::DemoJournal(items);
    std::ofstream log(logPath, std::ios::binary);
    log << ReplayTest::StoredClientLog(kStartMs, client, items);
    return static_cast<bool>(journal) && static_cast<bool>(log);
}

class DemoClients {
  public:
    DemoClients(const BenchPipeline::TargetRoot& root, BenchPipeline::RecordingPipeline& pipeline)
        : m_root(root), m_pipeline(pipeline) {}

    // Starts the clients (again) and waits until the server has them all
    // running; each run writes its own items file.
    bool Start(const std::vector<ClientSetup>& setups, const std::string& run) {
        m_setups = setups;
        m_run = run;
        m_processes.clear();
        const std::string demoClient = BenchPipeline::BuiltProgram("examples/demo_client");
        for (const ClientSetup& setup : setups) {
            const std::string name = setup.name;
            std::vector<std::string> arguments = {demoClient, name, m_root / (name + ".journal")};
            arguments.insert(arguments.end(), setup.options.begin(), setup.options.end());
            m_processes.emplace_back(new ChildProcess);
            if (!m_processes.back()->Start(
                    arguments,
                    BenchPipeline::ChildOptions(
                        m_root, m_root / (name + "." + run + ".out"),
                        {"DEMO_CLIENT_ITEMS=" + (m_root / (name + "." + run + ".items"))}))) {
                return false;
            }
        }
        return BenchPipeline::WaitFor(
            [&] { return m_pipeline.RunningClients() >= m_setups.size(); },
            std::chrono::seconds(20), std::chrono::milliseconds(100));
    }

    // Ends the clients (they write their items files) and adds what each
    // was replayed to `result`.
    void Collect(bool stateFirst, FidelityResult& result) {
        for (size_t c = 0; c < m_processes.size(); ++c) {
            m_processes[c]->Stop(std::chrono::seconds(20));
            const std::string name = m_setups[c].name;
            const std::vector<JournalEntry> journal = ReadJournal(m_root / (name + ".journal"));
            if (m_run == "full") {
                RecordedSchedule().emplace_back();
                for (const JournalEntry& entry : journal) {
                    RecordedSchedule().back().push_back(entry.timeMs);
                }
            }
            AddClient(name, journal, ReadReplayedItems(m_root / (name + "." + m_run + ".items")),
                      stateFirst, result);
            const std::string output = m_processes[c]->Output();
            const size_t summary = output.find("demo_client ");
            std::fprintf(stderr, "  %s",
                         summary == std::string::npos
                             ? ("demo_client " + name + ": no summary\n").c_str()
                             : output.substr(summary).c_str());
        }
        m_processes.clear();
    }

  private:
    const BenchPipeline::TargetRoot& m_root;
    BenchPipeline::RecordingPipeline& m_pipeline;
    std::vector<ClientSetup> m_setups;
    std::string m_run;
    std::vector<std::unique_ptr<ChildProcess>> m_processes;
};

// Replays with `command` and waits until the server reports it done; the
// time that took goes to `result`.
bool Replay(BenchPipeline::RecordingPipeline& pipeline, const std::string& command,
            FidelityResult& result, std::string& error) {
    std::fprintf(stderr, "  %s ...\n", command.c_str());
    const auto started = std::chrono::steady_clock::now();
    const std::string replay = pipeline.Command(command);
    if (replay.compare(0, 9, "replaying") != 0) {
        error = "replay refused: " + replay;
        return false;
    }
    const std::string done = pipeline.Command("wait");
    result.replaySeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::fprintf(stderr, "  %s  replay: %s", replay.c_str(), done.c_str());
    return true;
}

// Records, replays whole, from the middle and a burst, and collects; false
// with `error` when a step fails.
bool RunPipeline(int seconds, bool pageOpen, PipelineResults& results, std::string& error) {
    BenchPipeline::TargetRoot root;
    const std::string address = BenchPipeline::RandomLoopbackAddress();
    BenchPipeline::RecordingPipeline pipeline(root, address);
    BenchPipeline::EventStreamReader events;
    const std::string config = "serverIP:" + address +
                               ";\nnetworkingLatency:" + std::to_string(kNetworkingLatencyMs) +
                               ";\nserverLeadTime:100;\n";
    if (BenchPipeline::BuiltProgram("examples/demo_client").empty() ||
        !(pageOpen ? pipeline.StartWithPageOpen(config, events)
                   : pipeline.Start(config, {"--no-http"}))) {
        error = "cannot start the pipeline";
        return false;
    }
    const std::vector<ClientSetup> setups(kClients, kClients + kClientCount);
    DemoClients clients(root, pipeline);
    if (!clients.Start(setups, "full")) {
        error = "the demo clients did not connect";
        return false;
    }
    std::fprintf(stderr, "  recording %d s ...\n", seconds);
    pipeline.Command("record " + std::to_string(seconds));
    pipeline.Command("wait");
    RecordedSchedule().clear();
    if (!Replay(pipeline, "replay " + pipeline.LogFile(), results.full, error)) {
        return false;
    }
    clients.Collect(false, results.full);

    if (!clients.Start(setups, "offset")) {
        error = "the demo clients did not connect again";
        return false;
    }
    if (!Replay(pipeline, "replay " + pipeline.LogFile() + " --from " + std::to_string(seconds / 2),
                results.fromOffset, error)) {
        return false;
    }
    clients.Collect(true, results.fromOffset);

    const std::string burstLog = root / "burst.dat";
    if (!WriteBurst("burst", burstLog, root / "burst.journal")) {
        error = "cannot write the burst";
        return false;
    }
    if (!clients.Start({{"burst", {"--position-hz", "0", "--frame-hz", "0"}}}, "burst")) {
        error = "the burst client did not connect";
        return false;
    }
    if (!Replay(pipeline, "replay " + burstLog, results.burst, error)) {
        return false;
    }
    clients.Collect(false, results.burst);
    return true;
}

void ReportRates(benchmark::State& state, const FidelityResult& result) {
    for (const char* name : {"imu100", "imu200"}) {
        const auto found = result.clientErrorsUs.find(name);
        if (found != result.clientErrorsUs.end()) {
            const Distribution d = Summarise(found->second);
            const std::string rate = std::string(name).substr(3);
            state.counters["mean_" + rate + "hz_ms"] = d.meanMs;
            state.counters["p99_" + rate + "hz_ms"] = d.p99Ms;
            state.counters["max_" + rate + "hz_ms"] = d.maxMs;
        }
    }
}

void ReportCounts(benchmark::State& state, const FidelityResult& result) {
    state.counters["recorded"] = static_cast<double>(result.recorded);
    state.counters["lost"] = static_cast<double>(result.lost);
    state.counters["reordered"] = static_cast<double>(result.reordered);
    state.counters["duplicated"] = static_cast<double>(result.duplicated + result.foreign);
    state.counters["replay_s"] = result.replaySeconds;
}

void BM_ReplayFidelity(benchmark::State& state) {
    const int seconds = static_cast<int>(EnvironmentNumber("FIDELITY_SECONDS", 60));
    PipelineResults& results = Results();
    for (auto _ : state) {
        results = PipelineResults();
        if (!RunPipeline(seconds, false, results, results.error)) {
            state.SkipWithError(results.error.c_str());
            return;
        }
        results.ran = true;
    }
    ReportDistribution(state, results.full.errorsUs);
    ReportRates(state, results.full);
    ReportCounts(state, results.full);
    state.counters["first_item_late_ms"] = static_cast<double>(results.full.worstFirstItemLateMs);
}

// The same run with the web page open; its ratios to the run without.
void BM_ReplayFidelityWithPageOpen(benchmark::State& state) {
    const int seconds = static_cast<int>(EnvironmentNumber("FIDELITY_SECONDS", 60));
    PipelineResults results;
    for (auto _ : state) {
        if (!RunPipeline(seconds, true, results, results.error)) {
            state.SkipWithError(results.error.c_str());
            return;
        }
    }
    ReportDistribution(state, results.full.errorsUs);
    ReportCounts(state, results.full);
    if (Results().ran && !Results().full.errorsUs.empty()) {
        const Distribution without = Summarise(Results().full.errorsUs);
        state.counters["mean_ms_without_page"] = without.meanMs;
        state.counters["p99_ms_without_page"] = without.p99Ms;
        state.counters["max_ms_without_page"] = without.maxMs;
        state.counters["lost_without_page"] = static_cast<double>(Results().full.lost);
    }
}

// The replay from half the recording on, from the same run.
void BM_ReplayFromOffset(benchmark::State& state) {
    for (auto _ : state) {
    }
    if (!Results().ran) {
        state.SkipWithError("the fidelity run did not complete");
        return;
    }
    const FidelityResult& result = Results().fromOffset;
    ReportDistribution(state, result.errorsUs);
    ReportRates(state, result);
    ReportCounts(state, result);
    state.counters["first_item_late_ms"] = static_cast<double>(result.worstFirstItemLateMs);
}

// The burst, from the same run: items handed over, lost and out of order.
void BM_ReplayBurst(benchmark::State& state) {
    for (auto _ : state) {
    }
    if (!Results().ran) {
        state.SkipWithError("the fidelity run did not complete");
        return;
    }
    ReportCounts(state, Results().burst);
    state.counters["replayed"] = static_cast<double>(Results().burst.errorsUs.size());
}

// A replay paused a third of the way in for two seconds, then resumed (at a
// new rate, when asked): each item after the resume against its new moment,
// the resume moment plus its recorded time's distance from the paused
// position, divided by the rate. Nothing may be lost.
const char* const kPauseClients[] = {"gps", "can", "compass"};

struct PauseResumeResult {
    std::vector<int64_t> errorsUs;  // items after the resume
    size_t recorded = 0;
    size_t lost = 0;
    int64_t worstFirstAfterResumeUs = 0;
};

bool RunPauseResume(int seconds, double rate, PauseResumeResult& result, std::string& error) {
    BenchPipeline::TargetRoot root;
    const std::string address = BenchPipeline::RandomLoopbackAddress();
    BenchPipeline::RecordingPipeline pipeline(root, address);
    const std::string demoClient = BenchPipeline::BuiltProgram("examples/demo_client");
    if (demoClient.empty() ||
        !pipeline.Start("serverIP:" + address + ";\nnetworkingLatency:" +
                        std::to_string(kNetworkingLatencyMs) + ";\nserverLeadTime:100;\n")) {
        error = "cannot start the pipeline";
        return false;
    }
    ChildProcess clients[3];
    for (int c = 0; c < 3; ++c) {
        const std::string name = kPauseClients[c];
        if (!clients[c].Start(
                {demoClient, name, root / (name + ".journal")},
                BenchPipeline::ChildOptions(root, root / (name + ".out"),
                                            {"DEMO_CLIENT_ITEMS=" + (root / (name + ".items"))}))) {
            error = "cannot start demo_client";
            return false;
        }
    }
    if (!BenchPipeline::WaitFor([&] { return pipeline.RunningClients() >= 3; },
                                std::chrono::seconds(20), std::chrono::milliseconds(100))) {
        error = "the demo clients did not connect";
        return false;
    }
    std::fprintf(stderr, "  recording %d s ...\n", seconds);
    pipeline.Command("record " + std::to_string(seconds));
    pipeline.Command("wait");
    const std::string replay = pipeline.Command("replay " + pipeline.LogFile());
    if (replay.compare(0, 9, "replaying") != 0) {
        error = "replay refused: " + replay;
        return false;
    }
    const auto monotonicUs = [] {
        return std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    };
    std::this_thread::sleep_for(std::chrono::milliseconds(seconds * 1000 / 3));
    const std::string paused = pipeline.Command("pause");
    std::this_thread::sleep_for(std::chrono::seconds(2));
    if (rate != 1.0) {
        char command[32];
        std::snprintf(command, sizeof command, "rate %g", rate);
        const std::string changed = pipeline.Command(command);
        if (changed.compare(0, 6, "error:") == 0) {
            error = "rate refused: " + changed;
            return false;
        }
    }
    const int64_t resumeSentUs = monotonicUs();
    const std::string resumed = pipeline.Command("resume");
    const int64_t resumeUs = (resumeSentUs + monotonicUs()) / 2;
    const std::string done = pipeline.Command("wait");
    std::fprintf(stderr, "  %s  %s  %s  replay: %s", replay.c_str(), paused.c_str(),
                 resumed.c_str(), done.c_str());
    if (paused.compare(0, 10, "paused at ") != 0) {
        error = "pause refused: " + paused;
        return false;
    }
    // The position is counted from the earliest recorded item.
    const int64_t pausedOffsetMs = std::llround(std::strtod(paused.c_str() + 10, nullptr) * 1000);
    for (ChildProcess& client : clients) {
        client.Stop(std::chrono::seconds(20));
    }
    std::vector<std::vector<JournalEntry>> journals;
    int64_t startMs = INT64_MAX;
    for (const char* name : kPauseClients) {
        journals.push_back(ReadJournal(root / (std::string(name) + ".journal")));
        if (!journals.back().empty()) {
            startMs = std::min(startMs, journals.back().front().timeMs);
        }
    }
    for (int c = 0; c < 3; ++c) {
        const std::vector<ReplayedItem> items =
            ReadReplayedItems(root / (std::string(kPauseClients[c]) + ".items"));
        std::set<long long> seen;
        bool first = true;
        for (const ReplayedItem& item : items) {
            seen.insert(item.journalIndex);
            if (item.momentUs < resumeSentUs) {
                continue;
            }
            const int64_t dueUs =
                resumeUs +
                std::llround(static_cast<double>(item.recordedMs - startMs - pausedOffsetMs) *
                             1000.0 / rate);
            result.errorsUs.push_back(item.momentUs - dueUs);
            if (first) {
                first = false;
                result.worstFirstAfterResumeUs = std::max<int64_t>(
                    result.worstFirstAfterResumeUs, std::llabs(item.momentUs - dueUs));
            }
        }
        result.recorded += journals[static_cast<size_t>(c)].size();
        result.lost += journals[static_cast<size_t>(c)].size() - seen.size();
    }
    return true;
}

void RunPauseResumeCase(benchmark::State& state, double rate) {
    const int seconds = static_cast<int>(EnvironmentNumber("FIDELITY_PAUSE_SECONDS", 30));
    PauseResumeResult result;
    for (auto _ : state) {
        std::string error;
        if (!RunPauseResume(seconds, rate, result, error)) {
            state.SkipWithError(error.c_str());
            return;
        }
    }
    ReportDistribution(state, result.errorsUs);
    state.counters["recorded"] = static_cast<double>(result.recorded);
    // The last block of each client never reaches the log.
    state.counters["lost"] = static_cast<double>(result.lost);
    state.counters["first_after_resume_ms"] =
        static_cast<double>(result.worstFirstAfterResumeUs) / 1000.0;
}

void BM_ReplayFidelityPauseResume(benchmark::State& state) {
    RunPauseResumeCase(state, 1.0);
}

// The same, resumed at twice and at half the recorded pace.
void BM_ReplayFidelityRateTwo(benchmark::State& state) {
    RunPauseResumeCase(state, 2.0);
}

void BM_ReplayFidelityRateHalf(benchmark::State& state) {
    RunPauseResumeCase(state, 0.5);
}

// The same schedule slept through on absolute deadlines: each client's items
// at their recorded offsets from its first item, all clients from one start.
void BM_AbsoluteSleepBaseline(benchmark::State& state) {
    std::vector<int64_t> offsetsMs;
    for (const std::vector<int64_t>& client : RecordedSchedule()) {
        for (const int64_t time : client) {
            offsetsMs.push_back(time - client.front());
        }
    }
    if (offsetsMs.empty()) {
        // No recording ran: 3 clients at 10 Hz and 50 Hz.
        const int seconds = static_cast<int>(EnvironmentNumber("FIDELITY_SECONDS", 60));
        for (int client = 0; client < 3; ++client) {
            for (int64_t t = 0; t < seconds * 1000; t += 20) {
                offsetsMs.push_back(t + client * 7);
                if (t % 100 == 0) {
                    offsetsMs.push_back(t + client * 7);
                }
            }
        }
    }
    std::sort(offsetsMs.begin(), offsetsMs.end());
    std::vector<int64_t> errorsUs;
    for (auto _ : state) {
        timespec start{};
        clock_gettime(CLOCK_MONOTONIC, &start);
        const int64_t startNs = start.tv_sec * 1000000000LL + start.tv_nsec + 50000000;
        for (const int64_t offset : offsetsMs) {
            const int64_t dueNs = startNs + offset * 1000000;
            const timespec due{static_cast<time_t>(dueNs / 1000000000), dueNs % 1000000000};
            while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr) == EINTR) {
            }
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            errorsUs.push_back((now.tv_sec * 1000000000LL + now.tv_nsec - dueNs) / 1000);
        }
    }
    ReportDistribution(state, errorsUs);
}

BENCHMARK(BM_ReplayFidelity)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_ReplayFidelityWithPageOpen)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_ReplayFromOffset)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_ReplayBurst)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_ReplayFidelityPauseResume)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_ReplayFidelityRateTwo)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_ReplayFidelityRateHalf)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_AbsoluteSleepBaseline)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
