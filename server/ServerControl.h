#ifndef SERVER_SERVERCONTROL_H
#define SERVER_SERVERCONTROL_H

// The operator's commands, one line each, from standard input or the control
// socket: record [SECONDS], replay FILE [--segment N] [--from SECONDS],
// stop, status, clients, wait, quit, help. A recording with a duration and a
// replay run as a job in the background; one job at a time.

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "server/ReplayPlan.h"
#include "server/ReplayRunner.h"
#include "server/ReplayServer.h"

namespace ReplayServer {

class ServerControl {
  public:
    // `output` receives progress and job results as they happen.
    ServerControl(ReplayServer& server, const ReplaySettings& replaySettings,
                  std::function<void(const std::string&)> output);
    ~ServerControl();
    ServerControl(const ServerControl&) = delete;
    ServerControl& operator=(const ServerControl&) = delete;

    // Runs one command line; the reply text (ends with a newline). Safe from
    // several threads; "wait" blocks until the running job has ended.
    std::string Execute(const std::string& line);
    bool QuitRequested() const { return m_quit.load(std::memory_order_relaxed); }
    void RequestQuit() { m_quit.store(true, std::memory_order_relaxed); }
    // Ends the running job (a replay is cancelled, a recording stopped).
    void StopJob();
    bool JobRunning() const { return m_jobRunning.load(std::memory_order_acquire); }
    // The last job's outcome: true when it ended without error.
    bool LastJobSucceeded() const { return m_lastJobOk.load(std::memory_order_acquire); }
    std::string StatusText();
    std::string ClientsText();

  private:
    std::string Record(const std::string& seconds);
    std::string Replay(const std::vector<std::string>& words);
    std::string Stop();
    std::string WaitForJob();
    // Starts `body` as the job; false when one is running.
    bool StartJob(std::function<void()> body);
    void JoinFinishedJob();

    ReplayServer& m_server;
    ReplaySettings m_replaySettings;
    std::function<void(const std::string&)> m_output;
    std::mutex m_commandMutex;  // one command at a time (but "wait")
    std::mutex m_jobMutex;
    std::condition_variable m_jobEnded;
    std::thread m_job;
    std::atomic<bool> m_jobRunning{false};
    std::atomic<bool> m_lastJobOk{true};
    std::atomic<bool> m_quit{false};
    bool m_stopRequested = false;  // under m_jobMutex
    std::unique_ptr<ReplayPlan> m_plan;
    std::unique_ptr<ReplayRunner> m_runner;  // under m_jobMutex while set
};

}  // namespace ReplayServer

#endif
