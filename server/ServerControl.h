#ifndef SERVER_SERVERCONTROL_H
#define SERVER_SERVERCONTROL_H

// The operator's commands, one line each, from standard input or the control
// socket (help lists them), and the same operations as calls for programs
// (a web page's server): Execute only reads the words and calls them. A
// recording with a duration and a replay run as a job in the background; one
// job at a time. A running replay answers pause, resume, seek, step, rate
// and loop at once.

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

// The outcome of one operation: `text` is the reply (or the error, without
// the "error: " that Execute puts in front).
struct ControlReply {
    bool ok = true;
    std::string text;
};

struct ReplayRequest {
    std::string path;
    PlanOptions options;
    // Only these clients replay (the others stay stopped); empty: all.
    std::vector<std::string> clients;
    bool loop = false;
    // Written when the replay ends: position, rate and per client delivery.
    std::string reportPath;
};

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

    // The replay operations. Each answers at once; an error says why it
    // does not apply (no replay running, step while playing, ...).
    ControlReply StartReplay(const ReplayRequest& request);
    ControlReply Pause();
    ControlReply Resume();
    ControlReply Seek(double seconds);
    ControlReply StepRecords(size_t count);
    ControlReply StepMilliseconds(int64_t ms);
    // 0.1 to 10; 0 stands for "max", as fast as the clients report.
    ControlReply SetRate(double rate);
    ControlReply SetLoop(bool loop);
    // Where the running (or last) replay stands; started false when none.
    ReplayPosition Position();
    // Waits until the running job has ended; "done" or what went wrong.
    ControlReply WaitForJob();

  private:
    std::string Record(const std::string& seconds);
    std::string Replay(const std::vector<std::string>& words);
    std::string Step(const std::vector<std::string>& words);
    std::string Stop();
    // Runs `operation` on the running replay's runner.
    ControlReply OnRunner(const std::function<ReplayPlatform::Status(ReplayRunner&)>& operation,
                          const std::string& done);
    std::string ReplayStatusText();
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
    ReplayPosition m_lastPosition;           // under m_jobMutex
    std::string m_lastJobText;               // under m_jobMutex
};

}  // namespace ReplayServer

#endif
