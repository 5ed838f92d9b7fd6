// replay-logger: the logger service for the multicore device tree on Linux.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "libreplay/ReplayVersion.h"
#include "logger/LoggerService.h"
#include "libreplay/server/TargetRoot.h"
#include "reference/src/process_signals.h"

int main(int argc, char** argv) {
    CLI::App app{
        "Creates the multicore logger devices (FIFOs) under the target root, or reuses the ones "
        "an earlier run left, and stores what arrives on them: replay records from navi/Q go to "
        "the log file, console batches from navi/multi and debug text from navi/q to the console "
        "log; ioc1/0 answers the presence probe. While the log file cannot be written "
        "(medium missing or full) records are held in memory (--queue-mb) and written in "
        "arrival order once it can; what does not fit is dropped, counted and reported. Stops "
        "on SIGINT or SIGTERM after writing everything received. The FIFOs stay in place, so a "
        "writer that keeps navi/Q open "
        "read-write (the replay server) can go on writing while the service restarts: what it "
        "writes meanwhile waits in the FIFO, up to its capacity, and the next start stores it. "
        "Writers that open a device write-only get ENXIO while the service is down. A path "
        "that exists but is not a FIFO stops the start.\n\nExit status: 0 after a clean stop, "
        "1 when the devices cannot be created or opened, 2 for bad options.",
        "replay-logger"};
    app.set_version_flag("--version", std::string("replay-logger ") + LIBREPLAY_VERSION);
    std::string root;
    std::string logFile;
    std::string consoleFile;
    MulticoreLogService::LoggerOptions options;
    app.add_option("--root", root,
                   "Target root holding /kfsystem/multicore, /fs/usb0 and /tmp "
                   "(default: REPLAY_TARGET_ROOT, else /)");
    app.add_option("--log-file", logFile,
                   "Replay log file (default: /fs/usb0/LOGFILE.DAT under the target root)");
    app.add_option("--console-log", consoleFile,
                   "Console and debug text log (default: /tmp/ReplayConsole.txt under the target "
                   "root; empty for none)");
    app.add_flag("--stdout", options.consoleToStdout,
                 "Also print console and debug text on standard output");
    app.add_option("--sync-interval-ms", options.syncIntervalMs,
                   "Flush the log file to the medium this often; 0 after every write")
        ->default_val(options.syncIntervalMs)
        ->check(CLI::NonNegativeNumber);
    double queueMegabytes = static_cast<double>(options.queueBytes) / (1024 * 1024);
    app.add_option("--queue-mb", queueMegabytes,
                   "Memory (MB, fractions allowed) that holds records while the log file cannot "
                   "be written (medium missing or full) or is written slower than records "
                   "arrive; the default holds about 75 s of 20 clients each sending twenty "
                   "2 KB blocks a second. Records that do not fit are dropped and counted")
        ->default_val(queueMegabytes)
        ->check(CLI::Range(0.001, 1048576.0));
    app.add_option("--pipe-size", options.pipeSize,
                   "Buffer size of the navi/Q FIFO to ask the kernel for; 0 for the largest it "
                   "allows (16 MB, else /proc/sys/fs/pipe-max-size)")
        ->default_val(options.pipeSize)
        ->check(CLI::NonNegativeNumber);
    app.add_option("--stats-file", options.statisticsFile,
                   "JSON counters (records received, written, dropped, queued, and more), "
                   "rewritten atomically every second and at exit");
    app.add_option("--ready-file", options.readyFile,
                   "Written (with the process id) once the devices exist; removed on exit");
    bool consoleGiven = false;
    try {
        app.parse(argc, argv);
        consoleGiven = app.count("--console-log") > 0;
    } catch (const CLI::ParseError& error) {
        const int status = app.exit(error);
        return status == 0 ? 0 : 2;
    }

    options.queueBytes = static_cast<size_t>(queueMegabytes * 1024 * 1024);
    if (!root.empty()) {
        ReplayPlatform::SetTargetRoot(root);
    }
    options.deviceRoot = ReplayPlatform::TargetPath("/kfsystem/multicore");
    options.logFile =
        logFile.empty() ? ReplayPlatform::TargetPath("/fs/usb0/LOGFILE.DAT") : logFile;
    options.consoleLogFile =
        consoleGiven ? consoleFile : ReplayPlatform::TargetPath("/tmp/ReplayConsole.txt");

    // The threads inherit the blocked signals; only the wait below sees them.
    ReplayPlatform::BlockStopSignals();
    // A log file at the process's file size limit fails the write (EFBIG),
    // reported and counted like a full medium, instead of ending the service.
    ReplayPlatform::IgnoreSignal(SIGXFSZ);

    MulticoreLogService::LoggerService service(options);
    const ReplayPlatform::Status started = service.Start();
    if (!started.IsOk()) {
        fprintf(stderr, "replay-logger: %s\n", started.Message().c_str());
        return 1;
    }
    printf(
        "\nreplay-logger: devices under %s, logging to %s; navi/Q buffer %d bytes, queue %zu "
        "bytes\n",
        options.deviceRoot.c_str(), options.logFile.c_str(), service.RecordPipeSize(),
        options.queueBytes);
    fflush(stdout);

    while (!ReplayPlatform::WaitForStopSignal(-1)) {
    }
    service.Stop();
    printf("replay-logger: %s\n", service.Summary().c_str());
    return 0;
}
