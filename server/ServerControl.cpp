#include "server/ServerControl.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <cmath>
#include <cstdlib>
#include <sstream>
#include <set>
#include <vector>

#include "server/CommandWords.h"
#include "server/ReplayReport.h"
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

const char* const kHelp =
    "commands:\n"
    "  record [SECONDS]              record (until stop, or for SECONDS)\n"
    "  replay FILE [--segment N] [--from S] [--to S] [--no-state] [--clients A,B]\n"
    "              [--loop] [--report OUT.json]\n"
    "                                replay a log (one segment, from S seconds in, up to\n"
    "                                S seconds in; without each client's state before the\n"
    "                                start; only some clients: the others stay stopped);\n"
    "                                the report is written when the replay ends\n"
    "  pause                         hold the running replay where it is\n"
    "  resume                        go on from where it was paused\n"
    "  seek SECONDS                  jump to SECONDS after the replay's start\n"
    "  step [N | MS ms]              while paused: the next N records (default 1),\n"
    "                                or the next MS milliseconds of the log\n"
    "  rate R|max                    play R times as fast (0.1 to 10), or as fast as\n"
    "                                the clients report handling what they get\n"
    "  loop on|off                   start again from the beginning at the end\n"
    "  stop                          end the recording or replay\n"
    "  status [--json]               state, position, counters and the client table\n"
    "  clients [--json]              the client table\n"
    "  wait                          wait until the running job has ended (a replay:\n"
    "                                until every client reported its last record)\n"
    "  quit                          stop everything and exit\n";

const char* const kReplayUsage =
    "usage: replay FILE [--segment N] [--from SECONDS] [--to SECONDS] [--no-state] "
    "[--clients A,B] [--loop] [--report FILE.json]";

std::vector<std::string> SplitNames(const std::string& text) {
    std::vector<std::string> names;
    size_t start = 0;
    while (start <= text.size()) {
        const size_t comma = std::min(text.find(',', start), text.size());
        if (comma > start) {
            names.push_back(text.substr(start, comma - start));
        }
        start = comma + 1;
    }
    return names;
}

// Keeps only the named clients' records.
void KeepClients(ReplayPlan& plan, const std::vector<std::string>& names) {
    const std::set<std::string> keep(names.begin(), names.end());
    const auto other = [&keep](const PlannedRecord& record) {
        return keep.count(record.client) == 0;
    };
    plan.records.erase(std::remove_if(plan.records.begin(), plan.records.end(), other),
                       plan.records.end());
    plan.initialisation.erase(
        std::remove_if(plan.initialisation.begin(), plan.initialisation.end(), other),
        plan.initialisation.end());
    plan.state.erase(std::remove_if(plan.state.begin(), plan.state.end(), other), plan.state.end());
    plan.clients = keep;
    if (!plan.records.empty()) {
        plan.startMs = std::max(plan.startMs, plan.records.front().timeMs);
        plan.endMs = plan.records.back().timeMs;
    }
}

std::string SecondsText(int64_t ms) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f s", static_cast<double>(ms) / 1000.0);
    return text;
}

