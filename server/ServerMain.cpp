#include "server/ServerMain.h"

#include <poll.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "libreplay/server/ReplayRuntimeOptions.h"
#include "libreplay/ReplayClientC.h"
#include "libreplay/ReplayVersion.h"
#include "libreplay/server/TargetRoot.h"
#include "reference/src/file_io.h"
#include "reference/src/process_signals.h"
#include "server/CommandWords.h"
#include "server/ControlSocket.h"
#include "server/HttpApi.h"
#include "server/ReplayFileCheck.h"
#include "server/ServerControl.h"
#include "server/SourceAllowList.h"

namespace ReplayServer {

namespace {

constexpr const char* kDefaultControlPath = "/tmp/ReplayManager.sock";
// Where the logger service stores logs, under the target root.
constexpr const char* kDefaultLogDirectory = "/fs/usb0";
constexpr const char* kDefaultHttpAddress = "127.0.0.1";
constexpr int kDefaultHttpPort = 4480;
// Must survive a power cut: not under /tmp.
constexpr const char* kDefaultJournalPath = "/var/lib/replay/ReplayManager.journal";

std::mutex g_outputMutex;

void Print(const std::string& text) {
    std::lock_guard<std::mutex> lock(g_outputMutex);
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

void PrintProgress(const ReplayProgress& progress) {
    char line[160];
    std::snprintf(line, sizeof line, "replay: %zu/%zu records, %.1f s of %.1f s\n", progress.sent,
                  progress.total, progress.replayMs / 1000.0, progress.durationMs / 1000.0);
    Print(line);
}

// Reads command lines from standard input until it ends or `stop` is set.
void ReadStandardInput(ServerControl& control, const std::atomic<bool>& stop) {
    std::string pending;
    char buffer[1024];
    while (!stop.load() && !control.QuitRequested()) {
        pollfd wait = {ReplayPlatform::kStandardInput, POLLIN, 0};
        if (poll(&wait, 1, 200) <= 0) {
            continue;
        }
        const ssize_t n =
            ReplayPlatform::ReadSome(ReplayPlatform::kStandardInput, buffer, sizeof buffer);
        if (n <= 0) {
            return;  // no more interactive input; the server keeps running
        }
        pending.append(buffer, static_cast<size_t>(n));
        size_t end;
        while ((end = pending.find('\n')) != std::string::npos) {
            const std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            Print(control.Execute(line));
        }
    }
}

struct CommonOptions {
    std::string bind;
    std::string allow;
    int port = 4400;
    size_t maxClients = 64;
    std::string config;
    std::string root;
    std::string control;
    int clientWait = 30;
    int reorderMs = 5000;
    int recordWindow = 60;
    std::string journal = kDefaultJournalPath;
    std::string http;  // ADDR:PORT, empty for the default
    bool noHttp = false;
    std::string webRoot;
    std::string logDirectory;
};

// The page's files: the source tree's for a server run from the build tree,
// else the installed copy beside the executable's prefix (a package may put
// it elsewhere than the build was configured for), else the configured one,
// else the source tree's.
std::string DefaultWebRoot() {
    char exe[4096];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    const std::string self = n > 0 ? std::string(exe, static_cast<size_t>(n)) : "";
    const std::string buildDir = REPLAY_BUILD_DIR;
    if (self.compare(0, buildDir.size() + 1, buildDir + "/") == 0) {
        return REPLAY_SOURCE_WEB_ROOT;
    }
    const size_t slash = self.rfind('/');
    const std::string besideExecutable =
        slash == std::string::npos ? std::string()
                                   : self.substr(0, slash) + "/../" + REPLAY_WEB_ROOT_FROM_PREFIX;
    for (const std::string& candidate :
         {besideExecutable, std::string(REPLAY_INSTALLED_WEB_ROOT)}) {
        if (!candidate.empty() && ReplayPlatform::IsReadable(candidate + "/index.html")) {
            return candidate;
        }
    }
    return REPLAY_SOURCE_WEB_ROOT;
}

// "ADDR:PORT" into its parts; false when it is not that.
bool SplitHttpAddress(const std::string& text, std::string& address, int& port) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return false;
    }
    address = text.substr(0, colon);
    char* end = nullptr;
    const long value = std::strtol(text.c_str() + colon + 1, &end, 10);
    if (end == text.c_str() + colon + 1 || *end != '\0' || value < 0 || value > 65535) {
        return false;
    }
    port = static_cast<int>(value);
    return true;
}

// Starts the web page's server when it is on; null when it is off or (at the
// default address, which another server may hold) cannot listen. False when
// an address given on the command line cannot be used.
bool StartHttp(const CommonOptions& common, ReplayServer& server, ServerControl& control,
               const std::string& controlPath, std::unique_ptr<HttpApi>& http) {
    const ReplayRuntimeOptions& options = ReplayRuntimeOptions::Get();
    if (common.noHttp || (common.http.empty() && !options.GetBooleanValue(eHTTPServer))) {
        return true;
    }
    HttpSettings settings;
    settings.address = kDefaultHttpAddress;
    settings.port = kDefaultHttpPort;
    if (!common.http.empty()) {
        SplitHttpAddress(common.http, settings.address, settings.port);  // checked with the options
    }
    settings.webRoot = common.webRoot.empty() ? DefaultWebRoot() : common.webRoot;
    settings.homePage = options.GetStringValue(eHomePageLocation);
    settings.debugLevel = options.GetIntegerValue(eHTTPDebugLevel);
    settings.logDirectory = common.logDirectory.empty()
                                ? ReplayPlatform::TargetPath(kDefaultLogDirectory)
                                : common.logDirectory;
    if (!HttpAccessPolicy::IsLoopbackAddress(settings.address)) {
        std::fprintf(stderr,
                     "ReplayManager: warning: the web page listens on %s, reachable from other "
                     "hosts; reading needs the token there too, and nothing on the wire is "
                     "encrypted\n",
                     settings.address.c_str());
    }
    const std::string token = HttpAccessPolicy::GenerateToken();
    const std::string tokenPath = controlPath + ".token";
    const ReplayPlatform::Status tokenWritten =
        token.empty() ? ReplayPlatform::Status::Failure("no random source")
                      : HttpAccessPolicy::WriteTokenFile(tokenPath, token);
    if (!tokenWritten.IsOk()) {
        std::fprintf(stderr, "ReplayManager: no web page: cannot make its token: %s\n",
                     tokenWritten.Message().c_str());
        return common.http.empty();
    }
    http = std::make_unique<HttpApi>(server, control, settings, token, Print);
    const ReplayPlatform::Status listening = http->Start();
    if (!listening.IsOk()) {
        http.reset();
        (void)ReplayPlatform::RemoveFile(tokenPath);
        std::fprintf(stderr, "ReplayManager: %s%s\n", listening.Message().c_str(),
                     common.http.empty() ? " (going on without it; --http ADDR:PORT)" : "");
        return common.http.empty();
    }
    Print("ReplayManager: web page http://" + settings.address + ":" +
          std::to_string(http->Port()) + "/ (token " + token + ", also in " + tokenPath + ")\n");
    return true;
}

enum class Mode { kServe, kRecord, kReplay };

int Run(const CommonOptions& common, Mode mode, double recordSeconds,
        const std::string& replayCommand) {
    if (!common.root.empty()) {
        ReplayPlatform::SetTargetRoot(common.root);
    }
    ReplayRuntimeOptions& options = ReplayRuntimeOptions::Get();
    if (!common.config.empty()) {
        options.OpenOptionsFile(common.config.c_str());
    }

    // Only the main thread takes the stop signals; every thread made from
    // here on inherits the mask.
    ReplayPlatform::BlockStopSignals();

    ServerSettings settings;
    settings.bindAddress = common.bind;
    settings.port = common.port;
    settings.clientLimit = common.maxClients;
    if (!common.allow.empty()) {
        // Checked with the options already.
        static_cast<void>(settings.allowedSources.Parse(common.allow));
    }
    settings.reorderHoldMs = common.reorderMs;
    settings.recordWindowMs = common.recordWindow * 1000;
    if (!common.journal.empty()) {
        settings.journalPath = common.journal == kDefaultJournalPath
                                   ? ReplayPlatform::TargetPath(common.journal)
                                   : common.journal;
    }
    ReplayServer server(settings);
    const ReplayPlatform::Status started = server.Start();
    if (!started.IsOk()) {
        std::fprintf(stderr, "ReplayManager: %s\n", started.Message().c_str());
        return 1;
    }
    ReplaySettings replaySettings;
    replaySettings.serverLeadTimeMs = options.GetIntegerValue(eServerLeadTime);
    replaySettings.networkingLatencyMs = options.GetIntegerValue(eNetworkingLatency);
    replaySettings.clientWaitMs = common.clientWait * 1000;
    replaySettings.progress = PrintProgress;
    Print("\nReplayManager: listening on " +
          (common.bind.empty() ? std::string("0.0.0.0") : common.bind) + ":" +
          std::to_string(common.port) + " (receive buffer " +
          std::to_string(server.ReceiveBufferBytes()) + " bytes; sources " +
          settings.allowedSources.ToString() + ")\n");

    ServerControl control(server, replaySettings, Print);
    ControlSocket controlSocket(
        [&control](const std::string& line) { return control.Execute(line); });
    const std::string controlPath =
        common.control.empty() ? ReplayPlatform::TargetPath(kDefaultControlPath) : common.control;
    const ReplayPlatform::Status listening = controlSocket.Start(controlPath);
    if (!listening.IsOk()) {
        std::fprintf(stderr, "ReplayManager: %s\n", listening.Message().c_str());
        return 1;
    }
    Print("ReplayManager: control socket " + controlPath + "\n");
    std::unique_ptr<HttpApi> http;
    if (!StartHttp(common, server, control, controlPath, http)) {
        controlSocket.Stop();
        server.Shutdown();
        return 1;
    }

    int status = 0;
    if (mode == Mode::kRecord) {
        const std::string reply = control.Execute(
            recordSeconds > 0 ? "record " + std::to_string(recordSeconds) : "record");
        Print(reply);
    } else if (mode == Mode::kReplay) {
        const std::string reply = control.Execute(replayCommand);
        Print(reply);
        if (reply.compare(0, 6, "error:") == 0) {
            status = 1;
            control.RequestQuit();
        }
    }

    std::atomic<bool> inputStop{false};
    std::thread input;
    // A replay takes commands too (pause, seek, ...).
    if (mode != Mode::kRecord) {
        input = std::thread(ReadStandardInput, std::ref(control), std::cref(inputStop));
    }
    // A timed recording or a replay ends the process when it is over.
    const bool endWithJob = mode == Mode::kReplay || (mode == Mode::kRecord && recordSeconds > 0);
    bool signalled = false;
    while (!control.QuitRequested()) {
        if (ReplayPlatform::WaitForStopSignal(200)) {
            signalled = true;
            break;
        }
        if (endWithJob && !control.JobRunning()) {
            break;
        }
    }
    if (endWithJob && !signalled && status == 0 && !control.LastJobSucceeded()) {
        status = 1;
    }
    inputStop.store(true);
    control.StopJob();
    control.Execute("wait");
    if (server.GetState() == ReplayCore::eStateRecord) {
        Print(control.Execute("stop"));
    }
    if (input.joinable()) {
        input.join();
    }
    if (http) {
        http->Stop();
        (void)ReplayPlatform::RemoveFile(controlPath + ".token");
    }
    controlSocket.Stop();
    server.Shutdown();
    Print("\nReplayManager: stopped\n");
    return status;
}

}  // namespace

