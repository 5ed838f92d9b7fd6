#ifndef TESTS_SUPPORT_CHILDPROCESS_H
#define TESTS_SUPPORT_CHILDPROCESS_H

// Runs part of a test in a child process of its own: for tests that need
// several replay clients (one per process) or that must survive a call that
// might hang. Fork before the test starts any thread (a process with threads
// cannot safely fork), or the child inherits locks held by threads it no
// longer has.

#include <sys/types.h>

#include <chrono>
#include <functional>

namespace ReplayTest {

class ChildProcess {
  public:
    static constexpr int kTimedOut = -1;
    static constexpr int kNotStarted = -2;

    // Forks at once; the child runs `body` and exits with its result (an
    // escaping exception exits with 125). Nothing of the test's teardown or
    // static destruction runs in the child.
    explicit ChildProcess(const std::function<int()>& body);
    // Kills and reaps a child that is still running.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const { return m_pid; }

    // The child's exit status (0 to 255), 128 + the signal that ended it,
    // kTimedOut when it was still running at the deadline (it is then
    // killed), or kNotStarted when the fork failed. Later calls return the
    // same value.
    int Wait(std::chrono::milliseconds deadline);

  private:
    pid_t m_pid = -1;
    int m_status = kNotStarted;
    bool m_reaped = false;
};

// Runs `body` in a child process and waits for it; ChildProcess::Wait's result.
int RunInChildProcess(const std::function<int()>& body, std::chrono::milliseconds deadline);

}  // namespace ReplayTest

#endif
