#ifndef BENCH_PIPELINESUPPORT_H
#define BENCH_PIPELINESUPPORT_H

// Helpers for the benchmarks that run the real processes (logger service,
// replay server, demo clients): a private target root, the server's control
// socket and its web page's event stream, on top of the shared process
// helpers.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/LoopbackAddress.h"
#include "support/TemporaryRoot.h"
#include "support/WaitFor.h"

namespace BenchPipeline {

using SteadyClock = std::chrono::steady_clock;

using ReplaySupport::ChildProcess;
using ReplaySupport::RandomLoopbackAddress;
using ReplaySupport::WaitFor;

// An integer from the environment, or `fallback` when unset or not a number.
inline long EnvironmentNumber(const char* name, long fallback) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') {
        return fallback;
    }
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    return *end == '\0' ? value : fallback;
}

// The build tree holding this program (bench/<program>); REPLAY_BUILD_DIR
// overrides it.
inline std::string BuildDirectory() {
    if (const char* given = std::getenv("REPLAY_BUILD_DIR")) {
        return given;
    }
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::string(".") : self.parent_path().parent_path().string();
}

// The path of a program built in this tree, or empty (with a message) when
// it has not been built.
inline std::string BuiltProgram(const std::string& relativePath) {
    const std::string path = BuildDirectory() + "/" + relativePath;
    if (access(path.c_str(), X_OK) != 0) {
        std::fprintf(stderr, "%s is missing: build it first (cmake --build ... --target %s)\n",
                     path.c_str(), std::filesystem::path(relativePath).filename().c_str());
        return "";
    }
    return path;
}

// A private target root with the directories the processes expect; kept
// on disk when BENCH_KEEP_ROOT is set.
class TargetRoot : public ReplaySupport::TemporaryRoot {
  public:
    TargetRoot() : TemporaryRoot("replay-bench", {"fs/usb0", "fs/etfs", "tmp", "work"}) {
        if (std::getenv("BENCH_KEEP_ROOT") != nullptr && Valid()) {
            std::fprintf(stderr, "keeping %s\n", Path().c_str());
            Keep();
        }
    }
};

// A benchmark's child: in the root's working directory, with the root and
// replay enabled in its environment (and `extraEnvironment`), its output in
// `outputFile`, ended with this program.
inline ChildProcess::Options ChildOptions(const TargetRoot& root, const std::string& outputFile,
                                          const std::vector<std::string>& extraEnvironment = {}) {
    ChildProcess::Options options;
    options.directory = root / "work";
    options.environment = {"REPLAY_TARGET_ROOT=" + root.Path(), "ENABLE_REPLAY=1"};
    options.environment.insert(options.environment.end(), extraEnvironment.begin(),
                               extraEnvironment.end());
    options.outputPath = outputFile;
    options.truncateOutput = true;
    options.endWithParent = true;
    return options;
}

// Sends one command line to the server's control socket; the reply, or
// empty when the server cannot be reached.
inline std::string ControlCommand(const std::string& socketPath, const std::string& command) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path) {
        return "";
    }
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return "";
    }
    // A server that never answers must not hang the run ("wait" may take a
    // whole recording or replay).
    timeval patience{900, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    std::string reply;
    const std::string line = command + "\n";
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        send(fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size())) {
        char buffer[4096];
        ssize_t n;
        while ((n = recv(fd, buffer, sizeof buffer, 0)) > 0) {
            reply.append(buffer, static_cast<size_t>(n));
        }
    }
    close(fd);
    return reply;
}

// Reads the web page's event stream as a browser does, until destroyed.
class EventStreamReader {
  public:
    ~EventStreamReader() {
        m_stop.store(true);
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    // Connects to the page at `address`:`port` and starts reading.
    bool Start(const std::string& address, int port) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in target{};
        target.sin_family = AF_INET;
        target.sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, address.c_str(), &target.sin_addr);
        if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0) {
            if (fd >= 0) {
                close(fd);
            }
            return false;
        }
        const std::string request = "GET /api/events HTTP/1.1\r\nHost: " + address + ":" +
                                    std::to_string(port) + "\r\n\r\n";
        if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(request.size())) {
            close(fd);
            return false;
        }
        timeval wait = {0, 200 * 1000};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        m_thread = std::thread([this, fd] {
            char buffer[16384];
            while (!m_stop.load()) {
                const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
                if (n == 0) {
                    break;
                }
                if (n > 0) {
                    m_bytes.fetch_add(static_cast<uint64_t>(n));
                }
            }
            close(fd);
        });
        return true;
    }
    uint64_t Bytes() const { return m_bytes.load(); }

  private:
    std::atomic<bool> m_stop{false};
    std::atomic<uint64_t> m_bytes{0};
    std::thread m_thread;
};