int ServerMain(int argc, char** argv) {
    CLI::App app{
        "The replay server: keeps the table of replay clients, records their data into the log "
        "through the logger service, and replays logs to them.\n\nWithout a subcommand it serves "
        "until quit (standard input or the control socket), SIGINT or SIGTERM. Commands: "
        "record [SECONDS]; replay FILE [--segment N] [--from SECONDS] [--to SECONDS] "
        "[--no-state] [--clients A,B] [--loop] [--report FILE.json]; and, while a replay runs, "
        "pause, resume, seek SECONDS, step [N | MS ms] (while paused), rate R (0.1 to 10) or "
        "rate max (as fast as the clients report), loop on|off; stop; status [--json]; "
        "clients [--json]; wait (a replay: until every client has reported its last record, or "
        "a time-out naming those that did not); quit; help.\n\nExit status: 0 success; 1 the "
        "operation failed (a replay that did not complete or whose clients did not all report "
        "their last record, a replay file that is missing or not a regular file, a command the "
        "server refused); 2 usage error (bad option).",
        "ReplayManager"};
    // The program's version and that of the library it runs with.
    app.set_version_flag("--version", std::string("ReplayManager ") + LIBREPLAY_VERSION +
                                          " (libreplay " + CGetLibraryVersion() + ")");
    CommonOptions common;
    app.add_option("--bind", common.bind, "Address to listen on (default: every address)");
    app.add_option("--allow", common.allow,
                   "Networks whose datagrams are taken, e.g. 127.0.0.0/8,10.1.0.0/16 "
                   "(default: any source)")
        ->check(
            [](const std::string& text) {
                SourceAllowList list;
                return list.Parse(text).Message();
            },
            "NETWORKS");
    app.add_option("--port", common.port, "UDP port")
        ->default_val(4400)
        ->check(CLI::Range(1, 65535));
    app.add_option("--max-clients", common.maxClients, "Most clients accepted")
        ->default_val(64)
        ->check(CLI::PositiveNumber);
    app.add_option("--config", common.config, "Options file read over ReplayConfig.txt");
    app.add_option("--root", common.root, "Target root (default: REPLAY_TARGET_ROOT, else /)");
    app.add_option(
        "--control", common.control,
        std::string("Control socket (default: ") + kDefaultControlPath + " under the target root)");
    app.add_option("--client-wait", common.clientWait,
                   "Seconds a replay waits for the recorded clients")
        ->default_val(30)
        ->check(CLI::NonNegativeNumber);

    app.add_option("--reorder-ms", common.reorderMs,
                   "Milliseconds each record waits, so that late blocks go to the log in order")
        ->default_val(5000)
        ->check(CLI::Range(0, 60000));

    app.add_option("--record-window", common.recordWindow,
                   "Seconds a data record's time may differ from its client's clock before it "
                   "is refused and counted (0: no limit)")
        ->default_val(60)
        ->check(CLI::Range(0, 86400));
    app.add_option("--journal", common.journal,
                   std::string("Crash journal of received records (default: ") +
                       kDefaultJournalPath + " under the target root; \"\": none)");

    app.add_option("--http", common.http,
                   std::string("Serve the web page and its API at ADDR:PORT (default ") +
                       kDefaultHttpAddress + ":" + std::to_string(kDefaultHttpPort) +
                       " when the option HTTPServer is 1; port 0: any free port). Another "
                       "address than loopback is reachable from other hosts")
        ->check(
            [](const std::string& text) {
                std::string address;
                int port = 0;
                if (!SplitHttpAddress(text, address, port)) {
                    return std::string("expected ADDR:PORT");
                }
                // Requests must name the address they were sent to, which a
                // wildcard bind does not know.
                return address == "0.0.0.0" || address == "::" || address == "[::]"
                           ? std::string("name one interface's address, not every address")
                           : std::string();
            },
            "ADDR:PORT");
    app.add_flag("--no-http", common.noHttp, "No web page");
    app.add_option("--web-root", common.webRoot, "Directory of the web page's files");
    app.add_option("--log-dir", common.logDirectory,
                   std::string("Directory of the logs the web page lists (default: ") +
                       kDefaultLogDirectory + " under the target root)");

    double recordSeconds = 0;
    CLI::App* record = app.add_subcommand("record", "Record, for a duration or until stopped");
    record->add_option("--duration", recordSeconds, "Seconds to record (default: until stopped)")
        ->check(CLI::NonNegativeNumber);

    std::string replayFile;
    int segment = -1;
    double from = 0;
    CLI::App* replay = app.add_subcommand("replay", "Replay a log to its clients, then exit");
    replay->add_option("file", replayFile, "The log file")->required();
    replay->add_option("--segment", segment, "Only this segment (0: before the first header)")
        ->check(CLI::NonNegativeNumber);
    replay->add_option("--from", from, "Start this many seconds into the log")
        ->check(CLI::NonNegativeNumber);
    std::string replayClients;
    std::string reportPath;
    bool loop = false;
    replay->add_option("--clients", replayClients,
                       "Only these clients, separated by commas (the others stay stopped)");
    replay->add_flag("--loop", loop, "Start again from the beginning at the end, until stopped");
    replay->add_option("--report", reportPath,
                       "Write the replay's outcome and each client's delivery here (JSON) at "
                       "the end");

    CLI::App* send = app.add_subcommand(
        "send",
        "Send one command to a running server: one argument holding the command line (e.g. "
        "\"status --json\"), or its words as separate arguments. A replay file is taken "
        "relative to this working directory; quote names with spaces.");
    send->prefix_command();
    app.require_subcommand(0, 1);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& parseError) {
        const int status = app.exit(parseError);
        return status == 0 ? 0 : 2;
    }

    if (*send) {
        if (!common.root.empty()) {
            ReplayPlatform::SetTargetRoot(common.root);
        }
        const std::string path = common.control.empty()
                                     ? ReplayPlatform::TargetPath(kDefaultControlPath)
                                     : common.control;
        std::string command;
        const ReplayPlatform::Status formed = SenderCommandLine(send->remaining(), command);
        if (!formed.IsOk()) {
            std::fprintf(stderr, "ReplayManager: %s\n", formed.Message().c_str());
            return 2;
        }
        std::string reply;
        const ReplayPlatform::Status sent = ControlSocket::Send(path, command, reply);
        if (!sent.IsOk()) {
            std::fprintf(stderr, "ReplayManager: %s\n", sent.Message().c_str());
            return 1;
        }
        std::fputs(reply.c_str(), stdout);
        return reply.compare(0, 6, "error:") == 0 || reply.find("with errors") != std::string::npos
                   ? 1
                   : 0;
    }
    if (*record) {
        return Run(common, Mode::kRecord, recordSeconds, "");
    }
    if (*replay) {
        // Checked before anything is bound, so that a wrong path costs no
        // client a connection.
        const ReplayPlatform::Status fileCheck = CheckReplayFile(replayFile);
        if (!fileCheck.IsOk()) {
            std::fprintf(stderr, "ReplayManager: %s\n", fileCheck.Message().c_str());
            return 1;
        }
        std::string line = "replay " + QuoteCommandWord(replayFile);
        if (segment >= 0) {
            line += " --segment " + std::to_string(segment);
        }
        if (from > 0) {
            line += " --from " + std::to_string(from);
        }
        if (!replayClients.empty()) {
            line += " --clients " + QuoteCommandWord(replayClients);
        }
        if (loop) {
            line += " --loop";
        }
        if (!reportPath.empty()) {
            line += " --report " + QuoteCommandWord(reportPath);
        }
        return Run(common, Mode::kReplay, 0, line);
    }
    return Run(common, Mode::kServe, 0, "");
}

}  // namespace ReplayServer
