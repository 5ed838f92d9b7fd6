// Record-then-replay through the real processes: the logger service, the
// replay server and demo clients, each case under a private target root and
// on a loopback address of its own.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using ReplayTest::WaitFor;

std::string Binary(const std::string& relative) {
    return std::string(REPLAY_BINARY_DIR) + "/" + relative;
}

// A child process running a built executable, its output in a file. Killed
// and reaped on destruction, so a failing case leaves nothing running.
class Process {
  public:
    Process(const std::vector<std::string>& argv, const std::string& outputPath)
        : m_outputPath(outputPath) {
        std::vector<char*> args;
        for (const std::string& arg : argv) {
            args.push_back(const_cast<char*>(arg.c_str()));
        }
        args.push_back(nullptr);
        m_pid = fork();
        if (m_pid == 0) {
            const int out = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            const int in = open("/dev/null", O_RDONLY);
            dup2(out, 1);
            dup2(out, 2);
            dup2(in, 0);
            execv(args[0], args.data());
            _exit(127);
        }
    }
    ~Process() { Kill(SIGKILL); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    bool Running() {
        Reap(false);
        return !m_reaped;
    }
    void Kill(int signal) {
        if (m_pid > 0 && !m_reaped) {
            kill(m_pid, signal);
            if (signal == SIGKILL) {
                Reap(true);
            }
        }
    }
    // The exit status, or -1 when the process is still running at the deadline.
    int Wait(std::chrono::milliseconds deadline) {
        WaitFor([this] { return !Running(); }, deadline, 10ms);
        return m_reaped ? m_status : -1;
    }
    std::string Output() const { return ReplayTest::ReadFile(m_outputPath); }

  private:
    void Reap(bool block) {
        if (m_pid <= 0 || m_reaped) {
            return;
        }
        int status = 0;
        if (waitpid(m_pid, &status, block ? 0 : WNOHANG) == m_pid) {
            m_reaped = true;
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
    }

    pid_t m_pid = -1;
    bool m_reaped = false;
    int m_status = -1;
    std::string m_outputPath;
};

struct CommandResult {
    int status;
    std::string output;
};

class RecordReplayTest : public ReplayTest::TargetRootTest {
  protected:
    void SetUp() override {
        TargetRootTest::SetUp();
        // Components take part in record and replay only when this is set.
        setenv("ENABLE_REPLAY", "1", 1);
        MakeTargetDirectory("/fs/usb0/.keep");
        MakeTargetDirectory("/tmp/.keep");
        std::mt19937 random(std::random_device{}());
        std::uniform_int_distribution<int> part(1, 254);
        m_ip = "127." + std::to_string(part(random)) + "." + std::to_string(part(random)) + "." +
               std::to_string(part(random));
        ReplayTest::WriteFile("ReplayConfig.txt",
                              "serverIP:" + m_ip +
                                  ";\nexternalConnectWait:0;\n"
                                  "networkingLatency:100;\nserverLeadTime:100;\n");
        const std::string ready = Root() + "/logger.ready";
        m_logger.reset(new Process({Binary("logger/replay-logger"), "--ready-file", ready},
                                   Root() + "/logger.out"));
        ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(ready); }, 20s, 10ms))
            << m_logger->Output();
        StartServer();
    }
    void TearDown() override {
        // Clients first, so none of them waits on a server that has gone.
        m_clients.clear();
        m_server.reset();
        m_logger.reset();
        unsetenv("ENABLE_REPLAY");
        TargetRootTest::TearDown();
    }

    void StartServer() {
        m_server.reset(
            new Process({Binary("server/ReplayManager"), "--bind", m_ip}, Root() + "/server.out"));
        ASSERT_TRUE(
            WaitFor([&] { return Send("status").status == 0 || !m_server->Running(); }, 20s, 20ms));
        ASSERT_TRUE(m_server->Running()) << m_server->Output();
    }

    // One command to the running server through its control socket.
    CommandResult Send(const std::string& command) {
        return Run({"server/ReplayManager", "send", command});
    }

    CommandResult Run(std::vector<std::string> argv) {
        argv[0] = Binary(argv[0]);
        const std::string output = Root() + "/command" + std::to_string(m_commands++) + ".out";
        Process process(argv, output);
        const int status = process.Wait(20s);
        return {status, process.Output()};
    }

    Process& StartClient(const std::string& name) {
        m_clients.emplace_back(
            new Process({Binary("examples/demo_client"), name,
                         Root() + "/" + name + "." + std::to_string(m_clients.size()) + ".journal"},
                        Root() + "/" + name + "." + std::to_string(m_clients.size()) + ".out"));
        return *m_clients.back();
    }

    // Lines of `send clients` naming the client, and whether it is running.
    int ClientEntries(const std::string& name, bool runningOnly = true) {
        const std::string table = Send("clients").output;
        int entries = 0;
        std::istringstream lines(table);
        for (std::string line; std::getline(lines, line);) {
            if (line.compare(0, name.size() + 1, name + " ") == 0 &&
                (!runningOnly || line.find("Running") != std::string::npos)) {
                ++entries;
            }
        }
        return entries;
    }
    bool AllRunning(const std::vector<std::string>& names) {
        for (const std::string& name : names) {
            if (ClientEntries(name) != 1) {
                return false;
            }
        }
        return true;
    }

    void Record(double seconds) {
        ASSERT_EQ(Send("record " + std::to_string(seconds)).status, 0);
        const CommandResult waited = Send("wait");
        ASSERT_EQ(waited.status, 0) << waited.output << m_server->Output();
    }

    std::string LogPath() const { return Root() + "/fs/usb0/LOGFILE.DAT"; }

    std::string m_ip;
    std::unique_ptr<Process> m_logger;
    std::unique_ptr<Process> m_server;
    std::vector<std::unique_ptr<Process>> m_clients;
    int m_commands = 0;
};

