// replay-soak: records a fleet of demo clients through the logger service and
// the replay server for a long time, replays the log, and reports lost
// records, replay timing and the memory growth of every process.

#include <limits.h>
// The soak supervises its processes: its own SIGINT/SIGTERM handler stops
// the run and with it every child.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "libreplay/ReplayVersion.h"
#include "tools/soak/SoakRun.h"

namespace {

void OnStopSignal(int) {
    ReplaySoak::g_soakInterrupted.store(true);
}

// The build tree this program was built in: two levels above tools/soak.
std::string DefaultBinaryDirectory() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) {
        return ".";
    }
    std::string self(path, static_cast<size_t>(length));
    for (int level = 0; level < 3; ++level) {
        const size_t slash = self.rfind('/');
        self = slash == std::string::npos ? "." : self.substr(0, slash);
    }
    return self;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Starts the logger service, the replay server and demo clients with a mix of realistic "
        "input rates under a private temporary target root on a random loopback address, records "
        "for the given duration, replays the log, and reports per client the items sent, stored "
        "and replayed, the replay timing error, and the memory of every process while recording "
        "(start, middle, end, growth, KB per minute).\n\nA stop keeps every item handed over "
        "before its moment; items handed over after it (until the client hears of the stop) are "
        "counted apart, and so are items in blocks that the server's write queue may have "
        "dropped as late (blocks sent a second or more "
        "after their first item, when the queue had written newer records). Exit status: 0 when "
        "nothing else was lost and no process grew beyond the limit, 1 otherwise, 2 for bad "
        "options, 3 when the run could not be carried out or was interrupted.",
        "replay-soak"};
    app.set_version_flag("--version", std::string("replay-soak ") + LIBREPLAY_VERSION);
    ReplaySoak::SoakSettings settings;
    settings.binaryDirectory = DefaultBinaryDirectory();
    app.add_option("--duration", settings.durationSeconds, "Seconds to record")
        ->default_val(settings.durationSeconds)
        ->check(CLI::Range(10.0, 86400.0));
    app.add_option("--clients", settings.clients, "Number of demo clients")
        ->default_val(settings.clients)
        ->check(CLI::Range(1, 60));
    app.add_option("--sample-interval", settings.sampleSeconds, "Seconds between memory samples")
        ->default_val(settings.sampleSeconds)
        ->check(CLI::Range(1.0, 600.0));
    app.add_option("--max-growth-kb", settings.maxGrowthKb,
                   "Memory growth of one process over the recording that fails the run")
        ->default_val(settings.maxGrowthKb)
        ->check(CLI::NonNegativeNumber);
    bool allowLate = false;
    app.add_flag("--allow-late", allowLate,
                 "Only report records the server's write queue dropped as late (more than a "
                 "second older than what it had written) instead of failing the run");
    app.add_option("--bin-dir", settings.binaryDirectory,
                   "Build tree with server/ReplayManager, logger/replay-logger and "
                   "examples/demo_client")
        ->default_val(settings.binaryDirectory);
    app.add_flag("--keep-root", settings.keepRoot,
                 "Keep the temporary target root with every process's output");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int status = app.exit(error);
        return status == 0 ? 0 : 2;
    }
    settings.failOnLate = !allowLate;

    struct sigaction action = {};
    action.sa_handler = OnStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);

    const int status = ReplaySoak::RunSoak(settings);
    if (ReplaySoak::g_soakInterrupted.load()) {
        std::fprintf(stderr, "replay-soak: interrupted; every process stopped\n");
        return 3;
    }
    return status;
}
