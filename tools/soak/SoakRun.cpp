#include "tools/soak/SoakRun.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "libreplay/server/ReplayLogStatistics.h"
#include "support/ChildProcess.h"
#include "support/LoopbackAddress.h"
#include "support/TemporaryRoot.h"
#include "tools/soak/SoakReport.h"

namespace ReplaySoak {

using ReplaySupport::ChildProcess;
using ReplaySupport::RunCommand;

std::atomic<bool> g_soakInterrupted{false};

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const char kInitialisationPrefix[] = "INIT:";

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Sleeps in short steps so that an interrupt is seen at once; false when
// interrupted.
bool SleepFor(std::chrono::milliseconds length) {
    const Clock::time_point end = Clock::now() + length;
    while (Clock::now() < end) {
        if (g_soakInterrupted.load()) {
            return false;
        }
        std::this_thread::sleep_for(std::min<Clock::duration>(end - Clock::now(), 50ms));
    }
    return !g_soakInterrupted.load();
}

class SoakRun {
  public:
    explicit SoakRun(const SoakSettings& settings)
        : m_settings(settings), m_profiles(DefaultProfiles(settings.clients)) {}
    ~SoakRun() { Cleanup(); }

    int Run();

  private:
    bool Prepare();
    bool StartProcesses();
    bool Record();
    bool Replay();
    void StopClients();
    void Cleanup();
    std::string Binary(const std::string& relative) const {
        return m_settings.binaryDirectory + "/" + relative;
    }
    // One command through the server's control socket; false on failure.
    bool Send(const std::string& command, std::string& reply,
              std::chrono::milliseconds deadline = 20s);
    bool AllClientsRunning();
    // In the working directory, output appended to `outputPath`, ended with
    // the soak program.
    ChildProcess::Options ChildOptions(const std::string& outputPath) const {
        ChildProcess::Options options;
        options.directory = m_work;
        options.outputPath = outputPath;
        options.endWithParent = true;
        return options;
    }
    void SampleMemory(double minutes, bool recording);
    bool Fail(const std::string& text) {
        std::fprintf(stderr, "replay-soak: %s\n", text.c_str());
        return false;
    }

    SoakSettings m_settings;
    std::vector<ClientProfile> m_profiles;
    std::unique_ptr<ReplaySupport::TemporaryRoot> m_temporary;
    std::string m_root;
    std::string m_work;
    std::string m_ip;
    ChildProcess m_logger;
    ChildProcess m_server;
    std::vector<std::unique_ptr<ChildProcess>> m_clients;
    SoakReport m_report;
};

bool SoakRun::Prepare() {
    m_temporary = std::make_unique<ReplaySupport::TemporaryRoot>(
        "replay-soak", std::initializer_list<const char*>{"fs/usb0", "tmp", "work", "clients"});
    if (!m_temporary->Valid()) {
        return Fail("cannot make a temporary directory");
    }
    if (m_settings.keepRoot) {
        m_temporary->Keep();
    }
    m_root = m_temporary->Path();
    m_work = m_root + "/work";
    m_ip = ReplaySupport::RandomLoopbackAddress();
    std::ofstream config(m_work + "/ReplayConfig.txt");
    config << "serverIP:" << m_ip << ";\nexternalConnectWait:0;\n"
           << "networkingLatency:100;\nserverLeadTime:100;\n";
    config.close();
    // Every child finds the target tree, the control socket and its options
    // through these.
    setenv("REPLAY_TARGET_ROOT", m_root.c_str(), 1);
    setenv("ENABLE_REPLAY", "1", 1);
    return static_cast<bool>(config);
}

bool SoakRun::Send(const std::string& command, std::string& reply,
                   std::chrono::milliseconds deadline) {
    return RunCommand({Binary("server/ReplayManager"), "send", command}, deadline, reply,
                      &g_soakInterrupted) == 0;
}

bool SoakRun::AllClientsRunning() {
    std::string table;
    if (!Send("clients", table)) {
        return false;
    }
    size_t running = 0;
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name;
        std::string port;
        std::string status;
        words >> name >> port >> status;
        for (const ClientProfile& profile : m_profiles) {
            if (profile.name == name && status == "Running") {
                ++running;
            }
        }
    }
    return running == m_profiles.size();
}