struct ClientSummary {
    bool found = false;
    size_t recorded = 0;
    size_t replayed = 0;
    bool identical = false;
};

ClientSummary Summary(const std::string& output) {
    ClientSummary summary;
    const size_t at = output.rfind("demo_client ");
    char identical[4] = {};
    if (at != std::string::npos &&
        std::sscanf(output.c_str() + at,
                    "demo_client %*s recorded %zu items; replayed %zu items; identical in order: "
                    "%3s",
                    &summary.recorded, &summary.replayed, identical) == 3) {
        summary.found = true;
        summary.identical = std::string(identical) == "yes";
    }
    return summary;
}

// A block is sent once it is a second old; the demo client produces 60 items
// a second, so its last, unsent block holds at most about that many.
constexpr size_t kLastBlockItems = 64;

TEST_F(RecordReplayTest, RecordedItemsReplayIdenticallyToEveryClient) {
    const std::vector<std::string> names = {"gps", "can"};
    for (const std::string& name : names) {
        StartClient(name);
    }
    ASSERT_TRUE(WaitFor([&] { return AllRunning(names); }, 15s, 50ms))
        << Send("clients").output << m_clients[0]->Output() << m_server->Output();

    Record(3);
    ASSERT_TRUE(std::filesystem::exists(LogPath()));

    const CommandResult replay = Send("replay " + LogPath());
    ASSERT_EQ(replay.status, 0) << replay.output;
    EXPECT_EQ(replay.output.find("skipped"), std::string::npos) << replay.output;
    const CommandResult waited = Send("wait");
    EXPECT_EQ(waited.status, 0) << waited.output << m_server->Output();

    for (size_t i = 0; i < m_clients.size(); ++i) {
        // Replayed items reach the client before the server reports the
        // job done, except what is still in flight.
        m_clients[i]->Kill(SIGTERM);
        EXPECT_EQ(m_clients[i]->Wait(10s), 0) << m_clients[i]->Output();
        const ClientSummary summary = Summary(m_clients[i]->Output());
        ASSERT_TRUE(summary.found) << names[i] << ": " << m_clients[i]->Output();
        EXPECT_TRUE(summary.identical) << m_clients[i]->Output();
        EXPECT_GT(summary.recorded, 0u);
        EXPECT_LE(summary.replayed, summary.recorded) << m_clients[i]->Output();
        EXPECT_LE(summary.recorded - summary.replayed, kLastBlockItems) << m_clients[i]->Output();
    }

    // Sequence gaps and time-order findings are tolerated (clients stopped
    // mid-block); damaged records or skipped regions are not.
    const CommandResult verify = Run({"tools/replaylog/replaylog", "verify", LogPath()});
    EXPECT_TRUE(verify.status == 0 || verify.status == 1) << verify.output;
    EXPECT_NE(verify.output.find(" 0 checksum failures"), std::string::npos) << verify.output;
    EXPECT_NE(verify.output.find(" 0 skipped regions"), std::string::npos) << verify.output;
}

// How often `text` occurs in `dump`.
size_t Occurrences(const std::string& dump, const std::string& text) {
    size_t count = 0;
    for (size_t at = dump.find(text); at != std::string::npos; at = dump.find(text, at + 1)) {
        ++count;
    }
    return count;
}

