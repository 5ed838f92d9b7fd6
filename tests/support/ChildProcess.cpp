#include "tests/support/ChildProcess.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

namespace ReplayTest {

namespace {

int DecodeStatus(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return ChildProcess::kTimedOut;
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
    if (m_pid > 0 && !m_reaped) {
        kill(m_pid, SIGKILL);
        int status = 0;
        waitpid(m_pid, &status, 0);
    }
}

int ChildProcess::Wait(std::chrono::milliseconds deadline) {
    if (m_pid <= 0 || m_reaped) {
        return m_status;
    }
    const auto end = std::chrono::steady_clock::now() + deadline;
    int status = 0;
    for (;;) {
        const pid_t done = waitpid(m_pid, &status, WNOHANG);
        if (done == m_pid) {
            m_status = DecodeStatus(status);
            break;
        }
        if (done < 0 || std::chrono::steady_clock::now() >= end) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &status, 0);
            m_status = kTimedOut;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    m_reaped = true;
    return m_status;
}

int RunInChildProcess(const std::function<int()>& body, std::chrono::milliseconds deadline) {
    ChildProcess child(body);
    return child.Wait(deadline);
}

}  // namespace ReplayTest
