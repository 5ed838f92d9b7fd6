#include "server/ServerControl.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "server/CommandWords.h"
#include "server/ServerStatusJson.h"

namespace ReplayServer {

namespace {

// A whole non-negative number of seconds (fractions allowed); -1 otherwise.
double ParseSeconds(const std::string& text) {
    if (text.empty()) {
        return -1;
    }
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !(value >= 0) || value > 1e7) {
        return -1;
    }
    return value;
}

const char* kHelp =
    "commands:\n"
    "  record [SECONDS]                     record (until stop, or for SECONDS)\n"
    "  replay FILE [--segment N] [--from S] [--to S] [--no-state]\n"
    "                                       replay a log (one segment, from S seconds in, up\n"
    "                                       to S seconds in; without each client's state\n"
    "                                       before the start)\n"
    "  stop                                 end the recording or replay\n"
    "  status [--json]                      state, counters and the client table\n"
    "  clients [--json]                     the client table\n"
    "  wait                                 wait until the running job has ended\n"
    "  quit                                 stop everything and exit\n";

constexpr const char* kReplayUsage =
    "usage: replay FILE [--segment N] [--from SECONDS] [--to SECONDS] [--no-state]\n";

// A stop keeps each client recording until the block holding the stop moment
// has arrived: a client sends a block at the latest when its ping finds it
// two seconds old.
constexpr const char* kStopDrainText = "about 5 s: each client's block holding the moment";

}  // namespace

ServerControl::ServerControl(ReplayServer& server, const ReplaySettings& replaySettings,
                             std::function<void(const std::string&)> output)
    : m_server(server), m_replaySettings(replaySettings), m_output(std::move(output)) {}

ServerControl::~ServerControl() {
    StopJob();
    std::lock_guard<std::mutex> lock(m_commandMutex);
    JoinFinishedJob();
}

std::string ServerControl::Execute(const std::string& line) {
    std::vector<std::string> words;
    if (!SplitCommandWords(line, words)) {
        return "error: unclosed quote in '" + line.substr(0, 64) + "'\n";
    }
    if (words.empty()) {
        return "";
    }
    const std::string& command = words[0];
    if (command == "wait") {
        return WaitForJob();
    }
    // Reports read counters only: they answer while a stop drains.
    if (command == "status" && words.size() == 1) {
        return StatusText();
    }
    if (command == "clients" && words.size() == 1) {
        return ClientsText();
    }
    std::lock_guard<std::mutex> lock(m_commandMutex);
    if (command == "record" && words.size() <= 2) {
        return Record(words.size() == 2 ? words[1] : "");
    }
    if (command == "replay") {
        return Replay(words);
    }
    if (command == "stop" && words.size() == 1) {
        return Stop();
    }
    if (command == "status" && words.size() == 1) {
        return StatusText();
    }
    if (command == "clients" && words.size() == 1) {
        return ClientsText();
    }
    if ((command == "status" || command == "clients") && words.size() == 2 &&
        words[1] == "--json") {
        return command == "status" ? StatusJson(m_server, JobRunning()) : ClientsJson(m_server);
    }
    if (command == "quit" && words.size() == 1) {
        RequestQuit();
        return "quitting\n";
    }
    if (command == "help" && words.size() == 1) {
        return kHelp;
    }
    return "error: unknown command '" + line.substr(0, 64) + "' (help lists them)\n";
}

void ServerControl::JoinFinishedJob() {
    if (m_job.joinable() && !JobRunning()) {
        m_job.join();
    }
}

bool ServerControl::StartJob(std::function<void()> body) {
    JoinFinishedJob();
    if (m_job.joinable()) {
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(m_jobMutex);
        m_stopRequested = false;
    }
    m_jobRunning.store(true, std::memory_order_release);
    m_job = std::thread([this, body] {
        body();
        std::lock_guard<std::mutex> lock(m_jobMutex);
        m_runner.reset();
        m_jobRunning.store(false, std::memory_order_release);
        m_jobEnded.notify_all();
    });
    return true;
}