bool SoakRun::StartProcesses() {
    const std::string ready = m_root + "/logger.ready";
    if (!m_logger.Start({Binary("logger/replay-logger"), "--ready-file", ready},
                        ChildOptions(m_root + "/logger.out"))) {
        return Fail("cannot start the logger service");
    }
    const Clock::time_point start = Clock::now();
    while (!std::filesystem::exists(ready)) {
        if (!m_logger.Running() || SecondsSince(start) > 20 || !SleepFor(20ms)) {
            return Fail("the logger service did not come up; see " + m_root + "/logger.out");
        }
    }
    if (!m_server.Start({Binary("server/ReplayManager"), "--bind", m_ip, "--client-wait", "60"},
                        ChildOptions(m_root + "/server.out"))) {
        return Fail("cannot start the replay server");
    }
    std::string reply;
    while (!Send("status", reply)) {
        if (!m_server.Running() || SecondsSince(start) > 30 || !SleepFor(50ms)) {
            return Fail("the replay server did not answer; see " + m_root + "/server.out");
        }
    }
    for (const ClientProfile& profile : m_profiles) {
        const std::string base = m_root + "/clients/" + profile.name;
        std::vector<std::string> argv = {Binary("examples/demo_client"),
                                         profile.name,
                                         base + ".journal",
                                         "--position-hz",
                                         std::to_string(profile.positionHz),
                                         "--frame-hz",
                                         std::to_string(profile.frameHz),
                                         "--frame-bytes",
                                         std::to_string(profile.frameBytes),
                                         "--status-hz",
                                         std::to_string(profile.statusHz),
                                         "--received",
                                         base + ".replayed"};
        m_clients.emplace_back(new ChildProcess);
        if (!m_clients.back()->Start(argv, ChildOptions(base + ".out"))) {
            return Fail("cannot start client " + profile.name);
        }
    }
    const Clock::time_point clientsStarted = Clock::now();
    while (!AllClientsRunning()) {
        if (SecondsSince(clientsStarted) > 30 || !SleepFor(100ms)) {
            Send("clients", reply);
            return Fail("not every client reached the server:\n" + reply);
        }
    }
    return true;
}

void SoakRun::SampleMemory(double minutes, bool recording) {
    auto add = [&](const std::string& name, pid_t pid) {
        const long kb = ReplaySupport::ProcessStatusNumber(pid, "VmRSS");
        if (kb >= 0) {
            m_report.AddMemorySample(name, {minutes, kb}, recording);
        }
    };
    add("server", m_server.Pid());
    add("logger", m_logger.Pid());
    for (size_t i = 0; i < m_clients.size(); ++i) {
        add(m_profiles[i].name, m_clients[i]->Pid());
    }
}

bool SoakRun::Record() {
    std::string reply;
    if (!Send("record " + std::to_string(m_settings.durationSeconds), reply)) {
        return Fail("record refused: " + reply);
    }
    const Clock::time_point start = Clock::now();
    std::printf("recording %.0f s ...\n", m_settings.durationSeconds);
    std::fflush(stdout);
    // Samples every interval, and one shortly before the recording ends.
    const double last = std::max(0.0, m_settings.durationSeconds - 1);
    double next = 0;
    while (next <= last) {
        const double wait = next - SecondsSince(start);
        if (wait > 0 && !SleepFor(std::chrono::milliseconds(static_cast<int64_t>(wait * 1000)))) {
            return Fail("interrupted while recording");
        }
        SampleMemory(SecondsSince(start) / 60.0, true);
        next = next >= last ? last + 1 : std::min(next + m_settings.sampleSeconds, last);
    }
    const std::chrono::milliseconds deadline(
        static_cast<int64_t>((m_settings.durationSeconds + 120) * 1000));
    if (!Send("wait", reply, deadline)) {
        return Fail("the recording did not end cleanly: " + reply);
    }
    Send("status", reply);
    m_report.SetServerStatus(reply);
    // Items handed over before this moment must all be in the log.
    const std::string key = "last stop moment ";
    const size_t at = reply.find(key);
    if (at != std::string::npos) {
        m_settings.loss.stopMomentMs = std::strtoll(reply.c_str() + at + key.size(), nullptr, 10);
    }
    return true;
}

bool SoakRun::Replay() {
    const std::string log = m_root + "/fs/usb0/LOGFILE.DAT";
    std::string reply;
    if (!Send("replay " + log, reply) || reply.compare(0, 6, "error:") == 0) {
        return Fail("replay refused: " + reply);
    }
    m_report.SetReplayPlan(reply);
    std::printf("replaying: %s", reply.c_str());
    std::fflush(stdout);
    const Clock::time_point start = Clock::now();
    for (;;) {
        if (!SleepFor(std::chrono::milliseconds(
                static_cast<int64_t>(std::min(m_settings.sampleSeconds, 2.0) * 1000)))) {
            return Fail("interrupted while replaying");
        }
        std::string status;
        Send("status", status);
        if (status.find("(job running)") == std::string::npos) {
            break;
        }
        SampleMemory(SecondsSince(start) / 60.0, false);
        if (SecondsSince(start) > m_settings.durationSeconds + 180) {
            return Fail("the replay did not end");
        }
    }
    Send("wait", reply);
    m_report.SetReplayResult(reply);
    // The last items are due serverLeadTime after they were sent.
    return SleepFor(1500ms);
}