// The logger service and the replay server in one target root, the server
// on `address`:4400. Both are ended when this goes out of scope.
class RecordingPipeline {
  public:
    explicit RecordingPipeline(const TargetRoot& root, std::string address)
        : m_root(root), m_address(std::move(address)) {}

    // `config` is written to the server's ReplayConfig.txt; `serverOptions`
    // are added to the server's command line.
    bool Start(const std::string& config = "", const std::vector<std::string>& serverOptions = {}) {
        const std::string logger = BuiltProgram("logger/replay-logger");
        const std::string server = BuiltProgram("server/ReplayManager");
        if (logger.empty() || server.empty() || !m_root.Valid()) {
            return false;
        }
        std::ofstream(m_root / "work/ReplayConfig.txt") << config;
        const std::string ready = m_root / "logger.ready";
        if (!m_logger.Start({logger, "--root", m_root.Path(), "--ready-file", ready},
                            ChildOptions(m_root, m_root / "logger.out")) ||
            !WaitFor([&ready] { return access(ready.c_str(), F_OK) == 0; },
                     std::chrono::seconds(10), kStartPoll)) {
            std::fprintf(stderr, "the logger service did not start:\n%s\n",
                         m_logger.Output().c_str());
            return false;
        }
        std::vector<std::string> serverArgv = {server,        "--bind",    m_address,    "--root",
                                               m_root.Path(), "--control", ControlPath()};
        serverArgv.insert(serverArgv.end(), serverOptions.begin(), serverOptions.end());
        if (!m_server.Start(serverArgv, ChildOptions(m_root, m_root / "server.out")) ||
            !WaitFor([this] { return !Command("status").empty(); }, std::chrono::seconds(10),
                     kStartPoll)) {
            std::fprintf(stderr, "the replay server did not start:\n%s\n",
                         m_server.Output().c_str());
            return false;
        }
        return true;
    }

    // Starts with the server's web page on a free port of the same address
    // and `events` reading its live stream, as an open page does.
    bool StartWithPageOpen(const std::string& config, EventStreamReader& events) {
        if (!Start(config, {"--http", m_address + ":0"})) {
            return false;
        }
        int port = 0;
        const std::string key = "web page http://" + m_address + ":";
        WaitFor(
            [&] {
                const std::string output = m_server.Output();
                const size_t at = output.find(key);
                port = at == std::string::npos ? 0 : std::atoi(output.c_str() + at + key.size());
                return port > 0;
            },
            std::chrono::seconds(10), kStartPoll);
        return port > 0 && events.Start(m_address, port);
    }

    std::string Command(const std::string& line) const {
        return ControlCommand(ControlPath(), line);
    }
    // Clients the server's table lists as running.
    size_t RunningClients() const {
        const std::string table = Command("clients");
        size_t running = 0;
        for (size_t at = table.find("Running"); at != std::string::npos;
             at = table.find("Running", at + 1)) {
            ++running;
        }
        return running;
    }
    std::string ControlPath() const { return m_root / "control.sock"; }
    std::string LogFile() const { return m_root / "fs/usb0/LOGFILE.DAT"; }
    const std::string& Address() const { return m_address; }
    ChildProcess& Server() { return m_server; }
    ChildProcess& Logger() { return m_logger; }

    // Ends the server first (it flushes into the logger), then the logger.
    void Stop() {
        m_server.Stop(std::chrono::seconds(10));
        m_logger.Stop(std::chrono::seconds(10));
    }
    ~RecordingPipeline() { Stop(); }

  private:
    static constexpr std::chrono::milliseconds kStartPoll{20};

    const TargetRoot& m_root;
    std::string m_address;
    ChildProcess m_logger;
    ChildProcess m_server;
};

}  // namespace BenchPipeline

#endif
