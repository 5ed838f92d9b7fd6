#include "tools/soak/SoakProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <thread>

namespace ReplaySoak {

namespace {

using Clock = std::chrono::steady_clock;

// In the child, after fork: only async-signal-safe calls until exec.
[[noreturn]] void ExecChild(char* const* args, const char* directory, int out) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int in = open("/dev/null", O_RDONLY);
    dup2(in, 0);
    dup2(out, 1);
    dup2(out, 2);
    // Restore what the parent blocked, so the child's own handlers work.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (directory[0] != '\0' && chdir(directory) != 0) {
        _exit(126);
    }
    execv(args[0], args);
    _exit(127);
}

std::vector<char*> ArgumentVector(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const std::string& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    return args;
}

int DecodeStatus(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

ChildProcess::~ChildProcess() {
    if (m_pid > 0 && !m_reaped) {
        kill(m_pid, SIGKILL);
        Reap(true);
    }
}

bool ChildProcess::Start(const std::vector<std::string>& argv, const std::string& directory,
                         const std::string& outputPath) {
    const int out = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (out < 0) {
        return false;
    }
    std::vector<char*> args = ArgumentVector(argv);
    m_pid = fork();
    if (m_pid == 0) {
        ExecChild(args.data(), directory.c_str(), out);
    }
    close(out);
    m_reaped = false;
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
    const Clock::time_point end = Clock::now() + deadline;
    while (Running() && Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return m_reaped ? m_status : -1;
}

int ChildProcess::Stop(std::chrono::milliseconds grace) {
    Signal(SIGTERM);
    if (Wait(grace) < 0 && m_pid > 0) {
        kill(m_pid, SIGKILL);
        Reap(true);
    }
    return m_status;
}

void ChildProcess::Reap(bool block) {
    if (m_pid <= 0 || m_reaped) {
        return;
    }
    int status = 0;
    if (waitpid(m_pid, &status, block ? 0 : WNOHANG) == m_pid) {
        m_reaped = true;
        m_status = DecodeStatus(status);
    }
}

int RunCommand(const std::vector<std::string>& argv, std::chrono::milliseconds deadline,
               const std::atomic<bool>& cancel, std::string& output) {
    output.clear();
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) {
        return -1;
    }
    std::vector<char*> args = ArgumentVector(argv);
    const pid_t pid = fork();
    if (pid == 0) {
        ExecChild(args.data(), "", pipeEnds[1]);
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
        if (!reaped && waitpid(pid, &status, WNOHANG) == pid) {
            reaped = true;
            continue;  // drain what it wrote last
        }
        if (reaped) {
            break;
        }
        if (Clock::now() > end || cancel.load()) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            close(pipeEnds[0]);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    close(pipeEnds[0]);
    return DecodeStatus(status);
}

long ResidentKb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

}  // namespace ReplaySoak