void SoakRun::StopClients() {
    for (auto& client : m_clients) {
        client->Signal(SIGTERM);
    }
    for (size_t i = 0; i < m_clients.size(); ++i) {
        const int status = m_clients[i]->Stop(30s);
        m_report.SetClientExit(m_profiles[i].name, status);
    }
}

void SoakRun::Cleanup() {
    for (auto& client : m_clients) {
        client->Stop(5s);
    }
    m_server.Stop(10s);
    m_logger.Stop(10s);
    m_temporary.reset();
}

// The same checks as `replaylog verify`: every block of every client there
// once, in order, undamaged, behind the log's header.
bool VerifyLog(const std::string& path) {
    ReplayCore::LogStatistics statistics;
    std::string error;
    if (!ReplayCore::CollectLogStatistics(path, statistics, error)) {
        std::printf("log verify: cannot read %s\n", error.c_str());
        return false;
    }
    std::printf("log verify: %llu problems\n",
                static_cast<unsigned long long>(statistics.ProblemCount()));
    const size_t shown = std::min<size_t>(statistics.Problems().size(), 10);
    for (size_t i = 0; i < shown; ++i) {
        const ReplayCore::LogProblem& problem = statistics.Problems()[i];
        std::printf("  %s at offset %llu: %s\n", ReplayCore::LogProblemKindName(problem.kind),
                    static_cast<unsigned long long>(problem.offset), problem.text.c_str());
    }
    return statistics.Clean();
}

int SoakRun::Run() {
    if (!Prepare()) {
        return 3;
    }
    std::printf("replay-soak: %zu clients on %s, root %s\n", m_profiles.size(), m_ip.c_str(),
                m_root.c_str());
    std::fflush(stdout);
    const bool completed = StartProcesses() && Record() && Replay();
    StopClients();
    m_server.Stop(10s);
    m_logger.Stop(10s);
    if (!completed) {
        if (m_settings.keepRoot) {
            std::fprintf(stderr, "replay-soak: kept %s\n", m_root.c_str());
        }
        return 3;
    }

    const std::string logPath = m_root + "/fs/usb0/LOGFILE.DAT";
    const LogContents log = ReadLog(logPath, kInitialisationPrefix);
    m_report.SetLog(log);
    for (const ClientProfile& profile : m_profiles) {
        const std::string base = m_root + "/clients/" + profile.name;
        const auto found = log.items.find(profile.name);
        const std::vector<LoggedItem> none;
        m_report.AddClient(profile,
                           AnalyseClient(ReadJournal(base + ".journal"),
                                         found != log.items.end() ? found->second : none,
                                         ReadReplayed(base + ".replayed"), m_settings.loss));
    }
    // Both run, so that each prints its findings.
    const bool reportPassed = m_report.Print(m_settings, stdout);
    const bool logVerified = VerifyLog(logPath);
    const bool passed = reportPassed && logVerified;
    if (m_settings.keepRoot) {
        std::printf("kept %s\n", m_root.c_str());
    }
    return passed ? 0 : 1;
}

}  // namespace

std::vector<ClientProfile> DefaultProfiles(size_t count) {
    // Positions at 10 Hz with a 1 Hz health text, sensor frames at 50 Hz,
    // one inertial unit at 100 Hz, mixed components, and low-rate status
    // sources (traffic messages, 1 Hz).
    const std::vector<ClientProfile> mix = {
        {"gps", 10, 0, 48, 1},  {"can", 0, 50, 48, 0},    {"imu", 0, 100, 64, 0},
        {"odo", 10, 50, 48, 0}, {"can", 0, 50, 48, 0},    {"tmc", 0, 0, 48, 1},
        {"gps", 10, 0, 48, 1},  {"can", 0, 50, 48, 0},    {"odo", 10, 50, 48, 0},
        {"tmc", 0, 0, 48, 1},   {"gyro", 0, 50, 24, 0},   {"can", 0, 50, 48, 0},
        {"gps", 10, 0, 48, 1},  {"tmc", 0, 0, 48, 1},     {"odo", 10, 50, 48, 0},
        {"can", 0, 50, 48, 0},  {"radar", 0, 20, 160, 0}, {"gps", 10, 0, 48, 1},
        {"tmc", 0, 0, 48, 1},   {"gyro", 0, 50, 24, 0},
    };
    std::vector<ClientProfile> profiles;
    for (size_t i = 0; i < count; ++i) {
        ClientProfile profile = mix[i % mix.size()];
        profile.name += std::to_string(i);
        profiles.push_back(profile);
    }
    return profiles;
}

int RunSoak(const SoakSettings& settings) {
    SoakRun run(settings);
    return run.Run();
}

}  // namespace ReplaySoak
