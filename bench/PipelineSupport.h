#ifndef BENCH_PIPELINESUPPORT_H
#define BENCH_PIPELINESUPPORT_H

// Helpers for the benchmarks that run the real processes (logger service,
// replay server, demo clients): a private target root, child processes that
// are always ended, the server's control socket and a random loopback
// address. Header-only; the benchmark programs link only the static library.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace BenchPipeline {

using SteadyClock = std::chrono::steady_clock;

// Polls `condition` every `interval` until it holds or `timeout` passes.
inline bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout,
                    std::chrono::milliseconds interval = std::chrono::milliseconds(20)) {
    const auto deadline = SteadyClock::now() + timeout;
    while (!condition()) {
        if (SteadyClock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(interval);
    }
    return true;
}

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

// 127.a.b.c with a random a, b and c, so that runs on a shared machine do
// not meet each other's servers. `hostBase` leaves room for c + hosts.
inline std::string RandomLoopbackAddress(int hostBase = 1, int hosts = 1) {
    std::random_device device;
    std::mt19937 generator(device());
    std::uniform_int_distribution<int> octet(1, 254);
    const int last = std::uniform_int_distribution<int>(hostBase, 254 - hosts)(generator);
    return "127." + std::to_string(octet(generator)) + "." + std::to_string(octet(generator)) +
           "." + std::to_string(last);
}

// A private target root with the directories the processes expect; removed
// when it goes out of scope unless BENCH_KEEP_ROOT is set.
class TargetRoot {
  public:
    TargetRoot() {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/replay-bench-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (mkdtemp(buffer.data()) == nullptr) {
            return;
        }
        m_path = buffer.data();
        for (const char* directory : {"/fs/usb0", "/fs/etfs", "/tmp", "/work"}) {
            std::filesystem::create_directories(m_path + directory);
        }
    }
    ~TargetRoot() {
        if (m_path.empty()) {
            return;
        }
        if (std::getenv("BENCH_KEEP_ROOT") != nullptr) {
            std::fprintf(stderr, "kept %s\n", m_path.c_str());
            return;
        }
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TargetRoot(const TargetRoot&) = delete;
    TargetRoot& operator=(const TargetRoot&) = delete;

    bool Valid() const { return !m_path.empty(); }
    const std::string& Path() const { return m_path; }
    std::string operator/(const std::string& relative) const { return m_path + "/" + relative; }

  private:
    std::string m_path;
};

// A child process; ended (SIGTERM, then SIGKILL)
// when it goes out of scope, so no process outlives a failed run.
class ChildProcess {
  public:
    ChildProcess() = default;
    ~ChildProcess() { Stop(std::chrono::milliseconds(3000)); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Starts `arguments[0]` in `workingDirectory` with `extraEnvironment`
    // ("NAME=value") added, standard output and error to `outputFile`.
    bool Start(const std::vector<std::string>& arguments, const std::string& workingDirectory,
               const std::vector<std::string>& extraEnvironment, const std::string& outputFile) {
        std::vector<std::string> environment = extraEnvironment;
        for (char** entry = environ; *entry != nullptr; ++entry) {
            environment.emplace_back(*entry);
        }
        std::vector<char*> argv;
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (const std::string& entry : environment) {
            envp.push_back(const_cast<char*>(entry.c_str()));
        }
        envp.push_back(nullptr);

        // Everything the child needs is prepared before fork: between fork
        // and exec only async-signal-safe calls are made.
        const int output = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (output < 0 || input < 0) {
            std::fprintf(stderr, "cannot open %s: %s\n", outputFile.c_str(), std::strerror(errno));
            close(output);
            close(input);
            return false;
        }
        const pid_t parent = getpid();
        m_pid = fork();
        if (m_pid == 0) {
            // Ended with this program, however it ends.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) {
                _exit(127);
            }
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            dup2(input, STDIN_FILENO);
            dup2(output, STDOUT_FILENO);
            dup2(output, STDERR_FILENO);
            if (chdir(workingDirectory.c_str()) != 0) {
                _exit(127);
            }
            execve(argv[0], argv.data(), envp.data());
            _exit(127);
        }
        close(output);
        close(input);
        if (m_pid < 0) {
            std::fprintf(stderr, "cannot start %s: %s\n", argv[0], std::strerror(errno));
            return false;
        }
        m_outputFile = outputFile;
        return true;
    }

    bool Running() {
        if (m_pid <= 0) {
            return false;
        }
        int status = 0;
        const pid_t result = waitpid(m_pid, &status, WNOHANG);
        if (result == m_pid) {
            m_pid = -1;
            m_exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return false;
        }
        return result == 0;
    }

    // Sends SIGTERM and waits up to `grace` for the exit, then kills it.
    // Returns the exit status (128 + signal for a signal), -1 if never run.
    int Stop(std::chrono::milliseconds grace) {
        if (m_pid > 0 && Running()) {
            kill(m_pid, SIGTERM);
            if (!WaitFor([this] { return !Running(); }, grace, std::chrono::milliseconds(5))) {
                kill(m_pid, SIGKILL);
                WaitFor([this] { return !Running(); }, std::chrono::milliseconds(5000));
            }
        }
        return m_exitStatus;
    }

    // Waits up to `timeout` for the process to end by itself.
    bool WaitExit(std::chrono::milliseconds timeout) {
        return WaitFor([this] { return !Running(); }, timeout, std::chrono::milliseconds(5));
    }

    int ExitStatus() const { return m_exitStatus; }
    std::string Output() const {
        std::ifstream in(m_outputFile);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

  private:
    pid_t m_pid = -1;
    int m_exitStatus = -1;
    std::string m_outputFile;
};

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
        const std::vector<std::string> environment = {"REPLAY_TARGET_ROOT=" + m_root.Path(),
                                                      "ENABLE_REPLAY=1"};
        const std::string ready = m_root / "logger.ready";
        if (!m_logger.Start({logger, "--root", m_root.Path(), "--ready-file", ready},
                            m_root / "work", environment, m_root / "logger.out") ||
            !WaitFor([&ready] { return access(ready.c_str(), F_OK) == 0; },
                     std::chrono::seconds(10))) {
            std::fprintf(stderr, "the logger service did not start:\n%s\n",
                         m_logger.Output().c_str());
            return false;
        }
        std::vector<std::string> serverArgv = {server,        "--bind",    m_address,    "--root",
                                               m_root.Path(), "--control", ControlPath()};
        serverArgv.insert(serverArgv.end(), serverOptions.begin(), serverOptions.end());
        if (!m_server.Start(serverArgv, m_root / "work", environment, m_root / "server.out") ||
            !WaitFor([this] { return !Command("status").empty(); }, std::chrono::seconds(10))) {
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
            std::chrono::seconds(10));
        return port > 0 && events.Start(m_address, port);
    }

    std::string Command(const std::string& line) const {
        return ControlCommand(ControlPath(), line);
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
    const TargetRoot& m_root;
    std::string m_address;
    ChildProcess m_logger;
    ChildProcess m_server;
};

}  // namespace BenchPipeline

#endif