std::string ServerControl::Record(const std::string& secondsText) {
    const double seconds = secondsText.empty() ? 0 : ParseSeconds(secondsText);
    if (seconds < 0) {
        return "error: record takes a number of seconds\n";
    }
    if (JobRunning() || m_server.GetState() != ReplayCore::eStateStopped) {
        return "error: busy (" +
               ReplayCore::ReplayStateManager::GetReplayStateName(m_server.GetState()) +
               "); stop first\n";
    }
    m_server.StartRecording();
    if (secondsText.empty()) {
        return "recording\n";
    }
    const auto length = std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
    StartJob([this, length] {
        {
            std::unique_lock<std::mutex> lock(m_jobMutex);
            m_jobEnded.wait_for(lock, length, [this] { return m_stopRequested; });
        }
        const bool flushed = m_server.StopRecording();
        m_lastJobOk.store(flushed, std::memory_order_release);
        m_output(flushed ? "recording stopped\n"
                         : "recording stopped; the log writer did not take every record\n");
    });
    char reply[64];
    std::snprintf(reply, sizeof reply, "recording for %.1f s\n", seconds);
    return reply;
}

std::string ServerControl::Replay(const std::vector<std::string>& words) {
    PlanOptions options;
    std::string path;
    for (size_t i = 1; i < words.size(); ++i) {
        if ((words[i] == "--segment" || words[i] == "--from" || words[i] == "--to") &&
            i + 1 < words.size()) {
            const double value = ParseSeconds(words[i + 1]);
            if (value < 0) {
                return "error: " + words[i] + " takes a non-negative number\n";
            }
            if (words[i] == "--segment") {
                options.segment = static_cast<int>(value);
            } else if (words[i] == "--from") {
                options.fromOffsetMs = static_cast<int64_t>(value * 1000);
            } else {
                options.toOffsetMs = static_cast<int64_t>(value * 1000);
            }
            ++i;
        } else if (words[i] == "--no-state") {
            options.withState = false;
        } else if (path.empty() && words[i][0] != '-') {
            path = words[i];
        } else {
            return "error: " + std::string(kReplayUsage);
        }
    }
    if (path.empty()) {
        return "error: " + std::string(kReplayUsage);
    }
    if (JobRunning() || m_server.GetState() != ReplayCore::eStateStopped) {
        return "error: busy; stop first\n";
    }
    std::unique_ptr<ReplayPlan> plan(new ReplayPlan);
    std::string error;
    if (!LoadReplayPlan(path, options, *plan, error)) {
        return "error: " + error + "\n";
    }
    std::ostringstream reply;
    reply << "replaying " << plan->records.size() << " records (" << plan->initialisation.size()
          << " initialisation, " << plan->state.size() << " state) of " << plan->clients.size()
          << " clients, " << plan->DurationMs() / 1000.0 << " s\n";
    for (const std::string& report : plan->damageReports) {
        reply << "skipped damaged record at " << report << "\n";
    }
    if (plan->damagedRecords > plan->damageReports.size()) {
        reply << "skipped " << plan->damagedRecords << " damaged records in all\n";
    }
    if (plan->skippedItems > 0 || plan->unformedItems > 0) {
        reply << "skipped " << plan->skippedItems
              << " items a client would not hand over (empty or without a time) and "
              << plan->unformedItems << " items too large to send on their own\n";
    }
    m_plan = std::move(plan);
    {
        std::lock_guard<std::mutex> lock(m_jobMutex);
        m_runner.reset(new ReplayRunner(m_server, *m_plan, m_replaySettings));
    }
    ReplayRunner* runner = m_runner.get();
    StartJob([this, runner] {
        const ReplayResult result = runner->Run();
        std::ostringstream text;
        if (!result.error.empty()) {
            text << "replay failed: " << result.error << "\n";
        } else {
            text << (result.cancelled ? "replay stopped: " : "replay complete: ")
                 << result.recordsSent << " records sent, " << result.sendFailures
                 << " failed, latest send " << result.maxSendLatenessMs << " ms behind, "
                 << result.pacingStalls << " pacing stalls, "
                 << (result.deliveredAll ? "all reported delivered" : "not all reported delivered")
                 << "\n";
        }
        m_lastJobOk.store(result.completed && result.sendFailures == 0, std::memory_order_release);
        m_output(text.str());
    });
    return reply.str();
}