// A stop keeps each client recording until the block holding the stop moment
// has arrived: a client sends a block at the latest when its ping finds it
// two seconds old.
constexpr const char* kStopDrainText = "10 s: each client's block holding the moment";

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
    if (command == "wait" && words.size() == 1) {
        const ControlReply reply = WaitForJob();
        return reply.text + "\n";
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
    // Replay control: answered at once, never behind a job.
    const auto text = [](const ControlReply& reply) {
        return (reply.ok ? "" : "error: ") + reply.text + "\n";
    };
    if (command == "pause" && words.size() == 1) {
        return text(Pause());
    }
    if (command == "resume" && words.size() == 1) {
        return text(Resume());
    }
    if (command == "seek") {
        const double seconds = words.size() == 2 ? ParseSeconds(words[1]) : -1;
        if (seconds < 0) {
            return "error: usage: seek SECONDS (from the replay's start)\n";
        }
        return text(Seek(seconds));
    }
    if (command == "step") {
        return Step(words);
    }
    if (command == "rate" && words.size() == 2) {
        if (words[1] == "max") {
            return text(SetRate(0));
        }
        const double rate = ParseSeconds(words[1]);
        if (rate <= 0) {
            return "error: usage: rate R (0.1 to 10) or rate max\n";
        }
        return text(SetRate(rate));
    }
    if (command == "loop" && words.size() == 2 && (words[1] == "on" || words[1] == "off")) {
        return text(SetLoop(words[1] == "on"));
    }
    if (command == "status" && words.size() == 1) {
        return StatusText();
    }
    if (command == "clients" && words.size() == 1) {
        return ClientsText();
    }
    if ((command == "status" || command == "clients") && words.size() == 2 &&
        words[1] == "--json") {
        if (command == "clients") {
            return ClientsJson(m_server);
        }
        const ReplayPosition position = Position();
        return StatusJson(m_server, JobRunning(), position.started ? &position : nullptr);
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
        m_lastJobText.clear();
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
    ReplayRequest request;
    for (size_t i = 1; i < words.size(); ++i) {
        const bool hasValue = i + 1 < words.size();
        if ((words[i] == "--segment" || words[i] == "--from" || words[i] == "--to") && hasValue) {
            const double value = ParseSeconds(words[i + 1]);
            if (value < 0) {
                return "error: " + words[i] + " takes a non-negative number\n";
            }
            if (words[i] == "--segment") {
                request.options.segment = static_cast<int>(value);
            } else if (words[i] == "--from") {
                request.options.fromOffsetMs = static_cast<int64_t>(value * 1000);
            } else {
                request.options.toOffsetMs = static_cast<int64_t>(value * 1000);
            }
            ++i;
        } else if (words[i] == "--no-state") {
            request.options.withState = false;
        } else if (words[i] == "--clients" && hasValue) {
            request.clients = SplitNames(words[++i]);
            if (request.clients.empty()) {
                return "error: --clients takes names separated by commas\n";
            }
        } else if (words[i] == "--report" && hasValue) {
            request.reportPath = words[++i];
        } else if (words[i] == "--loop") {
            request.loop = true;
        } else if (request.path.empty() && !words[i].empty() && words[i][0] != '-') {
            request.path = words[i];
        } else {
            return std::string("error: ") + kReplayUsage + "\n";
        }
    }
    if (request.path.empty()) {
        return std::string("error: ") + kReplayUsage + "\n";
    }
    const ControlReply reply = StartReplay(request);
    return (reply.ok ? "" : "error: ") + reply.text + "\n";
}

ControlReply ServerControl::StartReplay(const ReplayRequest& request) {
    if (JobRunning() || m_server.GetState() != ReplayCore::eStateStopped) {
        return {false, "busy; stop first"};
    }
    std::unique_ptr<ReplayPlan> plan(new ReplayPlan);
    const ReplayPlatform::Status loaded = LoadReplayPlan(request.path, request.options, *plan);
    if (!loaded.IsOk()) {
        return {false, loaded.Message()};
    }
    if (!request.clients.empty()) {
        std::string unknown;
        for (const std::string& name : request.clients) {
            if (plan->clients.count(name) == 0) {
                unknown += (unknown.empty() ? "" : ", ") + name;
            }
        }
        if (!unknown.empty()) {
            std::string known;
            for (const std::string& name : plan->clients) {
                known += (known.empty() ? "" : ", ") + name;
            }
            return {false, "the log has no records of " + unknown + " (it has " + known + ")"};
        }
        KeepClients(*plan, request.clients);
        if (plan->records.empty()) {
            return {false, "those clients have no data records to replay"};
        }
    }
    std::ostringstream reply;
    reply << "replaying " << plan->records.size() << " records (" << plan->initialisation.size()
          << " initialisation, " << plan->state.size() << " state) of " << plan->clients.size()
          << " clients, " << plan->DurationMs() / 1000.0 << " s";
    for (const std::string& report : plan->damageReports) {
        reply << "\nskipped damaged record at " << report;
    }
    if (plan->damagedRecords > plan->damageReports.size()) {
        reply << "\nskipped " << plan->damagedRecords << " damaged records in all";
    }
    if (plan->skippedItems > 0 || plan->unformedItems > 0) {
        reply << "\nskipped " << plan->skippedItems
              << " items a client would not hand over (empty or without a time) and "
              << plan->unformedItems << " items too large to send on their own";
    }
    m_plan = std::move(plan);
    {
        std::lock_guard<std::mutex> lock(m_jobMutex);
        m_runner.reset(new ReplayRunner(m_server, *m_plan, m_replaySettings));
        m_runner->SetLoop(request.loop);
        m_lastPosition = ReplayPosition();
    }
    ReplayRunner* runner = m_runner.get();
    const std::string reportPath = request.reportPath;
    StartJob([this, runner, reportPath] {
        const ReplayResult result = runner->Run();
        const ReplayPosition position = runner->Position();
        std::ostringstream text;
        if (!result.error.empty()) {
            text << "replay failed: " << result.error;
        } else {
            text << (result.cancelled ? "replay stopped: " : "replay complete: ")
                 << result.recordsSent << " records sent, " << result.sendFailures
                 << " failed, latest send " << result.maxSendLatenessMs << " ms behind, "
                 << result.pacingStalls << " pacing stalls";
            if (result.undeliveredClients.empty()) {
                text << ", all reported delivered";
            } else {
                text << "; no report of the last record from";
                for (const std::string& name : result.undeliveredClients) {
                    text << " " << name;
                }
            }
        }
        if (!reportPath.empty()) {
            const ReplayPlatform::Status written =
                WriteReplayReport(reportPath, m_server, position, result);
            if (!written.IsOk()) {
                text << "\nreplay report not written: " << written.Message();
            }
        }
        const bool ok =
            result.completed && result.sendFailures == 0 && result.undeliveredClients.empty();
        m_lastJobOk.store(ok, std::memory_order_release);
        {
            std::lock_guard<std::mutex> lock(m_jobMutex);
            m_lastPosition = position;
            m_lastJobText = text.str();
        }
        m_output(text.str() + "\n");
    });
    return {true, reply.str()};
}

ControlReply ServerControl::OnRunner(
    const std::function<ReplayPlatform::Status(ReplayRunner&)>& operation,
    const std::string& done) {
    std::lock_guard<std::mutex> lock(m_jobMutex);
    if (m_runner == nullptr) {
        return {false, "no replay is running"};
    }
    const ReplayPlatform::Status applied = operation(*m_runner);
    if (!applied.IsOk()) {
        return {false, applied.Message()};
    }
    const ReplayPosition position = m_runner->Position();
    return {true, done + " at " + SecondsText(position.logMs - position.startMs) + " (record " +
                      std::to_string(position.nextRecord) + " of " +
                      std::to_string(position.records) + ")"};
}

ControlReply ServerControl::Pause() {
    return OnRunner([](ReplayRunner& runner) { return runner.Pause(); }, "paused");
}

ControlReply ServerControl::Resume() {
    return OnRunner([](ReplayRunner& runner) { return runner.Resume(); }, "resumed");
}

ControlReply ServerControl::Seek(double seconds) {
    const int64_t ms = static_cast<int64_t>(std::llround(seconds * 1000));
    return OnRunner([ms](ReplayRunner& runner) { return runner.Seek(ms); }, "moved");
}

ControlReply ServerControl::StepRecords(size_t count) {
    return OnRunner([count](ReplayRunner& runner) { return runner.StepRecords(count); }, "stepped");
}

ControlReply ServerControl::StepMilliseconds(int64_t ms) {
    return OnRunner([ms](ReplayRunner& runner) { return runner.StepTime(ms); }, "stepped");
}

ControlReply ServerControl::SetRate(double rate) {
    char done[48];
    if (rate == 0) {
        std::snprintf(done, sizeof done, "rate max");
        return OnRunner([](ReplayRunner& runner) { return runner.SetMaxRate(); }, done);
    }
    std::snprintf(done, sizeof done, "rate %g", rate);
    return OnRunner([rate](ReplayRunner& runner) { return runner.SetRate(rate); }, done);
}

ControlReply ServerControl::SetLoop(bool loop) {
    return OnRunner(
        [loop](ReplayRunner& runner) {
            runner.SetLoop(loop);
            return ReplayPlatform::Status::Ok();
        },
        loop ? "loop on" : "loop off");
}

ReplayPosition ServerControl::Position() {
    std::lock_guard<std::mutex> lock(m_jobMutex);
    return m_runner != nullptr ? m_runner->Position() : m_lastPosition;
}

std::string ServerControl::Step(const std::vector<std::string>& words) {
    const char* usage = "error: usage: step [N] or step MS ms (while paused)\n";
    ControlReply reply;
    if (words.size() == 1) {
        reply = StepRecords(1);
    } else {
        // "step 250 ms" and "step 250ms" both read as time.
        std::string number = words[1];
        bool time = words.size() == 3 && words[2] == "ms";
        if (words.size() == 2 && number.size() > 2 &&
            number.compare(number.size() - 2, 2, "ms") == 0) {
            number.resize(number.size() - 2);
            time = true;
        }
        if (words.size() > 3 || (words.size() == 3 && !time)) {
            return usage;
        }
        const double value = ParseSeconds(number);
        if (value < 1 || value != std::floor(value)) {
            return usage;
        }
        reply = time ? StepMilliseconds(static_cast<int64_t>(value))
                     : StepRecords(static_cast<size_t>(value));
    }
    return (reply.ok ? "" : "error: ") + reply.text + "\n";
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

ControlReply ServerControl::WaitForJob() {
    std::unique_lock<std::mutex> lock(m_jobMutex);
    m_jobEnded.wait(lock, [this] { return !JobRunning(); });
    if (LastJobSucceeded()) {
        return {true, "done"};
    }
    return {true, "done with errors" + (m_lastJobText.empty() ? "" : ": " + m_lastJobText)};
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
         << ", dropped as late " << counters.droppedLate << "\n";
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
    text << ReplayStatusText();
    text << ClientsText();
    return text.str();
}

std::string ServerControl::ReplayStatusText() {
    const ReplayPosition position = Position();
    if (!position.started) {
        return "";
    }
    std::ostringstream text;
    char rate[32];
    std::snprintf(rate, sizeof rate, "%g", position.rate);
    text << "replay " << (JobRunning() ? (position.paused ? "paused" : "playing") : "ended")
         << " at " << SecondsText(position.logMs - position.startMs) << " of "
         << SecondsText(position.endMs - position.startMs) << ", record " << position.nextRecord
         << " of " << position.records << ", " << position.recordsSent << " sent, rate "
         << (position.maxRate ? "max" : rate) << ", loop " << (position.loop ? "on" : "off") << " ("
         << position.loops << " loops done)\n";
    for (const ClientDelivery& delivery : m_server.Deliveries().Snapshot()) {
        text << "  " << delivery.name << ": " << delivery.recordsReported << " of "
             << delivery.recordsSent << " records handed over, "
             << MissedRecords(delivery, position) << " missed, " << delivery.checksumErrors
             << " checksum errors";
        const DeliveryTiming& timing = delivery.timing;
        if (timing.items > 0) {
            char figures[160];
            std::snprintf(figures, sizeof figures,
                          ", handed over against the moment (from its reports, %llu items): mean "
                          "%.2f ms, p99 %.2f ms, max %.2f ms",
                          static_cast<unsigned long long>(timing.items), timing.MeanMs(),
                          timing.PercentileMs(0.99), timing.MaxMs());
            text << figures;
        }
        if (!delivery.lastReport.empty()) {
            text << ", last report " << delivery.lastReport;
        }
        text << "\n";
    }
    return text.str();
}

}  // namespace ReplayServer