TEST_F(RecordReplayTest, ClientRestartedWhileRecordingReplacesItsEntry) {
    StartClient("gps");
    StartClient("can");
    ASSERT_TRUE(WaitFor([&] { return AllRunning({"gps", "can"}); }, 15s, 50ms));
    ASSERT_EQ(Send("record 4").status, 0);
    // Let the first run reach the log before it is killed.
    ASSERT_TRUE(WaitFor(
        [&] {
            return Occurrences(Run({"tools/replaylog/replaylog", "dump", LogPath()}).output,
                               ":gps:!1 ") >= 2;
        },
        10s, 100ms));
    m_clients[0]->Kill(SIGKILL);
    StartClient("gps");
    ASSERT_EQ(Send("wait").status, 0) << m_server->Output();

    // The new process took over the name: one entry, running.
    const std::string table = Send("clients").output;
    EXPECT_EQ(ClientEntries("gps", false), 1) << table;
    EXPECT_EQ(ClientEntries("gps"), 1) << table;

    const std::string dump = Run({"tools/replaylog/replaylog", "dump", LogPath()}).output;
    // Each run of the demo client starts with its initialisation record.
    EXPECT_EQ(Occurrences(dump, ":INIT:gps"), 2u) << dump;
}

// The highest position number of `client` in a log dump, or -1.
long LatestPosition(const std::string& dump, const std::string& client) {
    const std::string key = ":" + client + ":!1 ";
    long latest = -1;
    for (size_t at = dump.find(key); at != std::string::npos; at = dump.find(key, at + 1)) {
        const size_t position = dump.find(":POS ", at + key.size());
        if (position != std::string::npos &&
            dump.find_first_not_of("0123456789", at + key.size()) == position) {
            latest = std::max(latest, std::strtol(dump.c_str() + position + 5, nullptr, 10));
        }
    }
    return latest;
}

TEST_F(RecordReplayTest, ClientsReconnectToRestartedServerAndRecordingGoesOn) {
    StartClient("gps");
    StartClient("can");
    ASSERT_TRUE(WaitFor([&] { return AllRunning({"gps", "can"}); }, 15s, 50ms));
    ASSERT_EQ(Send("record 10").status, 0);
    ASSERT_TRUE(WaitFor(
        [&] {
            return LatestPosition(Run({"tools/replaylog/replaylog", "dump", LogPath()}).output,
                                  "gps") >= 2;
        },
        10s, 100ms));
    m_server->Kill(SIGKILL);
    const long beforeRestart =
        LatestPosition(Run({"tools/replaylog/replaylog", "dump", LogPath()}).output, "gps");

    StartServer();
    ASSERT_TRUE(WaitFor(
        [&] {
            return AllRunning({"gps", "can"});
        },
        10s, 50ms))
        << Send("clients").output << m_server->Output();
    Record(2);
    const std::string dump = Run({"tools/replaylog/replaylog", "dump", LogPath()}).output;
    EXPECT_GT(LatestPosition(dump, "gps"), beforeRestart) << dump;
    EXPECT_GE(LatestPosition(dump, "can"), 0) << dump;
}

TEST_F(RecordReplayTest, DamagedRecordIsSkippedAndTheRestReplays) {
    const std::vector<std::string> names = {"gps", "can"};
    for (const std::string& name : names) {
        StartClient(name);
    }
    ASSERT_TRUE(WaitFor([&] { return AllRunning(names); }, 15s, 50ms));
    Record(3);

    // Flip one byte inside a position record about halfway through a copy.
    std::string log = ReplayTest::ReadFile(LogPath());
    const size_t record = log.find(":gps:!1 ", log.size() / 2);
    ASSERT_NE(record, std::string::npos);
    const size_t latitude = log.find("lat=", record);
    ASSERT_NE(latitude, std::string::npos);
    log[latitude + 1] = 'b';
    const std::string damaged = Root() + "/damaged.dat";
    ReplayTest::WriteFile(damaged, log);

    const CommandResult replay = Send("replay " + damaged);
    ASSERT_EQ(replay.status, 0) << replay.output;
    EXPECT_NE(replay.output.find("skipped damaged record at"), std::string::npos) << replay.output;
    EXPECT_EQ(Send("wait").status, 0) << m_server->Output();

    for (size_t i = 0; i < m_clients.size(); ++i) {
        m_clients[i]->Kill(SIGTERM);
        m_clients[i]->Wait(10s);
        const ClientSummary summary = Summary(m_clients[i]->Output());
        ASSERT_TRUE(summary.found) << m_clients[i]->Output();
        // Everything but the damaged record and the unsent last block.
        EXPECT_GT(summary.replayed, 0u) << m_clients[i]->Output();
        EXPECT_LE(summary.recorded - std::min(summary.recorded, summary.replayed),
                  kLastBlockItems + 1)
            << m_clients[i]->Output();
    }
}

}  // namespace
