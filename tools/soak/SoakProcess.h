#ifndef TOOLS_SOAK_SOAKPROCESS_H
#define TOOLS_SOAK_SOAKPROCESS_H

// The child processes of a soak run. Each child gets SIGKILL when the soak
// program dies, so not even a killed soak leaves processes behind.

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

namespace ReplaySoak {

class ChildProcess {
  public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Starts `argv` in `directory` with standard output and error appended
    // to `outputPath` and standard input from /dev/null.
    bool Start(const std::vector<std::string>& argv, const std::string& directory,
               const std::string& outputPath);

    pid_t Pid() const { return m_pid; }
    bool Running();
    void Signal(int signal);
    // The exit status (128 + signal when killed), or -1 when still running
    // at the deadline.
    int Wait(std::chrono::milliseconds deadline);
    // SIGTERM, then SIGKILL when it has not ended after `grace`.
    int Stop(std::chrono::milliseconds grace);

  private:
    void Reap(bool block);

    pid_t m_pid = -1;
    bool m_reaped = false;
    int m_status = -1;
};

// Runs a command to its end (or SIGKILL at `deadline`, or as soon as
// `cancel` is set); its standard output and error go to `output`. The exit
// status, or -1.
int RunCommand(const std::vector<std::string>& argv, std::chrono::milliseconds deadline,
               const std::atomic<bool>& cancel, std::string& output);

// Resident set size of a process in KB from /proc; -1 when it has gone.
long ResidentKb(pid_t pid);

}  // namespace ReplaySoak

#endif
