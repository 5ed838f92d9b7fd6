#include "support/ChildProcess.h"

// Starting, signalling and reaping processes is what this file is for; the
// helpers' one place for these calls.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <thread>

#include "support/WaitFor.h"

extern char** environ;

namespace ReplaySupport {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kPoll(5);

int DecodeStatus(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(&text[0]);
    }
    pointers.push_back(nullptr);
    return pointers;
}

// The caller's environment with `added` put in place of variables of the
// same name.
std::vector<std::string> Environment(const std::vector<std::string>& added) {
    std::vector<std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string variable = *entry;
        const std::string prefix = variable.substr(0, variable.find('=') + 1);
        const bool replaced = std::any_of(added.begin(), added.end(), [&](const std::string& a) {
            return a.compare(0, prefix.size(), prefix) == 0;
        });
        if (!replaced) {
            variables.push_back(variable);
        }
    }
    variables.insert(variables.end(), added.begin(), added.end());
    return variables;
}

// In the child, after fork: only async-signal-safe calls until exec.
[[noreturn]] void ExecChild(char* const* argv, char* const* envp, const char* directory, int output,
                            pid_t parent, bool endWithParent) {
    if (endWithParent) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);
        }
    }
    const int input = open("/dev/null", O_RDONLY);
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    // The caller may block signals for a thread of its own; the child's
    // handlers must work.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (directory[0] != '\0' && chdir(directory) != 0) {
        _exit(126);
    }
    execve(argv[0], argv, envp);
    _exit(127);
}

}  // namespace

ChildProcess::ChildProcess(const std::function<int()>& body) {
    std::fflush(nullptr);  // buffered output must not be written twice
    m_pid = fork();
    if (m_pid == 0) {
        int result = 125;
        try {
            result = body();
        } catch (...) {
        }
        std::fflush(nullptr);
        _exit(result & 0xFF);
    }
}

ChildProcess::~ChildProcess() {
    Kill();
}

void ChildProcess::Kill() {
    if (m_pid > 0 && !m_reaped) {
        kill(m_pid, SIGKILL);
        Reap(true);
    }
}

bool ChildProcess::Start(const std::vector<std::string>& argv, const Options& options) {
    // Everything the child needs is prepared before the fork.
    std::vector<std::string> arguments = argv;
    std::vector<std::string> variables = Environment(options.environment);
    const std::vector<char*> args = Pointers(arguments);
    const std::vector<char*> envp = Pointers(variables);
    const std::string outputPath = options.outputPath.empty() ? "/dev/null" : options.outputPath;
    const int output =
        open(outputPath.c_str(),
             O_WRONLY | O_CREAT | O_CLOEXEC | (options.truncateOutput ? O_TRUNC : O_APPEND), 0644);
    if (output < 0 || argv.empty()) {
        std::fprintf(stderr, "cannot start %s: cannot open %s\n",
                     argv.empty() ? "nothing" : argv[0].c_str(), outputPath.c_str());
        if (output >= 0) {
            close(output);
        }
        return false;
    }
    const pid_t parent = getpid();
    std::fflush(nullptr);
    m_pid = fork();
    if (m_pid == 0) {
        ExecChild(args.data(), envp.data(), options.directory.c_str(), output, parent,
                  options.endWithParent);
    }
    close(output);
    m_reaped = false;
    m_status = kNotStarted;
    m_outputPath = options.outputPath;
    return m_pid > 0;
}

bool ChildProcess::Running() {
    Reap(false);
    return m_pid > 0 && !m_reaped;
}

void ChildProcess::Signal(int signal) {
    if (Running()) {
        kill(m_pid, signal);
    }
}

int ChildProcess::Wait(std::chrono::milliseconds deadline) {
    if (m_pid <= 0) {
        return kNotStarted;
    }
    WaitFor([this] { return !Running(); }, deadline, kPoll);
    return m_reaped ? m_status : kStillRunning;
}

int ChildProcess::Stop(std::chrono::milliseconds grace) {
    Signal(SIGTERM);
    if (Wait(grace) == kStillRunning) {
        Kill();
    }
    return m_status;
}

std::string ChildProcess::Output() const {
    std::ifstream in(m_outputPath, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void ChildProcess::Reap(bool block) {
    if (m_pid <= 0 || m_reaped) {
        return;
    }
    int status = 0;
    pid_t done;
    do {
        done = waitpid(m_pid, &status, block ? 0 : WNOHANG);
    } while (done < 0 && errno == EINTR);
    if (done == m_pid) {
        m_reaped = true;
        m_status = DecodeStatus(status);
    } else if (done < 0) {
        // Not our child any more (reaped elsewhere): nothing left to wait for.
        m_reaped = true;
        m_status = kStillRunning;
    }
}

int RunCommand(const std::vector<std::string>& argv, std::chrono::milliseconds deadline,
               std::string& output, const std::atomic<bool>* cancel) {
    output.clear();
    int pipeEnds[2];
    if (argv.empty() || pipe2(pipeEnds, O_CLOEXEC) != 0) {
        return -1;
    }
    std::vector<std::string> arguments = argv;
    std::vector<std::string> variables = Environment({});
    const std::vector<char*> args = Pointers(arguments);
    const std::vector<char*> envp = Pointers(variables);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        ExecChild(args.data(), envp.data(), "", pipeEnds[1], parent, true);
    }
    close(pipeEnds[1]);
    if (pid < 0) {
        close(pipeEnds[0]);
        return -1;
    }
    fcntl(pipeEnds[0], F_SETFL, O_NONBLOCK);
    const Clock::time_point end = Clock::now() + deadline;
    int status = 0;
    bool reaped = false;
    char buffer[4096];
    for (;;) {
        ssize_t got;
        while ((got = read(pipeEnds[0], buffer, sizeof buffer)) > 0) {
            output.append(buffer, static_cast<size_t>(got));
        }
        if (reaped) {
            break;
        }
        if (waitpid(pid, &status, WNOHANG) == pid) {
            reaped = true;
            continue;  // drain what it wrote last
        }
        if (Clock::now() > end || (cancel != nullptr && cancel->load())) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            close(pipeEnds[0]);
            return -1;
        }
        std::this_thread::sleep_for(kPoll);
    }
    close(pipeEnds[0]);
    return DecodeStatus(status);
}

long ProcessStatusNumber(pid_t pid, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    const std::string key = field + ":";
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, key.size(), key) == 0) {
            return std::strtol(line.c_str() + key.size(), nullptr, 10);
        }
    }
    return -1;
}

int RunInChildProcess(const std::function<int()>& body, std::chrono::milliseconds deadline) {
    ChildProcess child(body);
    return child.Wait(deadline);
}

}  // namespace ReplaySupport
