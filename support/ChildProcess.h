#ifndef SUPPORT_CHILDPROCESS_H
#define SUPPORT_CHILDPROCESS_H

// A child process that never outlives its owner: a program started with
// its output in a file, or a function run in a forked copy of the caller.
// Whatever is still running when the object goes is killed and reaped, so a
// failed run leaves nothing behind.

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace ReplaySupport {

class ChildProcess {
  public:
    // Wait's result for a child still running at the deadline.
    static constexpr int kStillRunning = -1;
    // The result when no child was started (or the fork failed).
    static constexpr int kNotStarted = -2;

    struct Options {
        // The child's working directory; empty: the caller's.
        std::string directory;
        // "NAME=value" entries added to the caller's environment, replacing
        // a variable of the same name.
        std::vector<std::string> environment;
        // Receives standard output and error; empty: /dev/null. Standard
        // input is always /dev/null.
        std::string outputPath;
        bool truncateOutput = false;
        // SIGKILL the child when the thread that started it ends, so that
        // not even a killed owner leaves processes behind.
        bool endWithParent = false;
    };

    ChildProcess() = default;
    // Forks at once; the child runs `body` and exits with its result (an
    // escaping exception exits with 125) without running the caller's
    // teardown or static destructors. Fork before starting any thread: the
    // child inherits locks held by threads it does not have.
    explicit ChildProcess(const std::function<int()>& body);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Runs the program `argv[0]` (a path, not searched for).
    bool Start(const std::vector<std::string>& argv, const Options& options);

    pid_t Pid() const { return m_pid; }
    bool Running();
    void Signal(int signal);
    // SIGKILL, and reaps it.
    void Kill();
    // The exit status (0 to 255), 128 + the signal that ended it,
    // kStillRunning or kNotStarted. The child is not killed at the deadline.
    int Wait(std::chrono::milliseconds deadline);
    // SIGTERM, then SIGKILL when it has not ended within `grace`; Wait's
    // result.
    int Stop(std::chrono::milliseconds grace);
    // The output file's content so far.
    std::string Output() const;

  private:
    void Reap(bool block);

    pid_t m_pid = -1;
    bool m_reaped = false;
    int m_status = kNotStarted;
    std::string m_outputPath;
};

// Runs `argv` to its end, its standard output and error collected in
// `output`; SIGKILL at `deadline` or as soon as `cancel` (if given) is set.
// The exit status, or -1 when it did not end by itself.
int RunCommand(const std::vector<std::string>& argv, std::chrono::milliseconds deadline,
               std::string& output, const std::atomic<bool>* cancel = nullptr);

// The number in a "Name: value" line of /proc/PID/status (VmRSS, in kB, for
// one), or -1 when the process or the line is not there.
long ProcessStatusNumber(pid_t pid, const std::string& field);

// Runs `body` in a child process and waits up to `deadline` for it;
// ChildProcess::Wait's result (a child still running is killed).
int RunInChildProcess(const std::function<int()>& body, std::chrono::milliseconds deadline);

}  // namespace ReplaySupport

#endif