void ServerControl::StopJob() {
    std::lock_guard<std::mutex> lock(m_jobMutex);
    m_stopRequested = true;
    if (m_runner != nullptr) {
        m_runner->Cancel();
    }
    m_jobEnded.notify_all();
}

std::string ServerControl::Stop() {
    if (JobRunning()) {
        StopJob();
        return "stopping\n";
    }
    if (m_server.GetState() == ReplayCore::eStateRecord) {
        const bool flushed = m_server.StopRecording();
        return flushed ? "recording stopped\n"
                       : "recording stopped; the log writer did not take every record\n";
    }
    return "nothing to stop\n";
}

std::string ServerControl::WaitForJob() {
    std::unique_lock<std::mutex> lock(m_jobMutex);
    m_jobEnded.wait(lock, [this] { return !JobRunning(); });
    return LastJobSucceeded() ? "done\n" : "done with errors\n";
}

std::string ServerControl::ClientsText() {
    std::ostringstream text;
    char line[256];
    std::snprintf(line, sizeof line, "%-20s %6s %-9s %9s %9s %7s %5s  %s\n", "name", "port",
                  "status", "received", "sent", "dropped", "slot", "last message");
    text << line;
    for (const ClientData& client : m_server.Clients()) {
        std::snprintf(line, sizeof line, "%-20s %6d %-9s %9u %9u %7d %5u  %s\n",
                      client.GetClientName().c_str(), client.GetPort(),
                      client.GetClientStatusString().c_str(), client.GetMessagesReceived(),
                      client.GetPacketsSent(), client.GetDroppedPackets(),
                      m_server.SlotOf(client.GetClientName()),
                      client.GetAuxiliaryText().substr(0, 60).c_str());
        text << line;
    }
    return text.str();
}

std::string ServerControl::StatusText() {
    const ServerCounters counters = m_server.Counters();
    std::ostringstream text;
    text << "state " << ReplayCore::ReplayStateManager::GetReplayStateName(m_server.GetState())
         << (JobRunning() ? " (job running)" : "") << "\n"
         << "datagrams " << counters.datagrams << ", records to the log "
         << counters.recordsForwarded << ", checksum failures " << counters.checksumFailures
         << ", unparsable " << counters.unparsable << ", pipe failures " << counters.forwardFailures
         << ", refused clients " << counters.refusedClients << ", refused sources "
         << counters.refusedSources << ", held for ordering " << counters.recordsHeld
         << ", passed on early (hold three quarters full) " << counters.heldReleasedEarly
         << ", no room to hold " << counters.heldOverflow << ", oversized datagrams "
         << counters.oversized << ", outside the time window " << counters.outsideTimeWindow
         << "\n";
    const StopProgress stop = m_server.Stopping();
    if (stop.draining) {
        text << "stopping: waiting for the block holding the stop moment from "
             << stop.waitingFor.size() << " of " << stop.clients << " clients (at most "
             << kStopDrainText << ")";
        for (const std::string& name : stop.waitingFor) {
            text << " " << name;
        }
        text << "\n";
    } else if (stop.lastDurationMs >= 0) {
        text << "last stop moment " << stop.momentMs << " ms, took " << stop.lastDurationMs
             << " ms, items after the stop moment " << counters.itemsAfterStop << " (not stored; "
             << counters.blocksAfterStop << " whole blocks), unconfirmed clients "
             << stop.lastUnconfirmed.size();
        for (const std::string& name : stop.lastUnconfirmed) {
            text << " " << name;
        }
        text << "\n";
    }
    text << "crash journal " << (counters.journalOn ? "on" : "off")
         << ", records recovered at start " << counters.recordsRecovered
         << ", journal write failures " << counters.journalFailures << "\n";
    text << ClientsText();
    return text.str();
}

}  // namespace ReplayServer
